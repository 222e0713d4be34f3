// What a node of the demonstration sends on its own, and how it counts what arrives.
#ifndef REFERENCE_CENTER_DEMO_TRAFFIC_HPP
#define REFERENCE_CENTER_DEMO_TRAFFIC_HPP

#include "Reference_Center/call_probe.hpp"
#include "Reference_Center/center.hpp"
#include "Reference_Center/output.hpp"
#include "Reference_Center/sha256.hpp"

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

namespace Zolt::Reference_Center {

/// Something that a node has been told to do, and does a little of in each round.
class node_task {
public:
    virtual ~node_task() = default;
    virtual void advance() = 0;
    virtual void on_packet(arrival const&) {}
    virtual bool is_finished() const = 0;
    /// What there is to say about it when it is finished.
    virtual json_object figures() const = 0;
};

struct stream_plan {
    peer to;
    bool to_all_accepted = false; ///< copies for every accepted connection instead
    std::uint32_t stream = 0;     ///< the packets' code
    std::uint64_t count = 0;
    std::uint32_t size = 0;
    std::chrono::microseconds interval{0};
    Reference_Host::packet_kind kind = Reference_Host::packet_kind::data;
    std::uint32_t multicast_interface = 0;
};

/// Numbered packets, one each interval.
class stream_task : public node_task {
public:
    stream_task(center& node, stream_plan const& wanted);
    void advance() override;
    bool is_finished() const override { return sent == plan.count; }
    json_object figures() const override;

private:
    void send_one();

    center& node;
    stream_plan const plan;
    std::chrono::steady_clock::time_point next_at;
    std::uint64_t sent = 0;
    std::uint64_t refused = 0;
};

/// Calls one after the other, each until it is acknowledged.
class call_task : public node_task {
public:
    call_task(center& node, peer to, std::uint64_t count, std::uint32_t size);
    void advance() override;
    void on_packet(arrival const& packet) override { probe.look_at(packet); }
    bool is_finished() const override { return times.size() == wanted || failed; }
    json_object figures() const override;

private:
    call_probe probe;
    std::uint64_t const wanted;
    bool under_way = false;
    bool failed = false;
    std::vector<std::uint64_t> times;
};

/// A file over a connection, in pieces that follow each other.
class file_task : public node_task {
public:
    /// Descriptor: of a file that can be read at any place; stays open, the caller's.
    file_task(center& node, peer to, int descriptor, std::uint64_t size);
    void advance() override;
    bool is_finished() const override { return (offset == size || failed) && count_hand_overs().queued == 0; }
    json_object figures() const override;

private:
    center& node;
    peer const to;
    int const fd;
    std::uint64_t const size;
    std::uint64_t offset = 0;
    std::uint64_t pieces = 0;
    bool failed = false;
};

/// Data that a file's packets carry; the whole size or what could be read.
std::vector<unsigned char> read_piece(int descriptor, std::uint64_t offset, std::size_t size);

/// Counts the packets of one numbered stream.
class stream_count {
public:
    void add(std::uint64_t sequence);
    std::uint64_t distinct() const { return seen_count; }
    std::uint64_t arrived() const { return arrivals; }

private:
    std::vector<bool> seen;
    std::uint64_t seen_count = 0;
    std::uint64_t arrivals = 0;
};

/// Takes a file's pieces in order.
class file_arrival {
public:
    explicit file_arrival(std::uint64_t expected) : size(expected) {}
    void add(arrival const& piece);
    /// Arrived bytes, and the checksum once all are there.
    json_object figures();

private:
    std::uint64_t const size;
    std::uint64_t bytes = 0;
    std::uint64_t next = 0;
    bool in_order = true;
    sha256 sum;
    std::string checksum;
};

} // namespace Zolt::Reference_Center

#endif
