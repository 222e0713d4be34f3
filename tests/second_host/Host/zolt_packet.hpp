// A packet that is all wire: 47 bytes of header, little-endian, nothing aligned; only the address that a datagram came
// from is kept beside it.
#ifndef SECOND_HOST_ZOLT_PACKET_HPP
#define SECOND_HOST_ZOLT_PACKET_HPP

#include <cstdint>

namespace Zolt {

// The bytes 7f 00 00 01 in this order; this host is built for little-endian machines only.
constexpr std::uint32_t c_local_host = 0x0100007F;
constexpr std::uint16_t c_broadcast_stub_id = 0;
constexpr std::uint16_t c_broadcast_proxy_id = 0xFFFF;
constexpr std::uint32_t c_zolt_err_none = 0;
constexpr std::uint32_t c_zolt_err_not_connected_tcp = 0x40000001;
constexpr std::uint32_t c_zolt_err_disconnected_tcp = 0x4000000E;

struct struct_node_addr {
    std::uint32_t ip;
    std::uint16_t port;
};
bool operator<(struct_node_addr const& left, struct_node_addr const& right);
bool operator==(struct_node_addr const& left, struct_node_addr const& right);

struct struct_part;

// Sits in front of the bytes that it views, inside the part that owns both.
struct struct_packet {
    explicit struct_packet(struct_part* owner);
    struct_packet(struct_packet const&) = delete;
    struct_packet& operator=(struct_packet const& from);

    unsigned char* get_header();
    unsigned int get_header_size(), get_data_size(), get_packet_size();
    void set_data_size(unsigned int bytes);
    void set_data(unsigned char* array);

    bool is_right_version(), is_heartbeat(), is_command_udp(), is_information_udp();
    bool is_call_return(), is_call_return_ack(), is_signal_return(), is_signal_return_ack();
    unsigned short get_did(), get_dst_port();
    unsigned int get_dst_ip(), get_mct_ip();
    void set_mct_ip(unsigned int ip), set_src_ip(unsigned int ip);
    void set_src_port(unsigned short const& port);
    void set_source(unsigned int const& ip, unsigned short const& port, unsigned short const& id);
    void set_destination(unsigned int const& ip, unsigned short const& port, unsigned short const& id);

    void initialize_packet(unsigned int const& local_ip, unsigned long const& born, double lifetime);
    void initialize_header(unsigned int const& p, unsigned short const& q, unsigned char const& r,
                           unsigned short const& s, unsigned int const& error);
    void set_control_type(), set_heartbeat_type(), set_swap_acktype();
    void set_tcp_connected_to_server(), set_tcp_disconnected_from_server();
    void set_tcp_connected_from_client(), set_tcp_disconnected_from_client();
    bool backward_error_switch(unsigned int const& error);
    void set_swap_address(struct_packet* other);
    void determine_arrival_clock(unsigned long const& now);
    bool update_packet_time_and_return_timeout();

    // This host's own: what its Center reads, and how it makes a packet of plain data.
    unsigned int get_src_ip();
    unsigned short get_src_port();
    char get_event();
    void set_plain_type();

private:
    struct_part* home;
};

struct struct_parcel;

struct struct_token {
    struct_token();

    void alloc_header_force();
    int alloc_data(unsigned int const& bytes);
    struct_packet *get_header_packet(), *get_data_packet();
    unsigned char* get_data();
    bool has_header(), has_data();
    void ref_header();
    void set_header(struct_token const& from);
    void set_data(struct_token const& from);
    void reset(), reset_data(), free(), free_header(), free_data();

private:
    struct_parcel& opened();
    struct_parcel* parcel;
};

struct struct_tcp_header {
    struct_tcp_header();
    unsigned short get_port_of_receiver();
    void set_port_of_receiver(unsigned short port), set_port_of_sender(unsigned short port);

private:
    unsigned char bytes[1024];
};

} // namespace Zolt

#endif
