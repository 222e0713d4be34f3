#include "Reference_Host/relay_observer.hpp"

#include <atomic>

namespace Zolt::Reference_Host {
namespace {

constinit std::atomic<relay_observer*> g_observer{nullptr};

} // namespace

void set_relay_observer(relay_observer* observer) {
    g_observer.store(observer, std::memory_order_release);
}

relay_observer* get_relay_observer() {
    return g_observer.load(std::memory_order_acquire);
}

} // namespace Zolt::Reference_Host
