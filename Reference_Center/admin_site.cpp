#include "Reference_Center/admin_site.hpp"

#include "Reference_Center/addresses.hpp"
#include "Reference_Center/configuration_report.hpp"
#include "Reference_Center/diagnostics.hpp"
#include "Reference_Center/failure.hpp"
#include "Reference_Center/node_metrics.hpp"
#include "Reference_Center/node_report_json.hpp"
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

/// What is told about.
struct site {
    node_account const& account;
    json_object configuration; ///< as it was when the Center was started
};

http_answer answer_file(std::string_view name) {
    auto const files = page_files();
    auto const file = std::find_if(files.begin(), files.end(), [&](page_file const& one) { return one.name == name; });
    if (file == files.end()) {
        return refuse(MHD_HTTP_NOT_FOUND, "no such page");
    }
    return {MHD_HTTP_OK, std::string(file->type), std::string(file->content.begin(), file->content.end())};
}

http_answer answer_object(json_object const& object) {
    return {MHD_HTTP_OK, "application/json", to_line(object)};
}

http_answer answer_word(bool is_so, std::string const& otherwise) {
    http_answer answer;
    answer.status = is_so ? MHD_HTTP_OK : MHD_HTTP_SERVICE_UNAVAILABLE;
    answer.body = (is_so ? "ok" : otherwise) + "\n";
    return answer;
}

std::string ended_threads(status_report const& report) {
    std::vector<std::string_view> ended;
    for (thread_report const& thread : report.threads) {
        if (!thread.running) {
            ended.push_back(thread.name);
        }
    }
    return fmt::format("ended: {}", fmt::join(ended, ", "));
}

http_answer answer_health(site const& of) {
    status_report const report = of.account.take_status();
    return answer_word(report.healthy, ended_threads(report));
}

http_answer answer_readiness(site const& of) {
    return answer_word(of.account.take_status().ready, "not ready");
}

http_answer answer_metrics(site const& of) {
    return {MHD_HTTP_OK, c_metrics_type, metrics_text(of.account.take_status(), of.account.take_peers())};
}

struct route {
    std::string_view path;
    http_answer (*answer)(site const&);
};

constexpr route c_routes[] = {
    {"/", [](site const&) { return answer_file(c_front_page); }},
    {"/healthz", answer_health},
    {"/readyz", answer_readiness},
    {"/metrics", answer_metrics},
    {"/api/v1/status", [](site const& of) { return answer_object(status_json(of.account.take_status())); }},
    {"/api/v1/peers", [](site const& of) { return answer_object(peers_json(of.account.take_peers())); }},
    {"/api/v1/config", [](site const& of) { return answer_object(of.configuration); }},
    {"/api/v1/closed", [](site const& of) { return answer_object(closed_json(of.account.take_closed())); }},
};

http_answer answer_path(std::string_view path, site const& of) {
    if (path.starts_with(c_assets)) {
        return answer_file(path.substr(c_assets.size()));
    }
    auto const known =
        std::find_if(std::begin(c_routes), std::end(c_routes), [&](route const& one) { return one.path == path; });
    return known != std::end(c_routes) ? known->answer(of) : refuse(MHD_HTTP_NOT_FOUND, "no such page");
}

std::unique_ptr<admin_server> open_at(struct_node_addr where, site const& of) {
    return std::make_unique<admin_server>(where, [of](std::string const& path) { return answer_path(path, of); });
}

/// The default place, or any port beside it, or nothing.
std::unique_ptr<admin_server> open_default(site const& of) {
    struct_node_addr where = *parse_local_address(c_default_admin);
    try {
        return open_at(where, of);
    } catch (failure const& reason) {
        log_event(reason.what());
    }
    where.port = 0;
    try {
        return open_at(where, of);
    } catch (failure const& reason) {
        log_warning(reason.what());
        return nullptr;
    }
}

/// Without a file its name is null.
json_object describe_configuration(std::string const& chosen) {
    configuration_text const text = read_configuration_text(chosen);
    json_object object = values_json(text, read_key_values(Reference_Host::parse_ini(text.bytes)));
    if (!text.is_present) {
        object["file"] = nullptr;
    }
    return object;
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

std::unique_ptr<admin_server> open_admin(std::string const& place, node_account const& account,
                                         std::string const& configuration) {
    if (place == c_none) {
        return nullptr;
    }
    site const of{account, describe_configuration(configuration)};
    if (place.empty()) {
        return open_default(of);
    }
    auto made = open_at(*parse_local_address(place), of);
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
