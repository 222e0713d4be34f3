#include "tests/support/allocations.hpp"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace relay_test {
namespace {

constinit thread_local long t_count = 0;
constinit thread_local long t_fail_at = 0;

} // namespace

long count_allocations() {
    return t_count;
}

void fail_allocation(long nth) {
    t_fail_at = nth == 0 ? 0 : t_count + nth;
}

} // namespace relay_test

void* operator new(std::size_t size) {
    using namespace relay_test;
    ++t_count;
    void* const memory = t_count == t_fail_at ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void* operator new[](std::size_t size) {
    return operator new(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
