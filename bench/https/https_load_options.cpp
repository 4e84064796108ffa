#include "https_load_options.h"

#include <arpa/inet.h>
#include <getopt.h>
#include <openssl/ssl.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

const char load_usage[] =
    "usage: velm-https-load kept|fresh|again|idle --server A.B.C.D:PORT --ca FILE\n"
    "           [--source A.B.C.D]... [--tls 1.2|1.3] [--connections N] [--seconds S]\n"
    "           [--path PATH | --requests FILE [--repeat]]\n"
    "       velm-https-load first --server A.B.C.D:PORT --ca FILE -- COMMAND...\n"
    "       velm-https-load ended -- COMMAND...\n";

namespace {

constexpr option long_options[] = {
    {"server", required_argument, nullptr, 's'},
    {"ca", required_argument, nullptr, 'a'},
    {"source", required_argument, nullptr, 'f'},
    {"tls", required_argument, nullptr, 't'},
    {"connections", required_argument, nullptr, 'c'},
    {"seconds", required_argument, nullptr, 'd'},
    {"path", required_argument, nullptr, 'p'},
    {"requests", required_argument, nullptr, 'r'},
    {"repeat", no_argument, nullptr, 'R'},
    {nullptr, 0, nullptr, 0},
};

struct mode_name {
    std::string_view name;
    load_mode mode;
};
constexpr mode_name mode_names[] = {
    {"kept", load_mode::kept}, {"fresh", load_mode::fresh}, {"again", load_mode::again},
    {"idle", load_mode::idle}, {"first", load_mode::first}, {"ended", load_mode::ended},
};

bool parse_mode(std::string_view text, load_mode *mode)
{
    for (const mode_name &row : mode_names) {
        if (row.name == text) {
            *mode = row.mode;
            return true;
        }
    }
    return false;
}

bool parse_server(const std::string &text, sockaddr_in *server)
{
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        return false;
    }
    server->sin_family = AF_INET;
    server->sin_port =
        htons(static_cast<std::uint16_t>(std::strtoul(text.c_str() + colon + 1, nullptr, 10)));
    return server->sin_port != 0 &&
           inet_pton(AF_INET, text.substr(0, colon).c_str(), &server->sin_addr) == 1;
}

bool parse_source(const char *text, std::vector<in_addr> *sources)
{
    in_addr address{};
    if (inet_pton(AF_INET, text, &address) != 1) {
        return false;
    }
    sources->push_back(address);
    return true;
}

bool parse_tls(std::string_view text, int *version)
{
    *version = text == "1.2" ? TLS1_2_VERSION : TLS1_3_VERSION;
    return text == "1.2" || text == "1.3";
}

bool apply_option(int letter, const char *value, load_options *options)
{
    switch (letter) {
    case 's':
        return parse_server(value, &options->server);
    case 'a':
        options->authority_path = value;
        return true;
    case 'f':
        return parse_source(value, &options->sources);
    case 't':
        return parse_tls(value, &options->tls_version);
    case 'c':
        options->connections = static_cast<unsigned>(std::strtoul(value, nullptr, 10));
        return options->connections > 0;
    case 'd':
        options->seconds = std::strtod(value, nullptr);
        return options->seconds > 0;
    case 'p':
        options->path = value;
        return true;
    case 'r':
        options->requests_path = value;
        return true;
    case 'R':
        options->repeats = true;
        return true;
    default:
        return false;
    }
}

bool is_complete(const load_options &options)
{
    const bool wants_command = options.mode == load_mode::first || options.mode == load_mode::ended;
    const bool wants_server = options.mode != load_mode::ended;
    return (!wants_server || (options.server.sin_port != 0 && !options.authority_path.empty())) &&
           (!wants_command || !options.command.empty());
}

} // namespace

std::optional<load_options> load_options_parse(int argc, char **argv)
{
    load_options options;
    bool good = argc > 1 && parse_mode(argv[1], &options.mode);
    if (good) {
        optind = 2;
    }
    int letter = 0;
    while (good && (letter = getopt_long(argc, argv, "+", long_options, nullptr)) != -1) {
        good = apply_option(letter, optarg, &options);
    }
    if (good && optind < argc) {
        options.command.assign(argv + optind, argv + argc);
        options.command.push_back(nullptr);
    }
    if (!good || !is_complete(options)) {
        std::fputs(load_usage, stderr);
        return std::nullopt;
    }
    return options;
}
