// The relay on the reference host, in one program: what only shows when the two work together, and what the kernel is
// handed byte for byte.
#include "Center/INet_Relay/EPoll/epoll.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method.hpp"
#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/output_sink.hpp"
#include "tests/unit/configuration_keys.hpp"
#include "tests/unit/reference_host_fixtures.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

/// An address as a system call got it: the one that bind reads, and the room that the two others fill.
struct address_call {
    std::string call;
    unsigned int length;
    std::vector<unsigned char> bytes;
};

struct seen_calls {
    std::mutex guard;
    std::vector<address_call> calls;
    bool bind_reaches_the_kernel = true;
};

seen_calls& seen() {
    static seen_calls the_calls;
    return the_calls;
}

void note(char const* call, sockaddr const* address, socklen_t length) {
    std::vector<unsigned char> bytes(length);
    std::memcpy(bytes.data(), address, bytes.size());
    std::lock_guard const hold(seen().guard);
    seen().calls.push_back({call, length, std::move(bytes)});
}

std::vector<address_call> calls_of(std::string const& call) {
    std::lock_guard const hold(seen().guard);
    std::vector<address_call> chosen;
    std::copy_if(seen().calls.begin(), seen().calls.end(), std::back_inserter(chosen),
                 [&](address_call const& made) { return made.call == call; });
    return chosen;
}

void forget_calls() {
    std::lock_guard const hold(seen().guard);
    seen().calls.clear();
}

/// What the host's constructor leaves in a block, in place of the reference host's zeros.
unsigned char block_content(std::size_t at) {
    return static_cast<unsigned char>(at * 7 + 1);
}

} // namespace

// The linker sends the relay's calls, and this program's, to the first of each pair.
extern "C" {
int __real_bind(int fd, sockaddr const* address, socklen_t length);
int __real_accept(int fd, sockaddr* address, socklen_t* length);
int __real_getsockname(int fd, sockaddr* address, socklen_t* length);

int __wrap_bind(int fd, sockaddr const* address, socklen_t length) {
    note("bind", address, length);
    return seen().bind_reaches_the_kernel ? __real_bind(fd, address, length) : 0;
}
int __wrap_accept(int fd, sockaddr* address, socklen_t* length) {
    note("accept", address, *length);
    return __real_accept(fd, address, length);
}
int __wrap_getsockname(int fd, sockaddr* address, socklen_t* length) {
    note("getsockname", address, *length);
    return __real_getsockname(fd, address, length);
}
void __wrap__ZN4Zolt17struct_tcp_headerC1Ev(void* block) {
    auto* const bytes = static_cast<unsigned char*>(block);
    for (std::size_t at = 0; at < sizeof(Zolt::struct_tcp_header); ++at) {
        bytes[at] = block_content(at);
    }
}
}

namespace reference_host_test {
namespace {

namespace EPoll = Center::INet_Relay::EPoll;
namespace INet_Relay = Center::INet_Relay;
using relay_test::key_row;

/// A working folder beside a Config folder, for as long as it lives.
class working_folder {
public:
    working_folder() : before(std::filesystem::current_path()) {
        char name[] = "/tmp/whole-node-XXXXXX";
        root = ::mkdtemp(name);
        std::filesystem::create_directory(root / "Config");
        std::filesystem::create_directory(root / "run");
        std::filesystem::current_path(root / "run");
    }
    ~working_folder() {
        std::filesystem::current_path(before);
        std::filesystem::remove_all(root);
    }
    working_folder(working_folder const&) = delete;
    working_folder& operator=(working_folder const&) = delete;

    void configure(std::string_view text) const { std::ofstream(root / "Config/zolt.ini", std::ios::binary) << text; }

private:
    std::filesystem::path before;
    std::filesystem::path root;
};

// --- configuration ---------------------------------------------------------------------------------------------

class configuration : public ::testing::Test {
protected:
    void TearDown() override { INet_Relay::finalize(); }

