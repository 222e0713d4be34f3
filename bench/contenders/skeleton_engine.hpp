// The skeleton's threads: the relay's calls in the relay's order, and nothing else.
#ifndef BENCH_CONTENDERS_SKELETON_ENGINE_HPP
#define BENCH_CONTENDERS_SKELETON_ENGINE_HPP

#include "bench/contender.hpp"
#include "bench/contenders/skeleton_records.hpp"
#include "bench/contenders/skeleton_ticker.hpp"

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace relay_bench::skeleton {

/// Takes a packet that has arrived whole; on the receive thread, before that arms the record again.
using delivery = std::function<void(record& from)>;

class engine {
public:
    engine(run_plan const& plan, delivery to);
    /// Ends the threads and closes everything.
    ~engine();
    engine(engine const&) = delete;
    engine& operator=(engine const&) = delete;

    void listen(std::uint16_t port);
    /// Returns when the exchange is over.
    record& connect(std::uint32_t ip, std::uint16_t port);
    record& open_datagrams(datagram_path const& path);

    /// Ends the threads; what was opened stays open.
    void rest();

    /// Any thread.
    void send(record& to);
    void broadcast();

    /// A header alone goes over every connection at once and then once a period from that moment on; 0: no longer.
    /// Nothing else may be sent until it is no longer so and has_ticked().
    void set_ticking(std::uint64_t from);
    /// Whether what the ticks so far have armed was written.
    bool has_ticked() const { return beats_due.load(std::memory_order_acquire) == 0; }
    int ticking_thread() const { return ticks ? ticks->thread() : 0; }

    unsigned int accepted() const { return count_accepted.load(std::memory_order_acquire); }
    unsigned int established() const { return accepted() + count_connected.load(std::memory_order_acquire); }
    /// Throws what a thread of the engine failed with.
    void check();

private:
    using step = void (engine::*)(record& rec, std::uint32_t events);

    void start(std::size_t which, step dispatch);
    void serve(int instance, step dispatch);
    void stop(std::size_t which);
    void run_guarded(std::function<void()> const& work);
    void fail(std::string const& reason);
    void tick();
    record& add_record(kind what, int fd);
    static void arm(int instance, int operation, record& rec, std::uint32_t mask);
    packet* obtain_with_data(record& to);
    void start_or_queue(record& to, packet* one, std::unique_lock<std::mutex>& hold);

    // Set-up, then what each event thread does with an event.
    void on_set_up(record& rec, std::uint32_t events);
    void on_readable(record& rec, std::uint32_t events);
    void on_writable(record& rec, std::uint32_t events);
    void on_datagram(record& rec, std::uint32_t events);
    void on_datagram_writable(record& rec, std::uint32_t events);

    void accept(record& listening);
    void completed_connect(record& rec);
    void recv_block(record& rec);
    void send_block(record& rec);
    void begin_packets(record& rec);
    void recv_piece(record& rec);
    void completed_recv(record& rec);
    void send_piece(record& rec);
    void completed_packet(record& rec);

    std::uint32_t const size;
    std::uint32_t const window;
    delivery const deliver;
    std::vector<unsigned char> shared_data;          ///< of broadcasts
    std::array<unsigned char, c_header_size> beat{}; ///< of ticks

    std::vector<int> instances;
    std::vector<std::thread> threads;
    std::mutex records_lock;
    std::vector<std::unique_ptr<record>> records;
    std::atomic<unsigned int> count_accepted{0};
    std::atomic<unsigned int> count_connected{0};
    std::atomic<unsigned int> beats_due{0}; ///< headers of a tick that are not written yet
    std::atomic<bool> has_failed{false};
    std::string failed_with;
    std::optional<ticker> ticks; ///< last: it uses the others
};

} // namespace relay_bench::skeleton

#endif
