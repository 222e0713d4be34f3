// One interface to two kernels, the real one and the simulated one, and the stage on which a script plays on either.
//
// A script calls, and writes down what came of it; the lists of both kernels are compared. Addresses are on the loopback
// and ports come from the kernel, so a script names neither.
#ifndef TESTS_RACE_SIMULATION_CONFORMANCE_WORLD_HPP
#define TESTS_RACE_SIMULATION_CONFORMANCE_WORLD_HPP

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <span>
#include <string>
#include <vector>

namespace conformance {

struct report {
    std::uint32_t mask = 0;
    char const* tag = nullptr;
};

enum class where { loopback, anywhere, elsewhere };

/// A kernel. Results are those of the system call; a failure is the negative error number.
class world {
public:
    virtual ~world() = default;

    virtual int socket(int type) = 0;
    virtual int bind(int fd, std::uint16_t port, where ip = where::loopback) = 0;
    virtual int listen(int fd, int backlog) = 0;
    virtual int accept(int fd) = 0;
    virtual int connect(int fd, std::uint16_t port) = 0;
    virtual std::uint16_t port_of(int fd) = 0;
    virtual int set_nonblocking(int fd, bool on) = 0;
    virtual int get_flags(int fd) = 0;
    virtual int set_send_timeout(int fd, long microseconds) = 0;
    /// Buffers of a few thousand bytes; also for what the listener will accept.
    virtual void make_buffers_small(int fd) = 0;
    virtual long send(int fd, void const* data, std::size_t size) = 0;
    virtual long recv(int fd, void* data, std::size_t size) = 0;
    virtual long sendto(int fd, void const* data, std::size_t size, std::uint16_t port) = 0;
    virtual long recvfrom(int fd, void* data, std::size_t size, int flags, std::uint16_t& from) = 0;
    virtual int shutdown(int fd, int how) = 0;
    virtual int close(int fd) = 0;
    virtual int close_with_reset(int fd) = 0;
    virtual int epoll_create1() = 0;
    virtual int epoll_ctl(int instance, int operation, int fd, std::uint32_t mask, char const* tag) = 0;
    /// One event; waits ten seconds for it.
    virtual int epoll_wait(int instance, report& found) = 0;
    virtual std::uint32_t poll(int fd) = 0;
    /// Waits until the condition holds, for at most ten seconds.
    virtual bool wait_until(std::function<bool()> const& condition) = 0;
    /// Whatever is on its way has arrived.
    virtual void settle() = 0;
    /// Another thread, which join waits for.
    virtual void run_beside(std::function<void()> work) = 0;
    virtual void join() = 0;
    /// A descriptor that cannot be polled.
    virtual int plain_file() = 0;
};

/// Both ends of a connection.
struct ends {
    int near = -1;
    int far = -1;
};

/// A world, what happened in it, and the descriptors to close in the end.
class stage {
public:
    explicit stage(world& on) : w(on) {}
    ~stage();
    stage(stage const&) = delete;
    stage& operator=(stage const&) = delete;

    void tell(std::string const& line) { lines.push_back(line); }
    void tell(std::string const& what, long result);
    void tell_mask(std::string const& what, std::uint32_t mask);
    /// Waits until a poll answers that mask, and tells what it answers then.
    void expect_poll(std::string const& what, int fd, std::uint32_t mask);
    /// Waits for that many events, tells them, and then everything that a marker registered now comes after.
    void expect_events(int instance, int count);

    int socket(int type);
    int instance();
    /// ADD or MOD; the tag names the event.
    int add(int instance, int fd, std::uint32_t mask, char const* tag = "it");
    int modify(int instance, int fd, std::uint32_t mask, char const* tag = "it");
    int listener(int backlog = 16, bool has_small_buffers = false);
    /// A connection under way to the listener's port.
    int begin_connection(int listening);
    /// One that has come to the listener's queue.
    int arrive(int listening);
    ends connect(bool has_small_buffers = false);
    int datagram_socket();
    long send(int fd, char const* text);
    /// Reads what is there, and tells it.
    void read(std::string const& what, int fd, std::size_t most = 100);
    /// A close of something that the stage would close in the end.
    int close(int fd);
    int close_with_reset(int fd);
    /// Writes until no room is left; the descriptor becomes non-blocking.
    void fill(int fd);
    /// Reads until the other end has room again.
    void drain(int fd, int other);

    world& w;
    std::vector<std::string> lines;
    int faults = 0; ///< waits that were not fulfilled

private:
    int keep(int fd);

    std::vector<int> open;
};

struct script {
    char const* name;
    void (*play)(stage&);
    std::vector<std::string> known{}; ///< what the real kernel is known to do; empty: whatever it does
};

/// How the test program names it.
void PrintTo(script const& what, std::ostream* to);

std::span<script const> event_scripts();
std::span<script const> stream_scripts();
std::span<script const> other_scripts();

/// The lines of the script in the real kernel; in the simulated one.
struct record {
    std::vector<std::string> lines;
    int faults = 0;
};
record play_for_real(script const& what);
record play_simulated(script const& what);

} // namespace conformance

#endif
