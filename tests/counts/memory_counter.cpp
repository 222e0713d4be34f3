// The C library's allocator with a count in front, for the whole process: a program's own definitions take the place of
// the library's, also for the libraries that it loads, and operator new comes here too.

#include "tests/counts/call_counter.hpp"

#include <cstddef>

extern "C" {

// The GNU C library's own names for what is replaced here.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) {
    counts::note_allocation();
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    counts::note_allocation();
    return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) {
    counts::note_allocation();
    return __libc_realloc(memory, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    counts::note_allocation();
    return __libc_memalign(alignment, size);
}
}
