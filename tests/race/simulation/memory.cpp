#include "tests/race/simulation/memory.hpp"

#include "Center/INet_Relay/EPoll/epoll_overlapped.hpp"
#include "tests/race/simulation/scheduler.hpp"

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

// The address sanitizer finds what happens to freed memory better, and wants its own operators.
#if defined(__SANITIZE_ADDRESS__)
#define SIMULATION_KEEPS_RECORDS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SIMULATION_KEEPS_RECORDS 0
#endif
#endif
#if !defined(SIMULATION_KEEPS_RECORDS)
#define SIMULATION_KEEPS_RECORDS 1
#endif

namespace simulation {
namespace {

constexpr std::size_t c_record_size = sizeof(Zolt::Center::INet_Relay::EPoll::struct_epoll_overlapped_tcp);
constexpr unsigned char c_pattern = 0xDB;
constexpr std::size_t c_most = 4096;

/// No container: this is where memory itself is given back.
struct destroyed_records {
    std::array<unsigned char*, c_most> all{};
    std::size_t count = 0;
};
constinit destroyed_records g_destroyed;

/// True when the record is kept, false when there is no room for it.
[[maybe_unused]] bool keep(void* record) {
    if (g_destroyed.count == c_most) {
        return false;
    }
    std::memset(record, c_pattern, c_record_size);
    g_destroyed.all[g_destroyed.count++] = static_cast<unsigned char*>(record);
    return true;
}

bool is_untouched(unsigned char const* record) {
    for (std::size_t i = 0; i < c_record_size; ++i) {
        if (record[i] != c_pattern) {
            return false;
        }
    }
    return true;
}

bool lies_in_destroyed(void const* bytes) {
    auto const* const at = static_cast<unsigned char const*>(bytes);
    for (std::size_t i = 0; i < g_destroyed.count; ++i) {
        if (at >= g_destroyed.all[i] && at < g_destroyed.all[i] + c_record_size) {
            return true;
        }
    }
    return false;
}

} // namespace

void check_alive(void const* record) {
    require(!lies_in_destroyed(record), "an event names a destroyed record");
}

void check_readable(void const* bytes) {
    require(!lies_in_destroyed(bytes), "bytes of a destroyed record go out on the wire");
}

void release_destroyed() {
    while (g_destroyed.count != 0) {
        unsigned char* const record = g_destroyed.all[--g_destroyed.count];
        require(is_untouched(record), "somebody wrote into a destroyed record");
        std::free(record);
    }
}

} // namespace simulation

#if SIMULATION_KEEPS_RECORDS

void* operator new(std::size_t size) {
    void* const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t size) noexcept {
    if (size != simulation::c_record_size || !simulation::keep(memory)) {
        std::free(memory);
    }
}

#endif