    /// Every setting is what no default is, and then read.
    static void read_anew() {
        for (key_row const& row : relay_test::keys()) {
            if (row.setting != nullptr) {
                *row.setting = !row.built_in;
            } else {
                *row.number = -1;
            }
        }
        INet_Relay::finalize();
        ASSERT_EQ(INet_Relay::initialize(), 0);
    }

    static void expect_defaults(std::string const& but_of = {}) {
        for (key_row const& row : relay_test::keys()) {
            if (row.key == but_of) {
                continue;
            }
            if (row.setting != nullptr) {
                EXPECT_EQ(*row.setting, row.built_in) << row.key;
            } else {
                EXPECT_EQ(*row.number, row.fallback) << row.key;
            }
        }
    }

    working_folder folder;
};

TEST_F(configuration, without_a_file_is_the_default) {
    read_anew();
    expect_defaults();
}

TEST_F(configuration, without_its_section_is_the_default) {
    folder.configure("CLIENT_NAGLE_OFF_USE = no\n[OTHER]\nAUTO_DISCONNECT = no\nSERVER_LINGER_USE = yes\n"
                     "SERVER_LISTEN_BACKLOG = 9\n");
    read_anew();
    expect_defaults();
}

TEST_F(configuration, with_an_empty_section_is_the_default) {
    folder.configure("[ZOLT]\n");
    read_anew();
    expect_defaults();
}

TEST_F(configuration, keeps_each_integer_as_written) {
    for (key_row const& row : relay_test::keys()) {
        if (row.number != nullptr) {
            folder.configure("[ZOLT]\n" + std::string(row.key) + " = 77\n");
            read_anew();
            EXPECT_EQ(*row.number, 77) << row.key;
            expect_defaults(row.key);
        }
    }
}

class configured_switch : public configuration, public ::testing::WithParamInterface<std::pair<char const*, bool>> {};

TEST_P(configured_switch, is_off_for_no_in_any_letter_case_and_on_otherwise) {
    auto const [value, is_on] = GetParam();
    for (key_row const& row : relay_test::keys()) {
        if (row.setting != nullptr) {
            folder.configure("[ZOLT]\n" + std::string(row.key) + " = " + value + "\n");
            read_anew();
            EXPECT_EQ(*row.setting, is_on) << row.key << " = " << value;
            expect_defaults(row.key);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(values, configured_switch,
                         ::testing::Values(std::pair{"no", false}, std::pair{"No", false}, std::pair{"NO", false},
                                           std::pair{"nO", false}, std::pair{"yes", true}, std::pair{"1", true},
                                           std::pair{"0", true}, std::pair{"off", true}, std::pair{"false", true},
                                           std::pair{"", true}, std::pair{"none", true}));

// --- a running node and peers by hand --------------------------------------------------------------------------

constexpr std::uint16_t c_gate = 4321; ///< the port by which a peer says that it knows the node
constexpr std::size_t c_block_size = 1024;

std::uint16_t port_of(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    EXPECT_EQ(__real_getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return ntohs(address.sin_port);
}

/// One end of a connection, or a listening socket.
class plain_socket {
public:
    explicit plain_socket(int number = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) : fd(number) {}
    ~plain_socket() { ::close(fd); }
    plain_socket(plain_socket const&) = delete;
    plain_socket& operator=(plain_socket const&) = delete;

    void connect(std::uint16_t port) const {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = c_local_host;
        to.sin_port = htons(port);
        ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr const*>(&to), sizeof to), 0);
    }
    /// The next connection to this socket, which listens.
    int accept_one() const { return wait_readable() ? __real_accept(fd, nullptr, nullptr) : -1; }

    void write(std::vector<unsigned char> const& bytes) const {
        ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    std::vector<unsigned char> read(std::size_t size) const {
        std::vector<unsigned char> bytes(size);
        std::size_t got = 0;
        while (got < size && wait_readable()) {
            ssize_t const piece = ::recv(fd, bytes.data() + got, size - got, 0);
            if (piece <= 0) {
                break;
            }
            got += static_cast<std::size_t>(piece);
        }
        bytes.resize(got);
        return bytes;
    }

    int const fd;

private:
    bool wait_readable() const {
        pollfd waited{fd, POLLIN, 0};
        return ::poll(&waited, 1, static_cast<int>(std::chrono::milliseconds(c_patience).count())) == 1;
    }
};

/// A block as it travels. The ports come first, in network order.
std::vector<unsigned char> block_with(std::uint16_t sender, std::uint16_t receiver) {
    std::vector<unsigned char> block(c_block_size);
    for (std::size_t at = 0; at < block.size(); ++at) {
        block[at] = block_content(at);
    }
    std::uint16_t const ports[] = {htons(sender), htons(receiver)};
    std::memcpy(block.data(), ports, sizeof ports);
    return block;
}

class whole_node : public ::testing::Test {
protected:
    void SetUp() override {
        set_output_target(&whole_node::expect_end_of_stream, nullptr);
        get_center_inbox().resume();
        ASSERT_EQ(INet_Relay::initialize(), 0);
        ASSERT_EQ(INet_Relay::add_server(0), 0);
        port = port_of(EPoll::g_server_map.at(0));
        ASSERT_EQ(INet_Relay::start(), 0);
        forget_calls();
    }
    void TearDown() override {
        INet_Relay::stop();
        INet_Relay::finalize();
        EPoll::clear_establish_map(EPoll::g_establish_server_map);
        EPoll::clear_establish_map(EPoll::g_establish_client_map);
        EPoll::clear_connect_map(EPoll::g_connect_map);
        EPoll::clear_connect_map(EPoll::g_connect_fail_map);
        EPoll::g_remote_server_map.clear();
        get_center_inbox().stop();
        while (std::optional<struct_token> token = take(std::chrono::milliseconds(0))) {
            token->free();
        }
        drain_output(c_patience);
        set_output_target(nullptr, nullptr);
    }

    /// A peer that closes before the node stops is a failed read, on either side; nothing else may be printed.
    static void expect_end_of_stream(output_line const& line, void*) {
        EXPECT_TRUE(line.text == "recv server 에러" || line.text == "recv client 에러") << line.text;
    }

    static std::optional<struct_token> take(std::chrono::milliseconds longest = c_patience) {
        struct_token token;
        return get_center_inbox().take({&token, 1}, longest) == 1 ? std::optional(token) : std::nullopt;
    }

    /// The node's block, after this peer connected to the node and sent its own.
    std::vector<unsigned char> join(plain_socket const& peer) const {
        peer.connect(port);
        peer.write(block_with(port_of(peer.fd), c_gate));
        return peer.read(c_block_size);
    }

    /// The node's block, after the node connected to this peer; then the peer's goes back.
    static std::vector<unsigned char> let_join(plain_socket const& peer, std::uint16_t port) {
        std::vector<unsigned char> block = peer.read(c_block_size);
        peer.write(block_with(port, c_gate));
        return block;
    }

    /// A listening socket with the destination of the node.
    static std::uint16_t invite(plain_socket const& listening) {
        EXPECT_EQ(::listen(listening.fd, 1), 0);
        std::uint16_t const destination = port_of(listening.fd);
        EXPECT_EQ(INet_Relay::add_client(c_local_host, destination), 0);
        return destination;
    }

    /// Sends a packet that names other ends than those of the connection, and looks at what the Center gets.
    static void expect_true_ends(plain_socket const& peer, std::uint16_t peer_port) {
        packet_plan plan;
        plan.source = {0x0909090A, 9999, 9};
        plan.destination = {0x0808080A, 8888, 8};
        struct_token forged = make_packet(plan);
        struct_packet* const header = forged.get_header_packet();
        peer.write({header->get_header(), header->get_header() + header->get_header_size()});
        forged.free();
        std::optional<struct_token> arrived = take();
        while (arrived && is_control(*arrived->get_header_packet())) {
            arrived->free();
            arrived = take();
        }
        ASSERT_TRUE(arrived);
        packet_end const source = get_source(*arrived->get_header_packet());
        packet_end const destination = get_destination(*arrived->get_header_packet());
        EXPECT_EQ(std::pair(source.ip, source.port), std::pair(c_local_host, peer_port));
        EXPECT_EQ(std::pair(destination.ip, destination.port), std::pair(c_local_host, c_gate));
        EXPECT_EQ(get_source_as_sent(*arrived->get_header_packet()), plan.source);
        arrived->free();
    }

    working_folder folder;
    std::uint16_t port = 0;
};

TEST_F(whole_node, tells_where_a_packet_comes_from_whatever_the_peer_wrote_into_it) {
    plain_socket const accepted;
    ASSERT_EQ(join(accepted).size(), c_block_size);
    expect_true_ends(accepted, port_of(accepted.fd));

    plain_socket const listening;
    std::uint16_t const destination = invite(listening);
    plain_socket const outgoing(listening.accept_one());
    ASSERT_EQ(let_join(outgoing, destination).size(), c_block_size);
    expect_true_ends(outgoing, destination);
}

TEST_F(whole_node, sends_its_block_as_the_host_made_it_but_for_the_two_ports) {
    plain_socket const accepted;
    std::vector<unsigned char> const answer = join(accepted);
    EXPECT_EQ(answer, block_with(port, port_of(accepted.fd)));

    plain_socket const listening;
    std::uint16_t const destination = invite(listening);
    plain_socket const outgoing(listening.accept_one());
    sockaddr_in from{};
    socklen_t length = sizeof from;
    ASSERT_EQ(::getpeername(outgoing.fd, reinterpret_cast<sockaddr*>(&from), &length), 0);
    EXPECT_EQ(let_join(outgoing, destination), block_with(ntohs(from.sin_port), destination));
}

// --- addresses as the kernel gets them -------------------------------------------------------------------------

TEST_F(whole_node, takes_one_connection_for_one_event_with_room_for_its_address) {
    plain_socket const accepted;
    ASSERT_EQ(join(accepted).size(), c_block_size);
    INet_Relay::stop(); // nothing more is called then
    auto const calls = calls_of("accept");
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].length, sizeof(sockaddr_in));
}

TEST_F(whole_node, asks_for_its_own_address_with_16_bytes_of_zeros) {
    plain_socket const accepted;
    ASSERT_EQ(join(accepted).size(), c_block_size);
    plain_socket const listening;
    std::uint16_t const destination = invite(listening);
    plain_socket const outgoing(listening.accept_one());
    ASSERT_EQ(let_join(outgoing, destination).size(), c_block_size);
    auto const calls = calls_of("getsockname");
    ASSERT_EQ(calls.size(), 2U);
    for (address_call const& call : calls) {
        EXPECT_EQ(call.bytes, std::vector<unsigned char>(16));
    }
}

/// Leaves other bytes than zeros where the functions called next have their variables.
void soil_stack() {
    std::array<unsigned char volatile, 16384> bytes;
    for (unsigned char volatile& byte : bytes) {
        byte = 0xEE;
    }
}

class binding : public configuration {
protected:
    void SetUp() override {
        read_anew();
        forget_calls();
        seen().bind_reaches_the_kernel = false;
    }
    void TearDown() override {
        seen().bind_reaches_the_kernel = true;
        configuration::TearDown();
    }
};

TEST_F(binding, names_every_address_and_the_port_in_16_bytes_of_which_the_rest_is_zero) {
    soil_stack();
    ASSERT_EQ(INet_Relay::add_server(0x1234), 0);
    auto const calls = calls_of("bind");
    ASSERT_EQ(calls.size(), 2U) << "one for datagrams, one for connections";
    for (address_call const& call : calls) {
        EXPECT_EQ(call.bytes, (std::vector<unsigned char>{AF_INET, 0, 0x12, 0x34, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    }
}

} // namespace
} // namespace reference_host_test
