#include "tools/doctor/bind.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

#include "handles/fd.h"

int velmctl_try_bind(const char *address, std::uint16_t port, int kind)
{
    const unique_fd socket{::socket(AF_INET, kind | SOCK_CLOEXEC, 0)};
    sockaddr_in wanted{};
    wanted.sin_family = AF_INET;
    wanted.sin_port = htons(port);
    const int on = 1; // as the daemon's own sockets have it
    if (!socket || inet_pton(AF_INET, address, &wanted.sin_addr) != 1 ||
        setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        return EINVAL;
    }
    const auto *const name = reinterpret_cast<const sockaddr *>(&wanted);
    return bind(socket.get(), name, sizeof wanted) == 0 ? 0 : errno;
}
