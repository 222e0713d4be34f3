// Files that are compiled into the program; cmake/embed_files.cmake writes the tables.
#ifndef REFERENCE_CENTER_PAGE_FILES_HPP
#define REFERENCE_CENTER_PAGE_FILES_HPP

#include <span>
#include <string_view>

namespace Zolt::Reference_Center {

struct page_file {
    std::string_view name;
    std::string_view type; ///< media type
    std::span<unsigned char const> content;
};

/// Those of Reference_Center/page.
std::span<page_file const> page_files();
/// messages.txt alone.
std::span<page_file const> message_files();

} // namespace Zolt::Reference_Center

#endif
