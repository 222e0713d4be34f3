// Runs a fuzz target once with each file given, or with each file of a folder given. Status 0: no finding; 2: wrong usage
// or an input that cannot be read. A finding ends the process; the last line on standard error names its input.

#include "tests/fuzz/target.hpp"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> list_inputs(fs::path const& given) {
    if (!fs::is_directory(given)) {
        return {given};
    }
    std::vector<fs::path> found;
    for (fs::directory_entry const& entry : fs::directory_iterator(given)) {
        if (entry.is_regular_file()) {
            found.push_back(entry.path());
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

bool replay(fs::path const& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    std::string const bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "%s\n", path.c_str());
    LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size());
    return true;
}

} // namespace

int main(int count, char** arguments) {
    std::size_t replayed = 0;
    for (int i = 1; i < count; ++i) {
        for (fs::path const& path : list_inputs(arguments[i])) {
            if (!replay(path)) {
                return 2;
            }
            ++replayed;
        }
    }
    if (replayed == 0) {
        std::fprintf(stderr, "usage: %s FILE-OR-FOLDER...\n", arguments[0]);
        return 2;
    }
    std::printf("inputs replayed without a finding: %zu\n", replayed);
    return 0;
}
