// Stands between two nodes and cuts each connection after a while: the way by which a network fails, without rights.
#ifndef TESTS_RACE_TRAFFIC_CUTTING_PROXY_HPP
#define TESTS_RACE_TRAFFIC_CUTTING_PROXY_HPP

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>

namespace traffic {

/// Works by itself, on a thread of its own, until destroyed.
class cutting_proxy {
public:
    explicit cutting_proxy(unsigned seed);
    ~cutting_proxy();
    cutting_proxy(cutting_proxy const&) = delete;
    cutting_proxy& operator=(cutting_proxy const&) = delete;

    /// Listens; passes what connects on to that port of the loopback. The port to connect to.
    std::uint16_t lead_to(std::uint16_t target);
    /// From now on no connection is cut any more.
    void stop_cutting();
    /// Connections cut so far: once they carried traffic, and in their first bytes.
    int count_cut() const { return cut; }
    int count_cut_early() const { return cut_early; }

private:
    using clock = std::chrono::steady_clock;

    /// One socket of a connection, and what waits to be written to it.
    struct end {
        int fd = -1;
        std::string pending{};
        bool is_finished = false; ///< nothing more comes from it
    };
    struct connection {
        end ends[2];
        clock::time_point dies{};     ///< is cut then,
        std::uint64_t dies_after = 0; ///< or after so many bytes
        std::uint64_t carried = 0;
        bool is_draining = false; ///< cut: what still comes is thrown away
    };
    struct entrance {
        int listener = -1;
        std::uint16_t target = 0;
    };

    void serve();
    void watch(std::vector<::pollfd>& watched);
    void let_in(entrance const& by);
    void carry(connection& one);
    void move_bytes(connection& one, end& from, end& to);
    void cut_if_due(connection& one);
    static void reset(end& one);
    static void close(end& one);
    static bool close_if_over(connection& one);

    std::mt19937 random;
    std::mutex guard; ///< of the entrances
    std::vector<entrance> entrances;
    std::list<connection> connections;
    std::atomic<int> cut{0};
    std::atomic<int> cut_early{0};
    std::atomic<bool> is_cutting{true};
    std::atomic<bool> is_over{false};
    std::thread thread;
};

} // namespace traffic

#endif
