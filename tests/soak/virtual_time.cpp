#include "tests/soak/virtual_time.hpp"

#include "Host/tesk_os.hpp"

#include <atomic>

namespace soak {
namespace {

std::atomic<std::uint64_t> g_ticks{0};
Tesk::OS::class_timer* g_timer = nullptr;
void (*g_callback)(Tesk::OS::class_timer*) = nullptr;

constexpr std::uint64_t c_first_clock = 1000; ///< milliseconds; no clock begins at 0

} // namespace

void tick() {
    ++g_ticks;
    if (g_callback != nullptr) {
        g_callback(g_timer);
    }
}

std::uint64_t count_ticks() {
    return g_ticks;
}

} // namespace soak

namespace Tesk::OS {

unsigned long lemon_clock() {
    return soak::c_first_clock + soak::g_ticks * 1000;
}

unsigned long lemon_cpu_clock() {
    return lemon_clock() * 1000;
}

/// Nothing to keep beside the two globals.
struct class_timer::timer_state {};

class_timer::class_timer() : state(nullptr) {}
class_timer::~class_timer() = default;

int class_timer::eproc_create(double, void (*callback)(class_timer*), void*) {
    soak::g_timer = this;
    soak::g_callback = callback;
    return 0;
}

int class_timer::proc_destroy() {
    soak::g_callback = nullptr;
    return 0;
}

} // namespace Tesk::OS
