#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>
#include <vector>

/// The command line of velm-https-load.

enum class load_mode {
    kept,  // requests one after another on connections that stay open
    fresh, // each request on a connection of its own, always a full handshake
    again, // each request on a connection of its own, resuming the session before it
    idle,  // one request on each connection, which is then held until standard input ends
    first, // starts a server and asks it until the first 200
    ended, // starts a program and waits until it has ended
};

struct load_options {
    load_mode mode = load_mode::kept;
    sockaddr_in server{};
    std::vector<in_addr> sources; // connection n comes from address n modulo their number
    std::string authority_path;   // the only certificate that is trusted
    int tls_version = 0;          // 0: whatever both sides have
    unsigned connections = 1;
    double seconds = 1.0;
    std::string path = "/info";
    std::string requests_path;         // a file of whole requests, each sent once
    bool repeats = false;              // the requests, from the first on, until the time is over
    std::vector<const char *> command; // of the modes `first` and `ended`, null at the end
};

extern const char load_usage[];

/// Nothing, and a line on standard error, when the command line will not do.
[[nodiscard]] std::optional<load_options> load_options_parse(int argc, char **argv);
