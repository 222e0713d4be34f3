#include "Reference_Center/configuration_keys.hpp"

#include "Reference_Host/ini_file.hpp"

#include <algorithm>

namespace Zolt::Reference_Center {
namespace {

constexpr std::string_view c_no_effect = "none: it is read and kept, and nothing looks at it";

constexpr configuration_key c_keys[] = {
    {"AUTO_DISCONNECT", "yes", key_kind::on_off, true,
     "a TCP connection whose peer was silent for more than 8000 milliseconds is ended",
     "a silent TCP connection stays, and gets no heartbeats while it is silent"},
    {"SERVER_SOCKET_REUSE", "yes", key_kind::on_off, false, c_no_effect, c_no_effect},
    {"SERVER_LISTEN_BACKLOG", "5", key_kind::number, true,
     "so many accepted connections and one more may wait in the kernel for each listening port", ""},
    {"SERVER_LINGER_USE", "no", key_kind::on_off, false, c_no_effect, c_no_effect},
    {"SERVER_LINGER_TIME", "1024", key_kind::number, false, c_no_effect, ""},
    {"SERVER_NAGLE_OFF_USE", "yes", key_kind::on_off, true,
     "accepted connections send small packets at once (TCP_NODELAY)",
     "accepted connections gather small packets before they send them"},
    {"CLIENT_LINGER_USE", "no", key_kind::on_off, false, c_no_effect, c_no_effect},
    {"CLIENT_LINGER_TIME", "1024", key_kind::number, false, c_no_effect, ""},
    {"CLIENT_NAGLE_OFF_USE", "yes", key_kind::on_off, true,
     "outgoing connections send small packets at once (TCP_NODELAY)",
     "outgoing connections gather small packets before they send them"},
};

} // namespace

std::span<configuration_key const> configuration_keys() {
    return c_keys;
}

configuration_key const* find_key(std::string_view name) {
    std::string const wanted = Reference_Host::to_lower(name);
    auto const found = std::find_if(std::begin(c_keys), std::end(c_keys), [&](configuration_key const& key) {
        return Reference_Host::to_lower(key.name) == wanted;
    });
    return found != std::end(c_keys) ? &*found : nullptr;
}

std::vector<std::string> key_names() {
    std::vector<std::string> names;
    for (configuration_key const& key : c_keys) {
        names.emplace_back(key.name);
    }
    return names;
}

} // namespace Zolt::Reference_Center
