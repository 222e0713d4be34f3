// What the demonstration plays: four nodes, and one step after the other, each with a verdict.
//
//   alpha  serves a port in the first network; beta, gamma and delta are in the second one
//   beta   serves the same port number; alpha and beta connect to each other
//   gamma  connects to alpha, is killed and started again
//   delta  connects to alpha, is frozen until alpha gives it up, and thawed
#ifndef REFERENCE_CENTER_DEMO_STORY_HPP
#define REFERENCE_CENTER_DEMO_STORY_HPP

#include "Host/zolt_packet.hpp"
#include "Reference_Center/demo_stage.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace Zolt::Reference_Center {

struct story_plan {
    bool plays_udp = true; ///< needs two networks
    bool plays_tcp = true;
    std::vector<std::string> node_arguments; ///< for every node
    int networks[2] = {-1, -1};              ///< for setns
    struct_node_addr alpha;                  ///< what it serves
    struct_node_addr beta;
    int file = -1; ///< descriptor of the file that travels
    std::uint64_t udp_bytes = 0;
    std::uint64_t tcp_bytes = 0;
    unsigned int drop_percent = 0;
};

struct step_result {
    std::string name;
    bool passed = false;
    double seconds = 0;
    std::string text;
    json_object figures;
};

class demo_story {
public:
    demo_story(story_plan const& plan, demo_stage& stage, demo_view& view);

    /// Plays all steps; goes on after one that failed. Throws failure as the stage does.
    void play();
    std::vector<step_result> const& results() const { return steps; }

private:
    struct verdict {
        bool passed;
        std::string text;
        json_object figures = json_object::object();
    };
    using step = verdict (demo_story::*)();

    void run(char const* name, step what);
    std::string connect_to_alpha(stage_node& node);
    stage_node& add_node(char const* name, int network, bool keeps_file, std::string const& port);
    std::string checksum(std::uint64_t size);
    verdict compare_file(stage_node& receiver, char const* where, std::uint64_t size, std::string const& told,
                         json_object figures);
    verdict call_over(stage_node& caller, struct_node_addr to, char const* over, std::string const& who);
    json_object membership(char const* what) const;
    json_object udp_stream(char const* to, std::uint32_t stream, std::uint64_t count, std::uint32_t size,
                           json_object const& more) const;
    verdict stream_over_udp(char const* to, std::uint32_t stream, std::uint64_t count, std::uint32_t size,
                            json_object const& more);

    verdict start();
    verdict connect();
    verdict broadcast_to_peers();
    verdict freeze();
    verdict file_over_udp();
    verdict datagrams();
    verdict broadcast_datagrams();
    verdict multicast_datagrams();
    verdict leave_group();
    verdict file_over_tcp();
    verdict call_beta();
    verdict call_from_beta();
    verdict kill();
    verdict withdraw();
    verdict silence();
    verdict thaw();
    verdict stays_withdrawn();
    verdict stop();

    story_plan const& plan;
    demo_stage& stage;
    demo_view& view;
    std::vector<step_result> steps;
    stage_node* alpha = nullptr;
    stage_node* beta = nullptr;
    stage_node* gamma = nullptr;
    stage_node* delta = nullptr;
    std::string gamma_link; ///< the address by which alpha knows it
    std::string delta_link;
    std::chrono::steady_clock::time_point frozen_at;
    std::chrono::steady_clock::time_point withdrawn_at;
};

} // namespace Zolt::Reference_Center

#endif
