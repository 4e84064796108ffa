#include "tools/doctor/process.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <vector>

#include "tools/control/place.h"
#include "tools/control/same_file.h"

namespace {

namespace fs = std::filesystem;

constexpr char name_of_daemon[] = "velmd";

std::string place_of(pid_t process, const char *name)
{
    return "/proc/" + std::to_string(process) + '/' + name;
}

std::string first_line_of(const std::string &path)
{
    std::ifstream file{path};
    std::string line;
    std::getline(file, line);
    return line;
}

/// What -c named last; the default without one. A relative path counts from where the daemon began.
std::string config_path_of(pid_t process)
{
    std::ifstream file{place_of(process, "cmdline"), std::ios::binary};
    std::string path = control_default_config;
    bool is_next = false;
    for (std::string word; std::getline(file, word, '\0'); is_next = word == "-c") {
        if (is_next) {
            path = word;
        } else if (word.starts_with("-c") && word.size() > 2) {
            path = word.substr(2);
        }
    }
    return path.empty() || path.front() == '/' ? path : place_of(process, "cwd/") + path;
}

std::vector<pid_t> all_processes()
{
    std::vector<pid_t> processes;
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator{"/proc", error}) {
        const std::string name = entry.path().filename();
        pid_t process = 0;
        const auto [end, bad] = std::from_chars(name.data(), name.data() + name.size(), process);
        if (bad == std::errc{} && end == name.data() + name.size()) {
            processes.push_back(process);
        }
    }
    return processes;
}

/// "socket:[12345]" of each open socket; nothing when they may not be looked at.
std::optional<std::set<std::string>> sockets_of(pid_t process)
{
    std::error_code error;
    fs::directory_iterator entry{place_of(process, "fd"), error};
    if (error) {
        return std::nullopt;
    }
    std::set<std::string> sockets;
    for (; entry != fs::directory_iterator{}; entry.increment(error)) {
        std::error_code gone;
        sockets.insert(fs::read_symlink(entry->path(), gone));
        if (error) {
            break;
        }
    }
    return sockets;
}

/// Of a line of /proc/PID/net/tcp or udp: "sl local rem st tx:rx tr:when retrnsmt uid timeout inode".
bool has_port(const std::string &line, std::uint16_t port, const std::set<std::string> &sockets)
{
    std::istringstream words{line};
    std::string number;
    std::string local;
    std::string word;
    std::string inode;
    words >> number >> local;
    for (int i = 0; i < 7; ++i) {
        words >> word;
    }
    words >> inode;
    unsigned found = 0;
    const std::size_t colon = local.find(':') + 1;
    std::from_chars(local.data() + colon, local.data() + local.size(), found, 16);
    return found == port && sockets.contains("socket:[" + inode + ']');
}

} // namespace

std::optional<pid_t> doctor_process_if_daemon(pid_t process)
{
    const bool is_daemon = first_line_of(place_of(process, "comm")) == name_of_daemon;
    return is_daemon ? std::optional{process} : std::nullopt;
}

std::optional<pid_t> doctor_find_process(const std::string &config_path)
{
    for (const pid_t process : all_processes()) {
        if (doctor_process_if_daemon(process).has_value() &&
            control_is_same_file(config_path_of(process), config_path)) {
            return process;
        }
    }
    return std::nullopt;
}

doctor_network doctor_network_of(pid_t process)
{
    std::error_code error;
    const fs::path theirs = fs::read_symlink(place_of(process, "ns/net"), error);
    const fs::path ours = error ? fs::path{} : fs::read_symlink("/proc/self/ns/net", error);
    if (error) {
        return doctor_network::unknown;
    }
    return theirs == ours ? doctor_network::same : doctor_network::other;
}

bool doctor_process_has_other_accounts(pid_t process)
{
    constexpr char accounts[] = "/etc/passwd";
    struct stat theirs {};
    const std::string path = place_of(process, "root") + accounts;
    return stat(path.c_str(), &theirs) == 0 && !control_is_same_file(path, accounts);
}

std::optional<bool> doctor_process_has_port(pid_t process, std::uint16_t port, int kind)
{
    const auto sockets = sockets_of(process);
    if (!sockets.has_value()) {
        return std::nullopt;
    }
    std::ifstream table{place_of(process, kind == SOCK_STREAM ? "net/tcp" : "net/udp")};
    std::string line;
    std::getline(table, line); // the names of its columns
    while (std::getline(table, line)) {
        if (has_port(line, port, *sockets)) {
            return true;
        }
    }
    return false;
}
