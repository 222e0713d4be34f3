#include "Reference_Center/admin_site.hpp"

#include "Reference_Center/addresses.hpp"
#include "Reference_Center/diagnostics.hpp"
#include "Reference_Center/failure.hpp"
#include "Reference_Center/page_files.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <fmt/format.h>
#include <microhttpd.h>
#include <netinet/in.h>

namespace Zolt::Reference_Center {
namespace {

constexpr std::string_view c_none = "none";
constexpr std::string_view c_assets = "/assets/";
constexpr std::string_view c_front_page = "index.html";

http_answer answer_file(std::string_view name) {
    auto const files = page_files();
    auto const file = std::find_if(files.begin(), files.end(), [&](page_file const& one) { return one.name == name; });
    if (file == files.end()) {
        return refuse(MHD_HTTP_NOT_FOUND, "no such page");
    }
    return {MHD_HTTP_OK, std::string(file->type), std::string(file->content.begin(), file->content.end())};
}

http_answer answer_path(std::string_view path) {
    if (path == "/") {
        return answer_file(c_front_page);
    }
    return answer_file(path.starts_with(c_assets) ? path.substr(c_assets.size()) : "");
}

std::unique_ptr<admin_server> open_at(struct_node_addr where) {
    return std::make_unique<admin_server>(where, [](std::string const& path) { return answer_path(path); });
}

/// The default place, or any port beside it, or nothing.
std::unique_ptr<admin_server> open_default() {
    struct_node_addr where = *parse_local_address(c_default_admin);
    try {
        return open_at(where);
    } catch (failure const& reason) {
        log_event(reason.what());
    }
    where.port = 0;
    try {
        return open_at(where);
    } catch (failure const& reason) {
        log_warning(reason.what());
        return nullptr;
    }
}

bool is_loopback(struct_node_addr where) {
    return (ntohl(where.ip) >> IN_CLASSA_NSHIFT) == IN_LOOPBACKNET;
}

} // namespace

void add_admin_option(CLI::App& command, std::string& place) {
    command
        .add_option(
            "--admin", place,
            fmt::format("Where page, metrics and status are served; port 0 is any; without it {} or any port there",
                        c_default_admin))
        ->check(CLI::Validator(
            [](std::string& text) {
                return text == c_none || parse_local_address(text)
                           ? ""
                           : fmt::format("\"{}\" is neither none nor an address such as {}", text, c_default_admin);
            },
            ""))
        ->type_name("IP:PORT|none");
}

std::unique_ptr<admin_server> open_admin(std::string const& place) {
    if (place == c_none) {
        return nullptr;
    }
    if (place.empty()) {
        return open_default();
    }
    auto made = open_at(*parse_local_address(place));
    if (!is_loopback(made->address())) {
        log_warning(fmt::format("the admin endpoint at {} can be read by whoever reaches that address",
                                address_text(made->address())));
    }
    return made;
}

std::string admin_text(admin_server const* admin) {
    return admin == nullptr ? "" : address_text(admin->address());
}

} // namespace Zolt::Reference_Center
