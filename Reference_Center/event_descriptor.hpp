// A descriptor that becomes readable when somebody says so, and stays it.
#ifndef REFERENCE_CENTER_EVENT_DESCRIPTOR_HPP
#define REFERENCE_CENTER_EVENT_DESCRIPTOR_HPP

#include "Reference_Center/failure.hpp"

#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

namespace Zolt::Reference_Center {

class event_descriptor {
public:
    /// Throws failure.
    event_descriptor() : fd(checked(::eventfd(0, EFD_CLOEXEC), "eventfd")) {}
    ~event_descriptor() { ::close(fd); }
    event_descriptor(event_descriptor const&) = delete;
    event_descriptor& operator=(event_descriptor const&) = delete;

    int number() const { return fd; }

    /// Any thread.
    void signal() {
        std::uint64_t const one = 1;
        // An event descriptor takes a small number in any state.
        static_cast<void>(::write(fd, &one, sizeof one) == 0);
    }

private:
    int const fd;
};

} // namespace Zolt::Reference_Center

#endif
