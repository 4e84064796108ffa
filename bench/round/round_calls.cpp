#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <utility>

#include "floor.h"

namespace {

/// As they were on the wire in a round with TLS 1.3 and certificates on P-256.
namespace size {
constexpr std::size_t request = 156;
constexpr std::size_t report = 240;
constexpr std::size_t cloud_hello = 292;
constexpr std::size_t cloud_flight = 830;
constexpr std::size_t push = 990;        // with the end of the handshake
constexpr std::size_t push_answer = 700; // with the tickets
constexpr std::size_t phone_hello = 517;
constexpr std::size_t phone_flight = 830;
constexpr std::size_t challenge_request = 460; // with the end of the handshake
constexpr std::size_t challenge = 380;         // with the ticket
constexpr std::size_t location = 1000;
constexpr std::size_t location_answer = 86;
constexpr std::size_t farewell = 24;
} // namespace size

constexpr std::size_t longest = 4096;
using packet = std::array<char, longest>;

void require(bool done, const char *what)
{
    if (!done) {
        round_floor_fail(std::string{"cannot "} + what);
    }
}

void send_all(int fd, std::size_t length)
{
    static const packet bytes{};
    require(send(fd, bytes.data(), length, MSG_NOSIGNAL) == static_cast<ssize_t>(length), "send");
}

/// Once: what was sent in one piece has come in one.
void receive(int fd)
{
    packet bytes;
    require(recv(fd, bytes.data(), bytes.size(), 0) >= 0, "receive");
}

sockaddr_in loopback(std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = port;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

unique_fd stream_socket(int flags)
{
    unique_fd made{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0)};
    require(static_cast<bool>(made), "make a socket");
    return made;
}

bool connect_to(int fd, std::uint16_t port)
{
    const sockaddr_in address = loopback(port);
    return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

/// On a port of the kernel's choice, in network order.
std::pair<unique_fd, std::uint16_t> listen_somewhere(int flags)
{
    unique_fd made = stream_socket(flags);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    auto *const plain = reinterpret_cast<sockaddr *>(&address);
    require(bind(made.get(), plain, length) == 0 && listen(made.get(), 4) == 0 &&
                getsockname(made.get(), plain, &length) == 0,
            "listen");
    return {std::move(made), address.sin_port};
}

void stay_on(int core)
{
    if (core >= 0) {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(static_cast<unsigned>(core), &set);
        (void)sched_setaffinity(0, sizeof set, &set);
    }
}

void be_cloud(int listener)
{
    const unique_fd daemon{accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)};
    receive(daemon.get());
    send_all(daemon.get(), size::cloud_flight);
    receive(daemon.get());
    send_all(daemon.get(), size::push_answer);
    receive(daemon.get()); // its farewell
}

void be_phone(std::uint16_t port)
{
    const unique_fd daemon = stream_socket(0);
    require(connect_to(daemon.get(), port), "connect");
    const int yes = 1;
    (void)setsockopt(daemon.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    send_all(daemon.get(), size::phone_hello);
    receive(daemon.get());
    send_all(daemon.get(), size::challenge_request);
    receive(daemon.get());
    send_all(daemon.get(), size::location);
    receive(daemon.get());
}

/// Rounds for as long as the other process lives.
[[noreturn]] void be_everybody(unique_fd local, unique_fd cloud, std::uint16_t port)
{
    char go = 0;
    while (recv(local.get(), &go, sizeof go, 0) == sizeof go) {
        send_all(local.get(), size::request);
        be_cloud(cloud.get());
        be_phone(port);
        receive(local.get()); // the report
    }
    _exit(0);
}

} // namespace

round_calls::round_calls(std::string password_file, int own_core, int peer_core)
    : password_file_{std::move(password_file)}, epoll_{epoll_create1(EPOLL_CLOEXEC)}
{
    auto [cloud, cloud_port] = listen_somewhere(0);
    auto [listener, port] = listen_somewhere(SOCK_NONBLOCK);
    listener_ = std::move(listener);
    cloud_port_ = cloud_port;
    std::array<int, 2> pair{};
    require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()) == 0,
            "make a pair of sockets");
    local_.reset(pair[0]);
    unique_fd theirs{pair[1]};
    const pid_t parent = getpid();
    const pid_t child = fork();
    require(child >= 0, "fork");
    if (child == 0) {
        local_.reset();
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(0);
        }
        stay_on(peer_core);
        be_everybody(std::move(theirs), std::move(cloud), port);
    }
    stay_on(own_core);
    watch(EPOLL_CTL_ADD, listener_.get(), EPOLLIN);
    watch(EPOLL_CTL_ADD, local_.get(), EPOLLIN);
}

void round_calls::watch(int operation, int fd, unsigned events) const
{
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    require(epoll_ctl(epoll_.get(), operation, fd, &event) == 0, "watch");
}

void round_calls::await() const
{
    constexpr int patience_ms = 10'000;
    epoll_event event{};
    require(epoll_wait(epoll_.get(), &event, 1, patience_ms) == 1, "go on: nothing comes");
}

void round_calls::push(const round_work &work)
{
    const unique_fd cloud = stream_socket(SOCK_NONBLOCK);
    (void)connect_to(cloud.get(), cloud_port_); // goes on
    watch(EPOLL_CTL_ADD, cloud.get(), EPOLLOUT);
    await();
    int error = 0;
    socklen_t length = sizeof error;
    require(getsockopt(cloud.get(), SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0,
            "connect");
    send_all(cloud.get(), size::cloud_hello);
    watch(EPOLL_CTL_MOD, cloud.get(), EPOLLIN);
    await();
    receive(cloud.get());
    work.push();
    send_all(cloud.get(), size::push);
    await();
    receive(cloud.get());
    send_all(cloud.get(), size::farewell);
}

void round_calls::read_password_file() const
{
    packet bytes;
    struct stat found {};
    const unique_fd file{open(password_file_.c_str(), O_RDONLY | O_CLOEXEC)};
    require(file && fstat(file.get(), &found) == 0 &&
                read(file.get(), bytes.data(), bytes.size()) > 0,
            "read the password file");
}

void round_calls::serve_phone(const round_work &work)
{
    await();
    const unique_fd phone{accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)};
    require(static_cast<bool>(phone), "accept");
    watch(EPOLL_CTL_ADD, phone.get(), EPOLLIN);
    await();
    receive(phone.get());
    work.greet_phone();
    send_all(phone.get(), size::phone_flight);
    await();
    receive(phone.get());
    read_password_file();
    work.challenge();
    send_all(phone.get(), size::challenge);
    await();
    receive(phone.get());
    read_password_file();
    work.location();
    send_all(phone.get(), size::location_answer);
    await();
    receive(phone.get()); // its end
}

void round_calls::run(const round_work &work)
{
    constexpr char go = 1;
    require(send(local_.get(), &go, sizeof go, MSG_NOSIGNAL) == sizeof go, "begin");
    await();
    receive(local_.get());
    epoll_event event{};
    (void)epoll_wait(epoll_.get(), &event, 1, 0); // velmd waits here before the push; we do not
    push(work);
    serve_phone(work);
    send_all(local_.get(), size::report);
}
