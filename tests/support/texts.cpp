#include "tests/support/texts.hpp"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace relay_test {
namespace {

std::string unescape(std::string const& written) {
    std::string plain;
    for (std::size_t at = 0; at < written.size(); ++at) {
        if (written[at] != '\\') {
            plain += written[at];
            continue;
        }
        ++at;
        switch (at < written.size() ? written[at] : '\0') {
        case 'n':
            plain += '\n';
            break;
        case 's':
            plain += ' ';
            break;
        case '\\':
            plain += '\\';
            break;
        default:
            throw std::runtime_error("text ledger: unknown escape in " + written);
        }
    }
    return plain;
}

} // namespace

std::map<std::string, std::string> parse_texts(std::string const& content) {
    std::map<std::string, std::string> texts;
    std::istringstream in(content);
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line.starts_with('#')) {
            continue;
        }
        std::size_t const tab = line.find('\t');
        if (tab == std::string::npos || tab == 0 || tab + 1 == line.size()) {
            throw std::runtime_error("text ledger: no id, tab and text in " + line);
        }
        if (!texts.emplace(line.substr(0, tab), unescape(line.substr(tab + 1))).second) {
            throw std::runtime_error("text ledger: id given twice in " + line);
        }
    }
    return texts;
}

std::map<std::string, std::string> const& all_texts() {
    static auto const texts = [] {
        std::ifstream in(RELAY_TEXTS_FILE, std::ios::binary);
        if (!in) {
            throw std::runtime_error("text ledger: cannot read " RELAY_TEXTS_FILE);
        }
        std::ostringstream content;
        content << in.rdbuf();
        return parse_texts(content.str());
    }();
    return texts;
}

std::string const& text(std::string const& id) {
    auto const found = all_texts().find(id);
    if (found == all_texts().end()) {
        throw std::runtime_error("text ledger: no text with the id " + id);
    }
    return found->second;
}

} // namespace relay_test
