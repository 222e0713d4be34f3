// A packet as it lies on the wire, for contenders that have no packets of their own.
#ifndef BENCH_SUPPORT_PACKET_BYTES_HPP
#define BENCH_SUPPORT_PACKET_BYTES_HPP

#include "bench/plan.hpp"

#include <cstdint>
#include <vector>

namespace relay_bench {

/// Writes the header of a packet with that many bytes of data.
inline void write_header(unsigned char* header, std::uint32_t size) {
    namespace host = Zolt::Reference_Host;
    std::fill_n(header, c_header_size, static_cast<unsigned char>(0));
    host::store<host::header_field::magic>(header, host::c_header_magic);
    host::store<host::header_field::version>(header, host::c_header_version);
    host::store<host::header_field::header_size>(header, static_cast<std::uint16_t>(c_header_size));
    host::store<host::header_field::data_size>(header, size);
    host::store<host::header_field::timeout>(header, host::c_timeout_never);
}

inline std::uint32_t data_size_of(unsigned char const* header) {
    namespace host = Zolt::Reference_Host;
    return host::load<host::header_field::data_size>(header);
}

/// Header and data in one block.
inline std::vector<unsigned char> make_packet_bytes(std::uint32_t size) {
    std::vector<unsigned char> bytes(c_header_size + size);
    write_header(bytes.data(), size);
    return bytes;
}

} // namespace relay_bench

#endif
