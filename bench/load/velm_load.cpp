#include <getopt.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

#include "load.h"

namespace {

constexpr char usage[] =
    "usage: velm-load ssdp|ssdp-peer|ipc|ipc-peer [options]\n"
    "Puts load on velmd's discovery and IPC, or stands in for them with a bare loop. Prints JSON.\n"
    "\n"
    "  ssdp        keeps searches outstanding and counts the replies\n"
    "  ssdp-peer   answers every datagram with the same bytes: recvfrom, sendto\n"
    "  ipc         request and status-3 answer, one after the other, on one connection\n"
    "  ipc-peer    answers every request with as many bytes: epoll_wait, recv, send\n"
    "\n"
    "  --address A:P      ssdp, ssdp-peer: IPv4 address and port (127.0.0.1:1900; a peer takes a\n"
    "                     free port for port 0)\n"
    "  --socket PATH      ipc, ipc-peer: the Unix socket\n"
    "  --outstanding N    ssdp: searches on their way at a time (32)\n"
    "  --target URN       ssdp: what is searched for\n"
    "  --reply FILE       ssdp: writes the first reply there; ssdp-peer: answers with its bytes\n"
    "  --count N          operations, or a peer's answers, at most (100000)\n"
    "  --seconds N        at most (10)\n"
    "  --pid PID          ssdp, ipc: the server, whose processor time an answer is \"cpu_us\"\n"
    "\n"
    "A peer prints {\"listening\": \"...\"} first. \"lost\" counts what was sent and never "
    "answered;\n"
    "after half a second without any reply ssdp gives up those that are outstanding.\n";

struct command_row {
    std::string_view name;
    int (*run)(const load_options &options);
};
constexpr command_row commands[] = {
    {"ssdp", ssdp_load_run},
    {"ssdp-peer", ssdp_peer_run},
    {"ipc", ipc_load_run},
    {"ipc-peer", ipc_peer_run},
};

[[noreturn]] void refuse()
{
    std::fputs(usage, stderr);
    std::exit(2);
}

template <typename Number>
Number number_parse(std::string_view text, Number least, Number most)
{
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size() || number < least ||
        number > most) {
        refuse();
    }
    return number;
}

// clang-format off
constexpr option long_options[] = {
    {"address",     required_argument, nullptr, 'a'},
    {"socket",      required_argument, nullptr, 's'},
    {"outstanding", required_argument, nullptr, 'o'},
    {"target",      required_argument, nullptr, 't'},
    {"reply",       required_argument, nullptr, 'r'},
    {"count",       required_argument, nullptr, 'n'},
    {"seconds",     required_argument, nullptr, 'd'},
    {"pid",         required_argument, nullptr, 'p'},
    {nullptr,       0,                 nullptr, 0},
};
// clang-format on

void option_take(load_options &options, int letter)
{
    switch (letter) {
    case 'a':
        options.address = optarg;
        break;
    case 's':
        options.socket_path = optarg;
        break;
    case 'o':
        options.outstanding = number_parse(optarg, 1U, 1024U);
        break;
    case 't':
        options.target = optarg;
        break;
    case 'r':
        options.reply_path = optarg;
        break;
    case 'n':
        options.count = number_parse(optarg, std::uint64_t{1}, std::uint64_t{100'000'000});
        break;
    case 'd':
        options.seconds = number_parse(optarg, 1U, 3600U);
        break;
    case 'p':
        options.pid = number_parse(optarg, pid_t{1}, pid_t{1 << 22});
        break;
    default:
        refuse();
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::fputs(usage, stdout);
        return 0;
    }
    const std::string_view name = argc > 1 ? argv[1] : "";
    const auto command = std::find_if(std::begin(commands), std::end(commands),
                                      [name](const command_row &row) { return row.name == name; });
    if (command == std::end(commands)) {
        refuse();
    }
    load_options options;
    for (int letter = 0;
         (letter = getopt_long(argc - 1, argv + 1, "", long_options, nullptr)) != -1;) {
        option_take(options, letter);
    }
    if (optind != argc - 1) {
        refuse();
    }
    return command->run(options);
}
