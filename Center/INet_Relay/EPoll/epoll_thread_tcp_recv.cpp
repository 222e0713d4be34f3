#include "Center/INet_Relay/EPoll/epoll_tcp_method_client.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method_server.hpp"
#include "Center/INet_Relay/EPoll/epoll_thread.hpp"

namespace Zolt::Center::INet_Relay::EPoll {
namespace {

/// Deliberate: an exchange that cannot be armed any further ends the thread; connections would hang unnoticed otherwise.
void end_thread_on_failure(int result, char const* step) {
    if (result != 0) {
        throw std::string(step);
    }
}

/// The record ends also when there is no memory to tell the Center of it.
void end_established_client(struct_epoll_overlapped_tcp* rec) {
    try {
        unestablish_connect(rec);
    } catch (...) {
        close_client(rec);
        throw;
    }
    close_client(rec);
}

void dispatch_error(struct_epoll_overlapped_tcp* rec) {
    switch (rec->kind) {
    case c_kind_accepted:
        failed_server_init(rec);
        return;
    case c_kind_connecting:
        failed_connect_init(rec);
        return;
    case c_kind_established_server:
        shutdown_server(rec);
        return;
    case c_kind_established_client:
        end_established_client(rec);
        return;
    default:
        return;
    }
}

void dispatch(struct_epoll_overlapped* record, std::uint32_t events) {
    auto* const rec = static_cast<struct_epoll_overlapped_tcp*>(record);
    if (is_error(events)) {
        dispatch_error(rec);
        return;
    }
    switch (record->kind) {
    case c_kind_accepted:
        end_thread_on_failure(recv_server_init(rec), "recv_server_init");
        return;
    case c_kind_connecting:
        end_thread_on_failure(recv_client_init(rec), "recv_client_init");
        return;
    case c_kind_established_server:
        recv_server(rec);
        return;
    case c_kind_established_client:
        recv_client(rec);
        return;
    default:
        return;
    }
}

} // namespace

void* epoll_thread_tcp_recv_entry(Tesk::OS::class_thread*) {
    return run_event_thread(
        {epoll_tcp_recv, dispatch, "epoll_thread_tcp_recv_entry catch_err : ", "epoll_recv_thread_entry catch: "});
}

} // namespace Zolt::Center::INet_Relay::EPoll
