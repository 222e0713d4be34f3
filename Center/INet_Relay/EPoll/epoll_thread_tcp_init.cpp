#include "Center/INet_Relay/EPoll/epoll_tcp_method_client.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method_server.hpp"
#include "Center/INet_Relay/EPoll/epoll_thread.hpp"

namespace Zolt::Center::INet_Relay::EPoll {
namespace {

// Deliberate: whole masks are compared. An event that combines more, above all with EPOLLIN, is nobody's.
constexpr std::uint32_t c_writable = EPOLLOUT;
constexpr std::uint32_t c_writable_hung_up = EPOLLOUT | EPOLLHUP;
constexpr std::uint32_t c_refused = EPOLLOUT | EPOLLERR | EPOLLHUP;

void dispatch_connecting(struct_epoll_overlapped_tcp* rec, std::uint32_t events) {
    switch (events) {
    case c_writable:
    case c_writable_hung_up:
        completed_connect(rec);
        return;
    case c_refused:
        failed_connect(rec);
        return;
    default:
        return;
    }
}

void dispatch(struct_epoll_overlapped* record, std::uint32_t events) {
    switch (record->kind) {
    case c_kind_listen:
        if (!is_error(events)) {
            accept(record);
        }
        return;
    case c_kind_connecting:
        dispatch_connecting(static_cast<struct_epoll_overlapped_tcp*>(record), events);
        return;
    default:
        return;
    }
}

} // namespace

void* epoll_thread_tcp_init_entry(Tesk::OS::class_thread*) {
    return run_event_thread(
        {epoll_tcp_init, dispatch, "epoll_thread_tcp_init_entry catch_err : ", "epoll_init_thread_entry catch: "});
}

} // namespace Zolt::Center::INet_Relay::EPoll
