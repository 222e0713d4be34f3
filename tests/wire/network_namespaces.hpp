// Two network namespaces joined by one cable: the calling process in the first, a process of its own in the second.
//
// Works with the right to administer networks, and without it where the kernel lets a user have namespaces. Everything
// disappears with the two processes. Call it before any thread exists.
#ifndef TESTS_WIRE_NETWORK_NAMESPACES_HPP
#define TESTS_WIRE_NETWORK_NAMESPACES_HPP

#include <cstddef>
#include <string>
#include <vector>

#include <sys/types.h>

namespace wire {

/// A pipe with two ends for messages of a fixed size; reading and writing are whole or fail.
class message_pipe {
public:
    /// Owner of the descriptor: this.
    explicit message_pipe(int descriptor);
    ~message_pipe();
    message_pipe(message_pipe&& other) noexcept;

    template <class message>
    bool write(message const& what) const {
        return write_bytes(&what, sizeof what);
    }
    /// False when the other side is gone.
    template <class message>
    bool read(message& what) const {
        return read_bytes(&what, sizeof what);
    }

private:
    bool write_bytes(void const* data, std::size_t size) const;
    bool read_bytes(void* data, std::size_t size) const;

    int fd;
};

/// Which process one is after split.
enum class side { near_end, far_end, nowhere };

struct split_result {
    side where = side::nowhere;
    std::string reason; ///< nowhere: what was not allowed or possible
    message_pipe other; ///< to the other process; nowhere: closed
    pid_t child = -1;   ///< near end only
};

/// Splits the process in two and gives each its end of the cable, up and running, with those addresses (each with a
/// 24-bit mask). Returns in both processes; nowhere is answered in the caller only, and then there is no other.
split_result split_between_networks(std::vector<std::string> const& near_addresses,
                                    std::vector<std::string> const& far_addresses);

} // namespace wire

#endif
