#include "ipc/socket.h"

#include <event2/util.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <string_view>

#include "file/directory.h"
#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "IPC";
constexpr std::size_t dir_path_size = 256;
constexpr mode_t dir_mode = 0700;
constexpr mode_t socket_mask = 0117; // leaves 0660
constexpr int listen_backlog = 5;

/// The path fits: it was checked when the server object was made.
sockaddr_un address_of(const char *path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    return address;
}

/// The socket calls take the general form of every address.
const sockaddr *general(const sockaddr_un &address)
{
    return reinterpret_cast<const sockaddr *>(&address);
}

/// The file gets its mode at birth: there is no moment at which anybody may connect.
int bind_masked(int socket, const sockaddr_un &address)
{
    const mode_t mask = umask(socket_mask);
    const int rc = bind(socket, general(address), sizeof address);
    umask(mask);
    return rc;
}

/// A socket that an earlier daemon left there would keep us from binding.
void old_socket_remove(const char *caller, const char *path)
{
    struct stat existing {};
    if (lstat(path, &existing) != 0) {
        return;
    }
    if (S_ISSOCK(existing.st_mode)) {
        unlink(path);
        return;
    }
    LOG_ERROR("%s - %s is no socket and is left alone", caller, path);
}

} // namespace

bool velm_ipc_socket_create_dir(const char *path)
{
    const std::string_view given{path};
    return !given.empty() && given.size() < dir_path_size &&
           make_directories(path, dir_mode, dir_mode, directory_sync::none);
}

unique_fd velm_ipc_socket_listen(const char *path, int kind)
{
    old_socket_remove(__func__, path);
    const std::string parent = parent_directory(path);
    if (!velm_ipc_socket_create_dir(parent.c_str())) {
        LOG_ERROR("Cannot create parent dir %s", parent.c_str());
    }
    unique_fd socket{::socket(AF_UNIX, kind | SOCK_NONBLOCK, 0)};
    const int on = 1;
    if (!socket || setsockopt(socket.get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) != 0 ||
        evutil_make_listen_socket_reuseable(socket.get()) != 0 ||
        bind_masked(socket.get(), address_of(path)) != 0 ||
        listen(socket.get(), listen_backlog) != 0) {
        return unique_fd{};
    }
    return socket;
}

unique_fd velm_ipc_socket_connect(const char *path)
{
    unique_fd socket{::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    const sockaddr_un address = address_of(path);
    // On a Unix socket this is done at once: a full backlog is an error, not a wait.
    if (!socket || connect(socket.get(), general(address), sizeof address) != 0) {
        return unique_fd{};
    }
    return socket;
}
