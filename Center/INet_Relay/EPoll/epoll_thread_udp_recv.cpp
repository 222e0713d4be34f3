#include "Center/INet_Relay/EPoll/epoll_thread.hpp"
#include "Center/INet_Relay/EPoll/epoll_udp_method.hpp"

namespace Zolt::Center::INet_Relay::EPoll {
namespace {

void dispatch(struct_epoll_overlapped* record, std::uint32_t events) {
    if (is_error(events) || record->kind != c_kind_udp) {
        return;
    }
    recv_udp(static_cast<struct_epoll_overlapped_ex*>(record));
}

} // namespace

void* epoll_thread_udp_recv_entry(Tesk::OS::class_thread*) {
    return run_event_thread(
        {epoll_udp_recv, dispatch, "epoll_thread_udp_recv_entry catch_err : ", "epoll_recv_thread_entry catch: "});
}

} // namespace Zolt::Center::INet_Relay::EPoll
