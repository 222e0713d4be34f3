// SHA-256 (FIPS 180-4).
#ifndef REFERENCE_CENTER_SHA256_HPP
#define REFERENCE_CENTER_SHA256_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace Zolt::Reference_Center {

class sha256 {
public:
    void add(std::span<unsigned char const> bytes);
    /// The digest in lower-case hexadecimal; add nothing more afterwards.
    std::string finish();

private:
    static constexpr std::size_t c_block = 64;

    void digest(unsigned char const* block);

    std::array<std::uint32_t, 8> state{0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                       0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    std::array<unsigned char, c_block> rest{};
    std::size_t rest_size = 0;
    std::uint64_t total = 0; ///< bytes
};

} // namespace Zolt::Reference_Center

#endif
