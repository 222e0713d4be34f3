// The table of the system-call matrix: matrix.txt, which says at its top what its columns mean.
#ifndef TESTS_FAULT_MATRIX_TABLE_HPP
#define TESTS_FAULT_MATRIX_TABLE_HPP

#include "tests/fault/fault.hpp"

#include <iosfwd>
#include <string>
#include <vector>

namespace relay_test {

/// What is seen of a run, in the words of the table.
struct outcome {
    std::string errors;
    std::string returned;
    std::string ended;
    std::string records;
    std::string center;
    std::string probe;
    bool operator==(outcome const&) const = default;
    friend void PrintTo(outcome const& seen, std::ostream* out);
};

/// One line: what fails, and what follows when it fails once and when it goes on failing.
struct matrix_cell {
    int line = 0;
    std::string group;
    std::string scenario;
    fault wanted;
    outcome once;
    outcome persistent;
};

/// Throws std::runtime_error for a line that is not made of eleven columns.
std::vector<matrix_cell> parse_matrix(std::istream& in);
std::vector<matrix_cell> const& the_matrix();

} // namespace relay_test

#endif
