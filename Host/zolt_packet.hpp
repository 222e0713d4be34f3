// Packets, the handles by which they travel, and node addresses: what the relay requires of its host.
//
// Declarations only; the host supplies every body, and the relay imports it by name when it is loaded.
// A host with another packet puts a Host/ folder of its own in front of this one on the include path.
//
// Rules that hold for every operation below, unless it says otherwise:
//   thread   any; different packets concurrently, one packet from one thread at a time
//   locks    takes none of the relay's; may be called with any of them held
//   errors   none; an operation on an absent part does nothing and answers 0, false or null
//   units    addresses are IPv4 in network byte order, ports in host byte order, sizes in bytes
#ifndef HOST_ZOLT_PACKET_HPP
#define HOST_ZOLT_PACKET_HPP

#include <cstdint>
#include <tuple>

namespace Zolt {

/// 127.0.0.1 as it stands in a socket address: the bytes 7f 00 00 01.
constexpr std::uint32_t c_local_host = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 0x0100007Fu : 0x7F000001u;
/// Node id of the proxy end in a connection notice.
constexpr std::uint16_t c_broadcast_proxy_id = 0xFFFF;
/// Node id of the stub end in a connection notice.
constexpr std::uint16_t c_broadcast_stub_id = 0;

/// No error; also the answer of send_zolt_center for "taken".
constexpr std::uint32_t c_zolt_err_none = 0;
/// The packet could not be sent: there is no connection.
constexpr std::uint32_t c_zolt_err_not_connected_tcp = 0x40000001;
/// The connection that the packet concerns has ended.
constexpr std::uint32_t c_zolt_err_disconnected_tcp = 0x4000000E;

/// One end of a connection; the key of every connection registry.
struct struct_node_addr {
    std::uint32_t ip = 0;   ///< IPv4 address, network byte order
    std::uint16_t port = 0; ///< port, host byte order

    /// Port first, then address, both unsigned: entries of one port stand together.
    friend bool operator<(struct_node_addr const& a, struct_node_addr const& b) {
        return std::tie(a.port, a.ip) < std::tie(b.port, b.ip);
    }
    /// Equal in every field.
    friend bool operator==(struct_node_addr const&, struct_node_addr const&) = default;
};

/// View of a packet's header part, or of a data part with its own copy of the header in front.
/// Never made or destroyed through this type: a token hands out pointers to views that its host owns.
/// A view is valid for as long as the part it views.
struct struct_packet {
    struct_packet(struct_packet const&) = delete;
    /// Copies the other packet's header, envelope included, into this one's.
    struct_packet& operator=(struct_packet const& other);

    /// First byte of the header as it travels; get_header_size() bytes may be read or written there.
    unsigned char* get_header();
    /// Bytes of a header on the wire; the same for every packet of one protocol version, never 0.
    unsigned int get_header_size();
    /// Bytes of data that the header announces; 0 means no data part follows.
    unsigned int get_data_size();
    void set_data_size(unsigned int size);
    /// get_header_size() + get_data_size().
    unsigned int get_packet_size();
    /// Hands the packet an array made with new unsigned char[]; the token's has_data() is true from now on,
    /// and freeing the token's data releases the array.
    void set_data(unsigned char* data);

    /// False for a header of another protocol version.
    bool is_right_version();
    bool is_heartbeat();
    /// A call, or a signal, whose sender waits for an acknowledgement.
    bool is_call_return();
    bool is_signal_return();
    /// The acknowledgement of a call, or of a signal.
    bool is_call_return_ack();
    bool is_signal_return_ack();
    bool is_command_udp();
    bool is_information_udp();

