// What a test must leave as it found it: descriptors, threads, records, packet parts, locks.
#ifndef TESTS_SUPPORT_BALANCE_HPP
#define TESTS_SUPPORT_BALANCE_HPP

#include "tests/support/packets.hpp"

#include <map>
#include <string>
#include <vector>

namespace relay_test {

struct balance {
    std::map<int, std::string> descriptors; ///< number to kind: "socket", "eventpoll", "pipe", "file", ...
    int threads = 0;
    long locks = 0; ///< one for each UDP record, two for each TCP record, two global ones
    ledger_counts ledger;
    int locked = 0; ///< locks that some thread holds
};

/// Counts now. Threads that have returned but are not joined still count. Own descriptors are left out.
balance take_balance();

/// Count of descriptors of a kind.
int count_descriptors(balance const& counted, std::string const& kind);

/// One line for each difference, empty when nothing changed: "descriptor 7 (socket) is still open".
std::vector<std::string> differences(balance const& before, balance const& after);

/// Waits until no more threads exist than that, for at most ten seconds: the kernel's list lags behind a join.
bool wait_for_threads(int count);

} // namespace relay_test

#endif
