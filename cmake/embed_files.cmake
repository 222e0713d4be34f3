# Writes a C++ table of files: cmake -DFILES="A;B" -DOUTPUT=FILE [-DFUNCTION=NAME] -P embed_files.cmake. The function is
# page_files unless another one is named. Read Reference_Center/page_files.hpp.

if(NOT DEFINED FUNCTION)
  set(FUNCTION page_files)
endif()

set(type_html "text/html; charset=utf-8")
set(type_css "text/css; charset=utf-8")
set(type_js "text/javascript; charset=utf-8")
set(type_svg "image/svg+xml")
set(type_txt "text/plain; charset=utf-8")

set(arrays "")
set(rows "")
set(number 0)
foreach(file IN LISTS FILES)
  cmake_path(GET file FILENAME name)
  cmake_path(GET file EXTENSION LAST_ONLY suffix)
  string(SUBSTRING "${suffix}" 1 -1 suffix)
  if(NOT DEFINED type_${suffix})
    message(FATAL_ERROR "${file}: no media type for .${suffix} is known")
  endif()
  file(READ ${file} bytes HEX)
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
  string(APPEND arrays "constexpr unsigned char c_file_${number}[] = {${bytes}};\n")
  string(APPEND rows "    {\"${name}\", \"${type_${suffix}}\", c_file_${number}},\n")
  math(EXPR number "${number} + 1")
endforeach()

file(WRITE ${OUTPUT} "#include \"Reference_Center/page_files.hpp\"

namespace Zolt::Reference_Center {
namespace {

${arrays}
constexpr page_file c_files[] = {
${rows}};

} // namespace

std::span<page_file const> ${FUNCTION}() {
    return c_files;
}

} // namespace Zolt::Reference_Center
")
