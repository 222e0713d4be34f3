// The exchange and the packet stream, cut in two at each possible byte: what arrives is the same, once.

#include "tests/race/live_relay.hpp"

#include <mutex>

namespace {

using namespace relay_test;

std::vector<packet_fields> three_packets() {
    return {{.sequence = 1}, {.sequence = 2, .data = {1, 2, 3, 4, 5}}, {.sequence = 3, .data = bytes(200, 9)}};
}

bytes in_one_stream(std::vector<packet_fields> const& packets) {
    bytes stream;
    for (packet_fields const& packet : packets) {
        bytes const one = packet_bytes(packet);
        stream.insert(stream.end(), one.begin(), one.end());
    }
    return stream;
}

bytes part(bytes const& whole, std::size_t from, std::size_t to) {
    return {whole.begin() + static_cast<std::ptrdiff_t>(from), whole.begin() + static_cast<std::ptrdiff_t>(to)};
}

class split : public live_relay, public ::testing::WithParamInterface<side> {
protected:
    void SetUp() override {
        live_relay::SetUp();
        on_offer([this](packet_fields const& packet) {
            if (!packet.control) {
                std::lock_guard const hold(guard);
                arrived.push_back(packet);
            }
            return center.note(packet);
        });
    }

    /// How many bytes the relay has read since the last forget.
    std::size_t read_by_relay() const {
        long total = 0;
        for (system_call const& call : system.calls("recv")) {
            total += call.result > 0 ? call.result : 0;
        }
        return static_cast<std::size_t>(total);
    }

    void forget() {
        system.clear();
        clear_journal();
        take_errors();
        take_traces();
        take_offers();
        center.forget();
        std::lock_guard const hold(guard);
        arrived.clear();
    }

    /// Writes in two pieces; the relay has read the first before the second is sent.
    void write_cut(descriptor const& peer, bytes const& whole, std::size_t at) {
        write_bytes(peer, part(whole, 0, at));
        EXPECT_TRUE(eventually([&] { return read_by_relay() == at; }));
        write_bytes(peer, part(whole, at, whole.size()));
    }

    std::vector<packet_fields> take_arrived() {
        std::lock_guard const hold(guard);
        return arrived;
    }

    void withdraw(connection& made) {
        made.peer.close();
        if (made.which == side::outgoing) {
            made.listener.close();
            INet_Relay::del_client(made.address.ip, made.address.port);
        }
        EXPECT_TRUE(eventually([this] { return is_gone(); }));
    }

private:
    std::mutex guard;
    std::vector<packet_fields> arrived;
};

TEST_P(split, anywhere_in_the_block_establishes_all_the_same) {
    bytes const block(c_init_block, 0);
    for (std::size_t at = 1; at < c_init_block && !HasFailure(); ++at) {
        forget();
        connection made = begin(GetParam());
        if (GetParam() == side::outgoing) {
            EXPECT_EQ(read_bytes(made.peer, c_init_block).size(), c_init_block);
        }
        write_cut(made.peer, block, at);
        EXPECT_TRUE(eventually([this] { return center.connected.load() == 1; })) << "cut at " << at;
        withdraw(made);
        EXPECT_EQ(center.disconnected.load(), 1) << "cut at " << at;
    }
}

TEST_P(split, anywhere_in_three_packets_delivers_each_once) {
    std::vector<packet_fields> const sent = three_packets();
    bytes const stream = in_one_stream(sent);
    connection made = begin(GetParam());
    ASSERT_TRUE(finish(made));
    for (std::size_t at = 1; at < stream.size() && !HasFailure(); ++at) {
        forget();
        write_cut(made.peer, stream, at);
        EXPECT_TRUE(eventually([this] { return center.delivered.load() == 3; })) << "cut at " << at;
        std::vector<packet_fields> const got = take_arrived();
        ASSERT_EQ(got.size(), sent.size());
        for (std::size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(got[i].sequence, sent[i].sequence) << "cut at " << at;
            EXPECT_EQ(got[i].data, sent[i].data) << "cut at " << at;
        }
    }
    forget();
    withdraw(made);
}

INSTANTIATE_TEST_SUITE_P(sides, split, ::testing::Values(side::accepted, side::outgoing),
                         [](auto const& row) { return row.param == side::accepted ? "accepted" : "outgoing"; });

} // namespace
