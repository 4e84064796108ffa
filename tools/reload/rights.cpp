#include "tools/reload/rights.h"

#include <grp.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string_view>

namespace {

/// The numbers behind "Name:"; nothing when the line is not there.
std::optional<std::vector<gid_t>> numbers_of(const std::string &text, std::string_view name)
{
    std::istringstream lines{text};
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with(name)) {
            continue;
        }
        std::istringstream rest{line.substr(name.size())};
        std::vector<gid_t> numbers;
        for (gid_t number = 0; rest >> number;) {
            numbers.push_back(number);
        }
        return numbers;
    }
    return std::nullopt;
}

/// The hexadecimal number behind "CapEff:".
std::optional<std::uint64_t> capabilities_of(const std::string &text)
{
    constexpr std::string_view name = "CapEff:\t";
    constexpr int hexadecimal = 16;
    const std::size_t at = text.find(name);
    std::uint64_t capabilities = 0;
    const char *const end = text.data() + text.size();
    const bool is_there =
        at != std::string::npos &&
        std::from_chars(text.data() + at + name.size(), end, capabilities, hexadecimal).ec ==
            std::errc{};
    return is_there ? std::optional{capabilities} : std::nullopt;
}

/// Root alone is not what lets root read every file: a supervisor may have taken that from the daemon.
/// Nobody takes more than this process has.
bool take_capabilities(std::uint64_t wanted)
{
    constexpr int words = _LINUX_CAPABILITY_U32S_3;
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct own[words]{};
    if (syscall(SYS_capget, &header, own) != 0) {
        return false;
    }
    for (int i = 0; i < words; ++i) {
        own[i].permitted &= static_cast<std::uint32_t>(wanted >> (32 * i));
        own[i].effective = own[i].permitted;
        own[i].inheritable = 0;
    }
    return syscall(SYS_capset, &header, own) == 0;
}

/// The groups first: they cannot be changed any more as another user.
bool take_rights(const reload_rights &rights)
{
    return prctl(PR_SET_KEEPCAPS, 1L, 0L, 0L, 0L) == 0 &&
           setgroups(rights.groups.size(), rights.groups.data()) == 0 &&
           setresgid(rights.group, rights.group, rights.group) == 0 &&
           setresuid(rights.user, rights.user, rights.user) == 0 &&
           take_capabilities(
               rights.capabilities.value_or(rights.user == 0 ? ~std::uint64_t{0} : 0));
}

bool run_here(const std::optional<reload_rights> &rights, const std::function<bool()> &work)
{
    if (rights.has_value() && !take_rights(*rights)) {
        std::perror("velmctl: the rights of the daemon");
        return false;
    }
    return work();
}

} // namespace

std::optional<reload_rights> reload_rights_of_text(const std::string &text)
{
    constexpr std::size_t effective = 1; // behind the real one
    const auto users = numbers_of(text, "Uid:");
    const auto group = numbers_of(text, "Gid:");
    const auto groups = numbers_of(text, "Groups:");
    if (!users || !group || !groups || users->size() <= effective || group->size() <= effective) {
        return std::nullopt;
    }
    return reload_rights{(*users)[effective], (*group)[effective], *groups, capabilities_of(text)};
}

std::optional<reload_rights> reload_rights_of(pid_t pid)
{
    std::ifstream file{"/proc/" + std::to_string(pid) + "/status"};
    std::ostringstream text;
    text << file.rdbuf();
    return reload_rights_of_text(text.str());
}

bool reload_run_with(const std::optional<reload_rights> &rights, const std::function<bool()> &work)
{
    const pid_t child = fork();
    if (child == 0) {
        const bool is_good = run_here(rights, work);
        std::fflush(nullptr);
        _exit(is_good ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    int status = 0;
    pid_t ended = -1;
    while (child > 0 && (ended = waitpid(child, &status, 0)) < 0 && errno == EINTR) {
    }
    return child > 0 && ended == child && WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
}
