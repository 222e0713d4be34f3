// A small HTTP server for what a Center tells of itself. One thread of its own, with all signals blocked, answers one GET
// or HEAD a connection. A connection has 5 seconds for everything; when all places are taken the oldest one goes.
#ifndef REFERENCE_CENTER_ADMIN_SERVER_HPP
#define REFERENCE_CENTER_ADMIN_SERVER_HPP

#include "Host/zolt_packet.hpp"

#include <functional>
#include <memory>
#include <string>

namespace Zolt::Reference_Center {

struct http_answer {
    unsigned int status = 200;
    std::string type = "text/plain; charset=utf-8";
    std::string body;
};

/// An object with one key, "error".
http_answer refuse(unsigned int status, std::string const& text);

class admin_server {
public:
    /// Answers a path; called by the server's thread. What it throws becomes a 500.
    using handler = std::function<http_answer(std::string const& path)>;

    /// Serves from now on; port 0 stands for any free one. Throws failure when the address cannot be had.
    admin_server(struct_node_addr where, handler answers);
    ~admin_server();
    admin_server(admin_server const&) = delete;
    admin_server& operator=(admin_server const&) = delete;

    /// With the port that was chosen.
    struct_node_addr address() const;

private:
    class engine;
    std::unique_ptr<engine> const running;
};

} // namespace Zolt::Reference_Center

#endif
