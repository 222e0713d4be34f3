#include "tests/support/allocations.hpp"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace relay_test {

bool in_host_operation();

/// Programs with another host than the scripted one have no such operations; theirs is the journal's otherwise.
[[gnu::weak]] bool in_host_operation() {
    return false;
}

namespace {

constinit thread_local long t_count = 0;
constinit thread_local long t_fail_at = 0;
constinit thread_local int t_sections = 0;
constinit thread_local long t_relay_count = 0;
constinit thread_local long t_relay_fail_at = 0;

/// Counts one. True when it is to fail.
bool count_one() {
    bool const is_the_relays = t_sections != 0 && !in_host_operation();
    t_relay_count += is_the_relays ? 1 : 0;
    return ++t_count == t_fail_at || (is_the_relays && t_relay_count == t_relay_fail_at);
}

} // namespace

long count_allocations() {
    return t_count;
}

void fail_allocation(long nth) {
    t_fail_at = nth == 0 ? 0 : t_count + nth;
}

relay_section::relay_section() {
    ++t_sections;
}
relay_section::~relay_section() {
    --t_sections;
}

long count_relay_allocations() {
    return t_relay_count;
}

void fail_relay_allocation(long nth) {
    t_relay_fail_at = nth == 0 ? 0 : t_relay_count + nth;
}

} // namespace relay_test

void* operator new(std::size_t size) {
    using namespace relay_test;
    void* const memory = count_one() ? nullptr : std::malloc(size == 0 ? 1 : size);
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
