// The ledger build's accounts: every node, header part and data part with the operation that made it. Only the library
// target zolt_reference_host_ledger, and every target when the option INET_RELAY_LEDGER is on, has these functions.
//
// There, a part that ends is filled with a pattern and held back for a while. Reported are an operation on a node that
// has ended ("second free", "use after free"), a view of a part that has ended, a byte written into one that is held
// back, and at exit, on standard error, what still lives. An operation on an ended node does nothing beyond the report.
//
// Any thread; the ledger has one lock, inside which it calls nobody.
#ifndef REFERENCE_HOST_LEDGER_HPP
#define REFERENCE_HOST_LEDGER_HPP

#include <cstddef>
#include <string>
#include <vector>

namespace Zolt::Reference_Host {

struct ledger_counts {
    std::size_t nodes = 0;
    std::size_t headers = 0;
    std::size_t data = 0;

    friend bool operator==(ledger_counts const&, ledger_counts const&) = default;
};

/// Parts alive now.
ledger_counts count_live_parts();
/// One line for each of them, oldest first: what it is, its running number, who made it.
std::vector<std::string> list_live_parts();
/// The reports since the last call, oldest first. Looks through what is held back before it answers.
std::vector<std::string> take_ledger_reports();
/// Gives everything that is held back to the heap, looked through: for a test that runs many times in one process.
void release_held_back();

} // namespace Zolt::Reference_Host

#endif
