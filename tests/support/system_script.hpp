// Inside the interposed system calls: how a call is shown, answered and carried out. For system_*.cpp only.
#ifndef TESTS_SUPPORT_SYSTEM_SCRIPT_HPP
#define TESTS_SUPPORT_SYSTEM_SCRIPT_HPP

#include "tests/support/real_calls.hpp"
#include "tests/support/system_calls.hpp"

#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace relay_test {

// --- words -----------------------------------------------------------------------------------------------------

struct word {
    long value;
    char const* name;
};

std::string word_for(std::vector<word> const& words, long value);
std::string option_text(int level, int option);
std::string bytes_text(bytes const& data);
std::string operation_text(int operation);
std::string message_flags(int flags);
std::string size_text(std::size_t size);
std::string address_text(system_call const& call);
/// Reads an IPv4 address into the call; reports one that is too short.
void set_address(system_call& call, sockaddr const* address, socklen_t length);

// --- the script ------------------------------------------------------------------------------------------------

struct answer_entry {
    int countdown = 0; ///< 1: the next call; 0: every call, for good
    long result = -1;
    int error = 0;
    std::optional<std::size_t> most{};
    bool delivers = false; ///< recv, recvfrom: these bytes arrive
    bytes delivered{};
    std::uint32_t ip = 0;
    std::uint16_t port = 0;
};

struct written_call {
    std::size_t line = 0;
    std::size_t number = 0;
};

/// Without a recorder, a script or a journal a call goes straight to the kernel and locks nothing.
bool interposing();
/// The script entry that answers this call, or null. Counts the call for every other entry of that name.
std::unique_ptr<answer_entry> take_answer(std::string const& name);
/// The next scripted event of an instance; an event with null data after the last. False: none was ever scripted.
bool next_event(int instance, scripted_event& event);
/// Writes the call into the journal and runs its hook.
written_call write_call(system_call& call, unsigned kind, std::string text);
void write_result(written_call const& written, system_call const& call);

/// Writes the call, answers it from the script or lets `real` do it, and leaves errno as the call would.
/// `finish` may look at the answer and complete the result (copy delivered bytes, name a new descriptor).
template <class real_call, class finisher>
long perform(system_call call, unsigned kind, std::string text, real_call const& real_one, finisher const& finish) {
    int const before = errno;
    written_call const written = write_call(call, kind, std::move(text));
    auto const scripted = take_answer(call.name);
    bool const is_answered = scripted && !scripted->most;
    if (is_answered) {
        call.result = scripted->result;
        call.error = scripted->error;
        if (call.name == "close") {
            real::close(call.descriptor);
        }
    } else {
        errno = before;
        call.result = real_one(scripted ? *scripted->most : call.size);
        call.error = errno;
    }
    int const after = is_answered && call.error == 0 ? before : call.error;
    call.result = finish(call, scripted.get(), call.result);
    write_result(written, call);
    errno = after;
    return call.result;
}

} // namespace relay_test

#endif