    unsigned short get_did();      ///< node id of the destination
    unsigned int get_dst_ip();     ///< destination address
    unsigned short get_dst_port(); ///< destination port
    unsigned int get_mct_ip();     ///< multicast group, or interface for an information datagram
    /// Each sets what the getter of that name, or the remote node, reads; the last argument of the last two is a node id.
    void set_mct_ip(unsigned int ip);
    void set_src_ip(unsigned int ip);
    void set_src_port(unsigned short const& port);
    void set_source(unsigned int const& ip, unsigned short const& port, unsigned short const& id);
    void set_destination(unsigned int const& ip, unsigned short const& port, unsigned short const& id);

    /// Starts a packet: local address, creation clock in lemon_cpu_clock counts (0 allowed), and time-out in
    /// seconds; the largest double never passes.
    void initialize_packet(unsigned int const& local_ip, unsigned long const& clock, double timeout);
    /// Fills the remaining fields; the last argument is the error code, the other four are the host's.
    void initialize_header(unsigned int const& a, unsigned short const& b, unsigned char const& c,
                           unsigned short const& d, unsigned int const& error);
    void set_control_type();
    void set_heartbeat_type();
    /// The four connection events; each makes the control packet that notice.
    void set_tcp_connected_to_server();
    void set_tcp_disconnected_from_server();
    void set_tcp_connected_from_client();
    void set_tcp_disconnected_from_client();

    /// Turns an undeliverable packet into an error reply that carries the code. True when a reply is due; a packet
    /// for which none is due (heartbeats above all, which are shared) stays untouched and answers false.
    bool backward_error_switch(unsigned int const& error);
    /// Destination and source of the other packet become source and destination of this one; the other stays as it is.
    void set_swap_address(struct_packet* other);
    /// A call or signal becomes the matching acknowledgement.
    void set_swap_acktype();
    /// Stamps the arrival, in lemon_cpu_clock counts.
    void determine_arrival_clock(unsigned long const& clock);
    /// Brings the packet's elapsed time up to date; true when its time-out has passed.
    bool update_packet_time_and_return_timeout();

protected:
    struct_packet() = default;
    ~struct_packet() = default;
};

struct struct_token_node; ///< the host's own: what a handle points to

/// Handle to one packet: an optional header part and an optional data part, both counted by the host.
/// One pointer, copied by value; a copy neither copies nor counts. It has no destructor: parts are given back by
/// free and its kin, and whoever holds the last handle sees to it that this happens exactly once.
struct struct_token {
    struct_token(); ///< a handle with neither part

    /// A fresh header part, replacing any. Throws std::bad_alloc.
    void alloc_header_force();
    /// A data part of that many bytes. 0, or non-zero when it could not; a host that caps sizes throws std::bad_alloc.
    int alloc_data(unsigned int const& size);
    struct_packet* get_header_packet();
    /// The data part's own view; get_header() of it is the first byte of the whole packet as one block.
    struct_packet* get_data_packet();
    unsigned char* get_data(); ///< first data byte
    bool has_header();
    bool has_data();

    /// One more reference to the header part, for a handle that is copied into another queue.
    void ref_header();
    /// This token shares the other's header part, or data part: one reference more.
    void set_header(struct_token const& other);
    void set_data(struct_token const& other);

    void reset();       ///< forgets both parts and drops no reference
    void reset_data();  ///< forgets the data part and drops no reference
    void free();        ///< drops the reference to both parts
    void free_header(); ///< drops the reference to the header part
    void free_data();   ///< drops the reference to the data part

private:
    struct_token_node* node;
};

/// The block that the two ends of a TCP connection exchange before the first packet. Sent and received as it lies.
struct struct_tcp_header {
    struct_tcp_header(); ///< ports 0 and the host's default content
    /// Ports as the node that fills in the block, its sender, sees them.
    void set_port_of_sender(unsigned short port);
    void set_port_of_receiver(unsigned short port);
    unsigned short get_port_of_receiver();

private:
    unsigned char block[1024];
};

static_assert(sizeof(struct_token) == sizeof(void*), "queues and records hold a token as one pointer");
static_assert(sizeof(struct_tcp_header) == 1024, "the block travels as it lies");

} // namespace Zolt

#endif
