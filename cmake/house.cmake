# What holds for every target: the warnings that are errors, the sanitizers, coverage, the include root.

add_library(house INTERFACE)
target_include_directories(house INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(house INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wold-style-cast -Werror)
if(INET_RELAY_UNITY)
  # A name of one source is no mistake in another one that is compiled with it. All other builds look at each alone.
  target_compile_options(house INTERFACE -Wno-shadow -Wno-subobject-linkage)
endif()

if(INET_RELAY_SANITIZE)
  target_compile_options(house INTERFACE
    -fsanitize=${INET_RELAY_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(house INTERFACE -fsanitize=${INET_RELAY_SANITIZE})
endif()
if(INET_RELAY_COVERAGE)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "INET_RELAY_COVERAGE: only clang counts what each condition of the source was")
  endif()
  # The tests are measured with what they test: an inline function counts in whichever object it was taken from.
  target_compile_options(house INTERFACE -fprofile-instr-generate -fcoverage-mapping -fprofile-update=atomic)
  target_link_options(house INTERFACE -fprofile-instr-generate)
endif()

# What ships is hardened besides; tests/ledger/hardening.py reads each of these back from the binaries.
add_library(shipped INTERFACE)
target_link_libraries(shipped INTERFACE house)
target_link_options(shipped INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
if(NOT INET_RELAY_SANITIZE AND NOT INET_RELAY_COVERAGE)
  target_compile_options(shipped INTERFACE
    -fstack-protector-strong -fstack-clash-protection -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
