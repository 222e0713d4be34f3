// The scripted host's packets: a header size chosen at run time, every part and node in a ledger.
//
// A node is what a token points to: a header part, a data part, or an array that set_data attached. A freed part is
// filled with a poison byte and kept until the ledger is reset, so that a second free and a use after free are
// reported (and, under the address sanitizer, a read of its bytes stops the test). While recording is off parts are
// only counted and are released at once.
#ifndef TESTS_SUPPORT_PACKETS_HPP
#define TESTS_SUPPORT_PACKETS_HPP

#include "Host/zolt_packet.hpp"

#include <string>
#include <vector>

namespace relay_test {

using bytes = std::vector<unsigned char>;

/// A packet in the clear. Addresses in network order, ports in host order, as everywhere.
struct packet_fields {
    bool heartbeat = false;
    bool call = false;
    bool signal = false;
    bool call_ack = false;
    bool signal_ack = false;
    bool command_udp = false;
    bool information_udp = false;
    bool control = false;
    unsigned char version = 7; ///< 7 is right, all others are wrong
    unsigned char event =
        0; ///< 1 connected to server, 2 disconnected from server, 3 connected from client, 4 disconnected from client
    std::uint32_t src_ip = 0;
    std::uint16_t src_port = 0;
    std::uint16_t src_id = 0;
    std::uint32_t dst_ip = 0;
    std::uint16_t dst_port = 0;
    std::uint16_t dst_id = 0;
    std::uint32_t mct_ip = 0;
    std::uint32_t error = 0;
    std::uint32_t sequence = 0;  ///< for tests that tell packets apart; the relay never touches it
    std::uint32_t data_size = 0; ///< announced; make_token and packet_bytes set it from `data` unless that is empty
    bytes data{};
};

/// Header size of every packet made from now on: at least 48. reset_packets chooses 64.
void set_header_size(unsigned size);
unsigned header_size();

/// Header bytes followed by the data, as they travel.
bytes packet_bytes(packet_fields fields);
/// Reads header bytes (and what follows as data).
packet_fields read_packet(bytes const& packet);
/// A token with a header part and, when there is data, a data part. Owner: the caller.
Zolt::struct_token make_token(packet_fields fields);
/// What a token's header part holds now, its data included.
packet_fields fields_of(Zolt::struct_token token);

bool has_header_part(Zolt::struct_token const& token);
bytes header_of(Zolt::struct_token const& token);

/// References that the header part of the token has altogether; 0 when it is gone.
int header_references(Zolt::struct_token const& token);
int data_references(Zolt::struct_token const& token);
/// True while the token's node, copied handle or not, has not been freed. Needs recording.
bool is_live(Zolt::struct_token const& token);
/// How lines show this token: a name given to its header part, else "token#N", "no token" without a node.
std::string token_name(Zolt::struct_token const& token);

/// Parts that exist now.
struct ledger_counts {
    long headers = 0;
    long data_parts = 0; ///< arrays of set_data included
    long nodes = 0;
    bool operator==(ledger_counts const&) const = default;
};
ledger_counts count_ledger();
/// One line for each part that still exists, with the operation and thread that made it, but for parts that
/// allow_left names. Empty when all is well. Needs recording.
std::vector<std::string> ledger_left();
/// States why parts may stay: "udp queue at finalize". Their header part is named by any live handle.
void allow_left(Zolt::struct_token const& token, std::string reason);

/// The next calls of alloc_data fail: by a non-zero result, or by std::bad_alloc.
enum class allocation { works, refused, throws };
void script_alloc_data(std::vector<allocation> next);
/// The same for alloc_header_force, which has no result: it works or throws.
void script_alloc_headers(std::vector<allocation> next);
/// Answers of the next calls of update_packet_time_and_return_timeout; false when the list is used up.
void script_timeouts(std::vector<bool> next);
/// Answers of the next calls of backward_error_switch. Without a script: false for heartbeats, control packets,
/// acknowledgements and errors, which stay untouched; true otherwise.
void script_error_replies(std::vector<bool> next);

/// Gives parts that the Center took back to the ledger; see scripted_host.hpp. Harness only.
void mark_taken(Zolt::struct_token const& token);
void release_taken(Zolt::struct_token const& token);

/// Forgets the scripts, frees what quarantine holds, chooses header size 64, restarts numbering. Between tests only.
void reset_packets();

} // namespace relay_test

#endif
