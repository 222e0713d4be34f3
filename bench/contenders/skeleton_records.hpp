// What the skeleton keeps of a connection: just enough for the sequence of calls.
#ifndef BENCH_CONTENDERS_SKELETON_RECORDS_HPP
#define BENCH_CONTENDERS_SKELETON_RECORDS_HPP

#include "bench/plan.hpp"
#include "bench/support/packet_bytes.hpp"
#include "bench/support/send_window.hpp"

#include <cstddef>
#include <memory>
#include <mutex>

#include <netinet/in.h>
#include <sys/epoll.h>

namespace relay_bench::skeleton {

inline constexpr std::uint32_t c_recv_mask = EPOLLIN | EPOLLONESHOT;
inline constexpr std::uint32_t c_send_mask = EPOLLOUT | EPOLLONESHOT | EPOLLET;
inline constexpr std::uint32_t c_arrival_mask = EPOLLIN | EPOLLET;
inline constexpr std::uint32_t c_datagram_idle_mask = EPOLLERR | EPOLLET;
inline constexpr std::uint32_t c_beat_size = 0xFFFFFFFF; ///< that the header of a tick announces, and no packet has
inline constexpr std::size_t c_block_size = 1024;        ///< of the exchange that comes before packets

/// A packet on its way out. Header and data stand apart, so that many packets may share one data block.
struct packet {
    packet* next = nullptr;
    unsigned char* data = nullptr;
    std::unique_ptr<unsigned char[]> own_data;
    unsigned char header[c_header_size];
};

/// Packets to be sent, and packets that were sent and are kept for the next ones: both linked through the packets.
class packet_queue {
public:
    packet_queue() = default;
    ~packet_queue() {
        for (packet* list : {first, spare}) {
            while (list != nullptr) {
                std::unique_ptr<packet> const gone(list);
                list = gone->next;
            }
        }
    }
    packet_queue(packet_queue const&) = delete;
    packet_queue& operator=(packet_queue const&) = delete;

    packet* front() const { return first; }

    void push(packet* last_one) {
        last_one->next = nullptr;
        (first == nullptr ? first : last->next) = last_one;
        last = last_one;
    }

    packet* pop() {
        packet* const gone = first;
        first = gone->next;
        return gone;
    }

    void keep(packet* sent) {
        sent->next = spare;
        spare = sent;
    }

    /// The packet that was sent last, or a fresh one.
    packet* obtain(std::uint32_t size) {
        if (spare == nullptr) {
            auto fresh = std::make_unique<packet>();
            write_header(fresh->header, size);
            return fresh.release();
        }
        packet* const kept = spare;
        spare = kept->next;
        return kept;
    }

private:
    packet* first = nullptr;
    packet* last = nullptr;
    packet* spare = nullptr;
};

enum class kind { listening, accepted, connecting, established, datagrams };

struct record {
    kind what = kind::listening;
    bool is_outgoing = false;
    bool sending_header = false;
    bool receiving_data = false;
    int fd = -1;
    sockaddr_in remote{};

    // The thread that has the event.
    unsigned char* recv_ptr = nullptr;
    std::size_t recv_remain = 0;
    unsigned char* send_ptr = nullptr;
    std::size_t send_remain = 0;
    std::unique_ptr<unsigned char[]> recv_data; ///< kept and read into again
    unsigned char recv_header[c_header_size];

    std::mutex lock; ///< of queue
    packet_queue queue;
    send_window window;
};

} // namespace relay_bench::skeleton

#endif
