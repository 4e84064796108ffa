#include "tools/control/exchange.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include "handles/fd.h"
#include "tools/control/answer.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using deadline = steady_clock::time_point;

velmctl_answer failure(control_result result, std::string why)
{
    return {result, 0, {}, std::move(why)};
}

int milliseconds_left(deadline end)
{
    const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 1000 * 1000));
}

/// False at the deadline, or on an error.
bool wait_for(int socket, short events, deadline end)
{
    while (true) {
        pollfd wanted{socket, events, 0};
        const int count = poll(&wanted, 1, milliseconds_left(end));
        if (count >= 0 || errno != EINTR) {
            return count > 0;
        }
    }
}

/// A socket of this kind does not connect later: either there is room now, or the daemon is busy.
/// Until the deadline it is tried again.
int connect_until(int socket, const sockaddr_un &address, deadline end)
{
    while (true) {
        const auto *const name = reinterpret_cast<const sockaddr *>(&address);
        if (connect(socket, name, sizeof address) == 0) {
            return 0;
        }
        if ((errno != EAGAIN && errno != EINTR) || steady_clock::now() >= end) {
            return errno;
        }
        poll(nullptr, 0, 20);
    }
}

std::optional<velmctl_answer> connect_to(const std::string &path, deadline end, unique_fd &socket)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        return failure(control_result::unreachable,
                       path.empty() ? "no path" : std::strerror(ENAMETOOLONG));
    }
    path.copy(address.sun_path, path.size());
    socket.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int error = socket ? connect_until(socket.get(), address, end) : errno;
    if (error == EAGAIN) {
        return failure(control_result::timed_out, "it did not take the connection in time");
    }
    if (error != 0) {
        return failure(control_result::unreachable, std::strerror(error));
    }
    return std::nullopt;
}

std::optional<velmctl_answer> send_request(int socket, const std::string &target, deadline end)
{
    const std::string request =
        "GET " + target + " HTTP/1.1\r\nHost: velmd\r\nConnection: close\r\n\r\n";
    for (std::size_t sent = 0; sent < request.size();) {
        const ssize_t count =
            send(socket, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (count > 0) {
            sent += static_cast<std::size_t>(count);
        } else if (errno == EAGAIN && !wait_for(socket, POLLOUT, end)) {
            return failure(control_result::timed_out, "it did not read the request in time");
        } else if (errno == EPIPE || errno == ECONNRESET) {
            return std::nullopt; // it may have answered before it closed
        } else if (errno != EAGAIN && errno != EINTR) {
            return failure(control_result::ended, std::strerror(errno));
        }
    }
    return std::nullopt;
}

enum class reading { more, end, late };

reading read_some(int socket, std::string &text, deadline end)
{
    std::array<char, 16384> piece{};
    while (true) {
        // A flood does not outlast the deadline either.
        if (steady_clock::now() >= end) {
            return reading::late;
        }
        const ssize_t count = recv(socket, piece.data(), piece.size(), 0);
        if (count > 0) {
            text.append(piece.data(), static_cast<std::size_t>(count));
            return reading::more;
        }
        if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
            return reading::end;
        }
        if (!wait_for(socket, POLLIN, end)) {
            return reading::late;
        }
    }
}

velmctl_answer finish(const velmctl_head &head, std::string &text)
{
    const std::size_t length = head.length.value_or(text.size() - head.size);
    return {control_result::done, head.status, text.substr(head.size, length), {}};
}

velmctl_answer receive(int socket, deadline end)
{
    std::string text;
    velmctl_head head;
    while (true) {
        const reading got = read_some(socket, text, end);
        if (got == reading::late) {
            return failure(control_result::timed_out, "it did not answer in time");
        }
        const char *const problem = velmctl_head_parse(text, head);
        if (problem != nullptr) {
            return failure(control_result::broken, problem);
        }
        const bool is_whole =
            head.size != 0 && head.length.has_value() && text.size() - head.size >= *head.length;
        const bool ends_here = head.size != 0 && !head.length.has_value() && got == reading::end;
        if (is_whole || ends_here) {
            return finish(head, text);
        }
        if (got == reading::end) {
            return text.empty() ? failure(control_result::ended, "it ended the connection")
                                : failure(control_result::broken, "its answer is cut off");
        }
    }
}

} // namespace

velmctl_answer control_ask(const std::string &path, const std::string &target, milliseconds limit)
{
    const deadline end = steady_clock::now() + limit;
    unique_fd socket;
    if (auto refused = connect_to(path, end, socket)) {
        return *refused;
    }
    if (auto refused = send_request(socket.get(), target, end)) {
        return *refused;
    }
    return receive(socket.get(), end);
}
