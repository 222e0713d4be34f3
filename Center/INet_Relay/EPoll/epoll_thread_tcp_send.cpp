#include "Center/INet_Relay/EPoll/epoll_tcp_method.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method_client.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method_server.hpp"
#include "Center/INet_Relay/EPoll/epoll_thread.hpp"

namespace Zolt::Center::INet_Relay::EPoll {
namespace {

void dispatch(struct_epoll_overlapped* record, std::uint32_t events) {
    auto* const rec = static_cast<struct_epoll_overlapped_tcp*>(record);
    bool const failed = is_error(events);
    switch (record->kind) {
    case c_kind_accepted:
        failed ? failed_server_init(rec) : send_server_init(rec);
        return;
    case c_kind_connecting:
        failed ? failed_connect_init(rec) : send_client_init(rec);
        return;
    // Deliberate: an error of an established connection only stops the sending; closing is left to the receive side.
    case c_kind_established_server:
        failed ? failed_send(rec) : send_server(rec);
        return;
    case c_kind_established_client:
        failed ? failed_send(rec) : send_client(rec);
        return;
    default:
        return;
    }
}

} // namespace

void* epoll_thread_tcp_send_entry(Tesk::OS::class_thread*) {
    return run_event_thread(
        {epoll_tcp_send, dispatch, "epoll_thread_tcp_send_entry catch_err : ", "epoll_send_thread_entry catch: "});
}

} // namespace Zolt::Center::INet_Relay::EPoll
