#include "tests/fault/matrix_table.hpp"

#include <fstream>
#include <ostream>
#include <sstream>
#include <stdexcept>

namespace relay_test {
namespace {

enum column { group, scenario, call, position, result, errors, returned, ended, records, center, probe, count };

std::string trimmed(std::string const& text) {
    std::size_t const first = text.find_first_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::vector<std::string> split(std::string const& whole, std::string const& between) {
    std::vector<std::string> pieces;
    std::size_t first = 0;
    for (std::size_t at; (at = whole.find(between, first)) != std::string::npos; first = at + between.size()) {
        pieces.push_back(trimmed(whole.substr(first, at - first)));
    }
    pieces.push_back(trimmed(whole.substr(first)));
    return pieces;
}

/// What a column says for a fault that strikes once, or one that goes on: "this / that", or one for both.
std::string said(std::string const& column, bool persistent) {
    auto const both = split(column, " / ");
    return persistent ? both.back() : both.front();
}

outcome outcome_of(std::vector<std::string> const& columns, bool persistent) {
    return {said(columns[errors], persistent),  said(columns[returned], persistent), said(columns[ended], persistent),
            said(columns[records], persistent), said(columns[center], persistent),   said(columns[probe], persistent)};
}

matrix_cell parse_line(std::string const& text, int number) {
    auto const columns = split(text, "|");
    if (columns.size() != column::count) {
        throw std::runtime_error("matrix.txt, line " + std::to_string(number) + ": " + std::to_string(columns.size()) +
                                 " columns");
    }
    matrix_cell cell;
    cell.line = number;
    cell.group = columns[group];
    cell.scenario = columns[scenario];
    cell.wanted = {columns[call], std::stoi(columns[position]), columns[result], false};
    cell.once = outcome_of(columns, false);
    cell.persistent = outcome_of(columns, true);
    return cell;
}

} // namespace

void PrintTo(outcome const& seen, std::ostream* out) {
    *out << seen.errors << " | " << seen.returned << " | " << seen.ended << " | " << seen.records << " | "
         << seen.center << " | " << seen.probe;
}

std::vector<matrix_cell> parse_matrix(std::istream& in) {
    std::vector<matrix_cell> cells;
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        if (!line.empty() && !line.starts_with('#')) {
            cells.push_back(parse_line(line, number));
        }
    }
    return cells;
}

std::vector<matrix_cell> const& the_matrix() {
    static std::vector<matrix_cell> const cells = [] {
        std::ifstream in(RELAY_SOURCE_ROOT "/tests/fault/matrix.txt");
        if (!in) {
            throw std::runtime_error("tests/fault/matrix.txt cannot be read");
        }
        return parse_matrix(in);
    }();
    return cells;
}

} // namespace relay_test
