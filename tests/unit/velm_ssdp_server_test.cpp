#include "velm_ssdp_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/emulated.h"
#include "fakes/fake_clock.h"
#include "fakes/ipc_peer.h"
#include "fakes/no_descriptors.h"
#include "handles/fd.h"
#include "handles/libevent.h"

namespace {

constexpr char group[] = "239.255.255.250";
const std::string search = "M-SEARCH * HTTP/1.1\r\n"
                           "HOST: 239.255.255.250:1900\r\n"
                           "MAN: \"ssdp:discover\"\r\n"
                           "MX: 1\r\n"
                           "ST: urn:schemas-upnp-org:device:velmd:1\r\n\r\n";

sockaddr_in address_of(const std::string &ip, std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
    return address;
}

sockaddr *general(sockaddr_in &address)
{
    return reinterpret_cast<sockaddr *>(&address);
}

/// A port that was free a moment ago.
std::uint16_t free_port()
{
    const unique_fd socket{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    sockaddr_in address = address_of("0.0.0.0", 0);
    socklen_t size = sizeof address;
    if (bind(socket.get(), general(address), sizeof address) != 0 ||
        getsockname(socket.get(), general(address), &size) != 0) {
        std::abort();
    }
    return ntohs(address.sin_port);
}

struct answer {
    std::string text;
    std::string from;
};

/// A phone on the loopback interface.
class searcher {
  public:
    searcher() : socket_{::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)}
    {
        sockaddr_in address = address_of("127.0.0.1", 0);
        const in_addr interface = address.sin_addr;
        EXPECT_EQ(bind(socket_.get(), general(address), sizeof address), 0);
        EXPECT_EQ(
            setsockopt(socket_.get(), IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface),
            0);
    }

    void send(const std::string &to, std::uint16_t port, const std::string &datagram) const
    {
        sockaddr_in address = address_of(to, port);
        ASSERT_EQ(sendto(socket_.get(), datagram.data(), datagram.size(), 0, general(address),
                         sizeof address),
                  static_cast<ssize_t>(datagram.size()))
            << std::strerror(errno);
    }

    [[nodiscard]] std::optional<answer> receive() const
    {
        std::array<char, 2048> text{};
        sockaddr_in sender{};
        socklen_t size = sizeof sender;
        const ssize_t length =
            recvfrom(socket_.get(), text.data(), text.size(), 0, general(sender), &size);
        if (length < 0) {
            return std::nullopt;
        }
        std::array<char, INET_ADDRSTRLEN> from{};
        inet_ntop(AF_INET, &sender.sin_addr, from.data(), from.size());
        return answer{{text.data(), static_cast<std::size_t>(length)},
                      std::string{from.data()} + ":" + std::to_string(ntohs(sender.sin_port))};
    }

  private:
    unique_fd socket_;
};

std::vector<event *> events_of(event_base *base)
{
    std::vector<event *> found;
    event_base_foreach_event(
        base,
        [](const event_base *, const event *one, void *list) {
            static_cast<std::vector<event *> *>(list)->push_back(const_cast<event *>(one));
            return 0;
        },
        &found);
    return found;
}

class SsdpServer : public testing::Test {
  protected:
    SsdpServer()
    {
        setenv("TZ", "UTC", 1);
        fake_clock_set(1700000000);
        set_address("127.0.0.1");
        velm_config_copy_text(config.mac_address, sizeof config.mac_address, "00:1A:2b:3c:4D:5e");
        config.http_server_port = 8443;
        config.ssdp_server_port = free_port();
        velm_ssdp_server_set_event_base(base.get());
        velm_ssdp_server_init(&config);
    }
    ~SsdpServer() override
    {
        ssdp_server_stop();
        fake_clock_reset();
        unsetenv("TZ");
    }

    void set_address(const std::string &address)
    {
        velm_config_copy_text(config.lan_ip_address, sizeof config.lan_ip_address, address.c_str());
    }

    void ask(const std::string &datagram = search, const std::string &to = "127.0.0.1") const
    {
        phone.send(to, config.ssdp_server_port, datagram);
    }

    std::optional<answer> wait_answer()
    {
        std::optional<answer> found;
        ipc_turn_until(base.get(), [&] { return (found = phone.receive()).has_value(); });
        return found;
    }

    /// The answer to what was sent last is the first one: nothing before it was answered.
    void expect_no_answer_before(const std::string &datagram)
    {
        ask(datagram);
        fake_clock_advance(1);
        ipc_turn(base.get());
        EXPECT_FALSE(phone.receive().has_value());
        ask();
        EXPECT_TRUE(wait_answer().has_value());
        EXPECT_FALSE(phone.receive().has_value());
    }

    [[nodiscard]] int server_socket() const
    {
        const std::vector<event *> events = events_of(base.get());
        return events.empty() ? -1 : event_get_fd(events.front());
    }

    template <typename T>
    [[nodiscard]] T option(int level, int name) const
    {
        T value{};
        socklen_t size = sizeof value;
        EXPECT_EQ(getsockopt(server_socket(), level, name, &value, &size), 0);
        return value;
    }

    static std::string reply(const std::string &time = "2023-11-14.22:13:20",
                             const std::string &address = "127.0.0.1")
    {
        return "HTTP/1.1 200 OK\r\nDATE: " + time + "\r\nLOCATION: https://" + address +
               ":8443/info\r\nSERVER: VELMD\r\nST: urn:schemas-upnp-org:device:velmd:1\r\n"
               "USN: uuid:5c085b95-b4a7-45fa-b6f3-001a2b3c4d5e::"
               "urn:schemas-upnp-org:device:velmd:1\r\n\r\n";
    }

    velm_config config{};
    const event_base_ptr base{event_base_new()};
    const searcher phone;
};

TEST_F(SsdpServer, AMulticastSearchIsAnsweredToItsSender)
{
    ssdp_server_start();
    ask(search, group);
    const std::optional<answer> found = wait_answer();
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->text, reply());
    EXPECT_EQ(found->from, "127.0.0.1:" + std::to_string(config.ssdp_server_port));
}

TEST_F(SsdpServer, AUnicastSearchIsAnsweredToo)
{
    ssdp_server_start();
    ask();
    const std::optional<answer> found = wait_answer();
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->text, reply());
}

TEST_F(SsdpServer, EachSearchIsAnsweredOnce)
{
    ssdp_server_start();
    ask();
    ask();
    EXPECT_TRUE(wait_answer().has_value());
    EXPECT_TRUE(wait_answer().has_value());
    ipc_turn(base.get());
    EXPECT_FALSE(phone.receive().has_value());
}

TEST_F(SsdpServer, TheTimeOfAnAnswerIsThePresentOne)
{
    ssdp_server_start();
    ask();
    EXPECT_EQ(wait_answer().value().text, reply());
    fake_clock_advance(1);
    ask();
    EXPECT_EQ(wait_answer().value().text, reply("2023-11-14.22:13:21"));
    fake_clock_advance(-2);
    ask();
    EXPECT_EQ(wait_answer().value().text, reply("2023-11-14.22:13:19"));
}

struct ignored_case {
    const char *name;
    std::string datagram;
};
class Ignored : public SsdpServer, public testing::WithParamInterface<ignored_case> {};

TEST_P(Ignored, GetsNoAnswerAndTheNextSearchGetsOne)
{
    ssdp_server_start();
    expect_no_answer_before(GetParam().datagram);
}

INSTANTIATE_TEST_SUITE_P(
    Datagrams, Ignored,
    testing::Values(ignored_case{"Empty", ""}, ignored_case{"OneTerminator", std::string(1, '\0')},
                    ignored_case{"Everything", "M-SEARCH * HTTP/1.1\r\nST: ssdp:all\r\n\r\n"},
                    ignored_case{"LowerCase", "m-search * http/1.1\r\nST: "
                                              "urn:schemas-upnp-org:device:velmd:1\r\n\r\n"},
                    ignored_case{"CutInTheTarget", search.substr(0, search.size() - 6)},
                    ignored_case{"LongestPossible", std::string(65507, 'x')},
                    ignored_case{"LongestWithARequestLine",
                                 "M-SEARCH * HTTP/1.1\r\n" + std::string(65507 - 21, '\n')}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(SsdpServer, TheTargetIsComparedWithoutCase)
{
    ssdp_server_start();
    ask("M-SEARCH * HTTP/1.1\r\nst: URN:SCHEMAS-UPNP-ORG:DEVICE:VELMD:1\r\n\r\n");
    EXPECT_EQ(wait_answer().value().text, reply());
}

TEST_F(SsdpServer, TheLongestDatagramIsReadWhole)
{
    ssdp_server_start();
    const std::string target = "\r\nST: urn:schemas-upnp-org:device:velmd:1";
    const std::string head = "M-SEARCH * HTTP/1.1\r\nX: ";
    ask(head + std::string(65507 - head.size() - target.size(), 'x') + target);
    EXPECT_EQ(wait_answer().value().text, reply());
}

TEST_F(SsdpServer, WhatALongDatagramLeftInTheBufferIsNotReadWithTheNextOne)
{
    ssdp_server_start();
    ask();
    EXPECT_TRUE(wait_answer().has_value());
    const std::size_t target = search.find("ST:");
    expect_no_answer_before(search.substr(0, target));
}

TEST_F(SsdpServer, ThirtyTwoSearchesAtOnceAreAnsweredInOneTurn)
{
    ssdp_server_start();
    for (int i = 0; i < 32; ++i) {
        ask();
    }
    event_base_loop(base.get(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
    int answered = 0;
    while (phone.receive()) {
        ++answered;
    }
    EXPECT_EQ(answered, 32);
}

TEST_F(SsdpServer, ManyAtOnceAfterManyAloneAreAnsweredInAFewTurns)
{
    ssdp_server_start();
    for (int i = 0; i < 21; ++i) {
        ask();
        ASSERT_TRUE(wait_answer().has_value());
    }
    for (int i = 0; i < 32; ++i) {
        ask();
    }
    for (int turn = 0; turn < 8; ++turn) {
        event_base_loop(base.get(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
    }
    int answered = 0;
    while (phone.receive()) {
        ++answered;
    }
    EXPECT_EQ(answered, 32);
}

TEST_F(SsdpServer, AFloodLeavesTurnsToTheOthers)
{
    ssdp_server_start();
    for (int i = 0; i < 100; ++i) {
        ask();
    }
    event_base_loop(base.get(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
    int answered = 0;
    while (phone.receive()) {
        ++answered;
    }
    EXPECT_GT(answered, 32);
    EXPECT_LT(answered, 64);
    for (; answered < 100; ++answered) {
        ASSERT_TRUE(wait_answer().has_value());
    }
}

TEST_F(SsdpServer, OneDatagramOfTheLongestIsATurnsWork)
{
    ssdp_server_start();
    ask(std::string(65507, 'x'));
    ask();
    event_base_loop(base.get(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
    EXPECT_FALSE(phone.receive().has_value());
    EXPECT_TRUE(wait_answer().has_value());
}

TEST_F(SsdpServer, PortZeroMeansNoServer)
{
    config.ssdp_server_port = 0;
    const captured_log log;
    ssdp_server_start();
    EXPECT_EQ(log.lines(), std::vector<std::string>{"INFO velm_ssdp_server - ssdp_server_start - "
                                                    "port is not configured"});
    EXPECT_EQ(server_socket(), -1);
}

TEST_F(SsdpServer, AStartSaysPortIdentityAndGroup)
{
    const captured_log log;
    ssdp_server_start();
    const std::string prefix = "velm_ssdp_server - ";
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "INFO " + prefix + "ssdp_server_start - ssdp server starting on port " +
                      std::to_string(config.ssdp_server_port),
                  "INFO " + prefix +
                      "ssdp_server_start - ssdp server uuid: 5c085b95-b4a7-45fa-b6f3-001a2b3c4d5e",
                  "DEBUG " + prefix + "prepare_socket - adding to multicast group 239.255.255.250",
                  "DEBUG " + prefix + "prepare_socket - on interface 127.0.0.1"}));
}

TEST_F(SsdpServer, InitialisingIsTraced)
{
    const captured_log log;
    velm_ssdp_server_init(&config);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"TRACE velm_ssdp_server - velm_ssdp_server_init"});
}

TEST_F(SsdpServer, AMacAddressThatDoesNotParseIsLoggedAndThereIsNoServer)
{
    for (const char *mac : {"", "00:1a:2b:3c:4d", "nonsense"}) {
        velm_config_copy_text(config.mac_address, sizeof config.mac_address, mac);
        const captured_log log;
        ssdp_server_start();
        EXPECT_TRUE(log.has("ERROR velm_ssdp_server - ssdp_server_start - cannot prepare uuid "
                            "with " +
                            std::string{mac}));
        EXPECT_TRUE(log.has("ERROR velm_ssdp_server - ssdp_server_start - cannot set uuid"));
        EXPECT_EQ(server_socket(), -1);
    }
}

struct address_case {
    const char *name, *address;
};
class NotJoined : public SsdpServer, public testing::WithParamInterface<address_case> {};

TEST_P(NotJoined, IsLoggedAndNobodyIsAnswered)
{
    set_address(GetParam().address);
    const captured_log log;
    ssdp_server_start();
    EXPECT_TRUE(log.contains("ERROR velm_ssdp_server - prepare_socket - cannot join multicast "
                             "group: No such device"));
    EXPECT_TRUE(log.contains("ERROR velm_ssdp_server - prepare_socket - cannot set multicast "
                             "interface: "));
    ask();
    ipc_turn(base.get());
    EXPECT_FALSE(phone.receive().has_value());
}

INSTANTIATE_TEST_SUITE_P(Addresses, NotJoined,
                         testing::Values(address_case{"NobodysAddress", "203.0.113.77"},
                                         address_case{"NoAddress", ""},
                                         address_case{"Nonsense", "br0"}),
                         [](const auto &row) { return std::string{row.param.name}; });

/// Its address is nobody's when it starts.
class WaitingForItsAddress : public SsdpServer {
  protected:
    WaitingForItsAddress()
    {
        set_address("203.0.113.77");
        ssdp_server_start();
    }
    [[nodiscard]] bool has_timer() const
    {
        const std::vector<event *> events = events_of(base.get());
        return std::any_of(events.begin(), events.end(),
                           [](const event *one) { return event_get_fd(one) < 0; });
    }
    [[nodiscard]] bool is_answered(const std::string &to)
    {
        ask(search, to);
        ipc_turn(base.get());
        return phone.receive().has_value();
    }
    captured_log log;
};

TEST_F(WaitingForItsAddress, ItTriesAgainAndSaysSoOnce)
{
    EXPECT_TRUE(has_timer());
    ipc_turn_until(base.get(), [this] {
        return log.count("DEBUG velm_ssdp_server - join_again - adding to multicast group") >= 3;
    });
    EXPECT_EQ(log.count("ERROR"), 2); // the group and the interface, both at the start
    EXPECT_FALSE(is_answered("127.0.0.1"));
}

TEST_F(WaitingForItsAddress, ItJoinsByItselfWhenTheAddressIsThere)
{
    set_address("127.0.0.1"); // as if an interface had got the one that is waited for
    ipc_turn_until(base.get(), [this] { return !has_timer(); });
    EXPECT_TRUE(is_answered(group));
}

TEST_F(WaitingForItsAddress, ItJoinsAtTheAnnouncement)
{
    set_address("127.0.0.1");
    velm_ssdp_server_address_came("127.0.0.9");
    EXPECT_TRUE(has_timer());
    velm_ssdp_server_address_came("127.0.0.1");
    EXPECT_FALSE(has_timer());
    EXPECT_TRUE(is_answered(group));
}

TEST_F(WaitingForItsAddress, AStopEndsTheWaiting)
{
    ssdp_server_stop();
    EXPECT_FALSE(has_timer());
    velm_ssdp_server_address_came(nullptr);
    EXPECT_FALSE(has_timer());
}

TEST_F(SsdpServer, AnyNumberOfAnnouncementsLeavesOneMembership)
{
    if (is_emulated() && sizeof(long) == 8) { // which it takes the number of the interface for
        GTEST_SKIP() << "the emulator loses the interface of a membership, so none can be left";
    }
    ssdp_server_start();
    const captured_log log;
    for (int i = 0; i < 100; ++i) { // the kernel refuses the 21st group of a socket
        velm_ssdp_server_address_came(i % 2 == 0 ? nullptr : "127.0.0.1");
    }
    EXPECT_FALSE(log.contains("cannot join"));
    ask(search, group);
    EXPECT_TRUE(wait_answer().has_value());
    EXPECT_FALSE(phone.receive().has_value());
}

TEST_F(SsdpServer, OfSeveralAddressesTheFirstLineIsJoinedAndAnsweredWith)
{
    set_address("127.0.0.1\n203.0.113.77");
    const captured_log log;
    ssdp_server_start();
    EXPECT_TRUE(log.has("DEBUG velm_ssdp_server - prepare_socket - on interface 127.0.0.1"));
    EXPECT_FALSE(log.contains("cannot join"));
    ask();
    EXPECT_EQ(wait_answer().value().text, reply());
}

TEST_F(SsdpServer, AfterAnAddressChangeTheAnswerNamesTheNewAddress)
{
    ssdp_server_start();
    ask();
    EXPECT_EQ(wait_answer().value().text, reply());
    set_address("127.0.0.2");
    ssdp_server_stop();
    velm_ssdp_server_init(&config);
    ssdp_server_start();
    ask();
    EXPECT_EQ(wait_answer().value().text, reply("2023-11-14.22:13:20", "127.0.0.2"));
}

TEST_F(SsdpServer, AStartEndsTheServerThatRuns)
{
    ssdp_server_start();
    const captured_log log;
    ssdp_server_start();
    EXPECT_EQ(log.lines().front(), "INFO velm_ssdp_server - ssdp_server_stop");
    EXPECT_EQ(events_of(base.get()).size(), 1U);
    ask();
    EXPECT_EQ(wait_answer().value().text, reply());
}

TEST_F(SsdpServer, AStopClosesTheSocketAndRemovesTheEvent)
{
    ssdp_server_start();
    const int socket = server_socket();
    ASSERT_GE(socket, 0);
    const captured_log log;
    ssdp_server_stop();
    EXPECT_EQ(log.lines(), std::vector<std::string>{"INFO velm_ssdp_server - ssdp_server_stop"});
    EXPECT_EQ(server_socket(), -1);
    EXPECT_EQ(fcntl(socket, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(SsdpServer, AStopWithoutAServerIsHarmless)
{
    ssdp_server_stop();
    ssdp_server_stop();
    EXPECT_EQ(server_socket(), -1);
}

TEST_F(SsdpServer, TheSocketNeverBlocksAndIsNotInherited)
{
    ssdp_server_start();
    EXPECT_NE(fcntl(server_socket(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(server_socket(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(SsdpServer, TheSocketIsBoundToAnyAddressAndSendsOnTheLan)
{
    ssdp_server_start();
    sockaddr_in bound{};
    socklen_t size = sizeof bound;
    ASSERT_EQ(getsockname(server_socket(), general(bound), &size), 0);
    EXPECT_EQ(bound.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(ntohs(bound.sin_port), config.ssdp_server_port);
    EXPECT_NE(option<int>(SOL_SOCKET, SO_REUSEADDR), 0);
    if (is_emulated()) {
        GTEST_SKIP() << "the emulator tells no multicast options";
    }
    EXPECT_EQ(option<in_addr>(IPPROTO_IP, IP_MULTICAST_IF).s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(option<int>(IPPROTO_IP, IP_MULTICAST_ALL), 0);
}

TEST_F(SsdpServer, ThePortIsSharedWithOthersThatShareIt)
{
    const unique_fd other{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    const int on = 1;
    ASSERT_EQ(setsockopt(other.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
    sockaddr_in address = address_of("0.0.0.0", config.ssdp_server_port);
    ASSERT_EQ(bind(other.get(), general(address), sizeof address), 0);
    ssdp_server_start();
    ask(search, group);
    EXPECT_EQ(wait_answer().value().text, reply());
}

TEST_F(SsdpServer, APortThatCannotBeBoundIsFatal)
{
    const unique_fd other{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    sockaddr_in address = address_of("0.0.0.0", config.ssdp_server_port);
    ASSERT_EQ(bind(other.get(), general(address), sizeof address), 0);
    const captured_log log;
    EXPECT_DEATH(ssdp_server_start(),
                 "prepare_socket: call failed: bind\\(fd, \\(struct sockaddr\\*\\) &addr, "
                 "sizeof\\(addr\\)\\) result: -1 loc: .*src/velm_ssdp_server.cpp:");
}

TEST_F(SsdpServer, WithoutADescriptorForTheSocketThereIsNoServer)
{
    const captured_log log;
    {
        const no_descriptors none;
        ssdp_server_start();
    }
    EXPECT_TRUE(log.has("ERROR velm_ssdp_server - prepare_socket: failed to create socket: Too "
                        "many open files"));
    EXPECT_EQ(server_socket(), -1);
}

TEST_F(SsdpServer, AnEventOtherThanReadableIsLoggedAndIgnored)
{
    ssdp_server_start();
    const captured_log log;
    event_active(events_of(base.get()).front(), EV_TIMEOUT, 0);
    event_base_loop(base.get(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
    EXPECT_TRUE(log.has("DEBUG velm_ssdp_server - SSDP handler received status other that read: "
                        "1, ignoring"));
}

TEST_F(SsdpServer, AnAnswerThatCannotBeSentIsLogged)
{
    ssdp_server_start();
    // Sending on a socket that was shut down fails, receiving what already waits does not.
    ask();
    sockaddr_in peer = address_of("127.0.0.1", 9);
    ASSERT_EQ(connect(server_socket(), general(peer), sizeof peer), 0);
    ASSERT_EQ(shutdown(server_socket(), SHUT_WR), 0);
    const captured_log log;
    ipc_turn(base.get());
    EXPECT_TRUE(log.has("WARN velm_ssdp_server - failed to send response to M-SEARCH packet"));
}

/// The server receives from everybody and can send to nobody.
class UnsentAnswers : public SsdpServer {
  protected:
    UnsentAnswers()
    {
        fake_clock_set(start);
        ssdp_server_start();
        sockaddr_in peer = address_of("127.0.0.1", 9);
        EXPECT_EQ(connect(server_socket(), general(peer), sizeof peer), 0);
        EXPECT_EQ(shutdown(server_socket(), SHUT_WR), 0);
        sockaddr nobody{};
        nobody.sa_family = AF_UNSPEC;
        EXPECT_EQ(connect(server_socket(), &nobody, sizeof nobody), 0);
    }
    ~UnsentAnswers() override
    {
        fake_clock_reset();
    }

    void ask_in_vain(int times)
    {
        for (int i = 0; i < times; ++i) {
            ask();
            ipc_turn(base.get());
        }
    }

    static constexpr std::time_t start = 1'700'000'000;
    static constexpr char line[] =
        "WARN velm_ssdp_server - failed to send response to M-SEARCH packet";
    captured_log log;
};

TEST_F(UnsentAnswers, AreToldOnceInAMinute)
{
    ask_in_vain(5);
    fake_clock_set(start + 59);
    ask_in_vain(5);
    EXPECT_EQ(log.count(line), 1);
    fake_clock_set(start + 60);
    ask_in_vain(5);
    EXPECT_EQ(log.count(line), 2);
}

TEST_F(UnsentAnswers, ThatWereNotToldAreCounted)
{
    ask_in_vain(10);
    EXPECT_FALSE(log.contains("more have failed"));
    fake_clock_set(start + 60);
    ask_in_vain(1);
    EXPECT_TRUE(log.has("WARN velm_ssdp_server - tell_of_unsent_reply - 9 more have failed since "
                        "this was said last"));
    fake_clock_set(start + 120);
    ask_in_vain(1);
    EXPECT_EQ(log.count("more have failed"), 1);
}

TEST_F(UnsentAnswers, AreToldAtOnceWhenTheClockHasBeenSetBack)
{
    ask_in_vain(1);
    fake_clock_set(start - 1000);
    ask_in_vain(1);
    EXPECT_EQ(log.count(line), 2);
}

TEST_F(SsdpServer, ASocketThatCannotBeReadIsLogged)
{
    ssdp_server_start();
    const unique_fd unreadable{open("/dev/null", O_WRONLY | O_CLOEXEC)};
    ASSERT_GE(dup2(unreadable.get(), server_socket()), 0);
    const captured_log log;
    event_active(events_of(base.get()).front(), EV_READ, 0);
    event_base_loop(base.get(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
    EXPECT_TRUE(log.has("ERROR velm_ssdp_server - handle_datagram - recvfrom failed: Socket "
                        "operation on non-socket"));
}

TEST_F(SsdpServer, ANullConfigurationIsFatal)
{
    const captured_log log;
    EXPECT_DEATH(velm_ssdp_server_init(nullptr),
                 "velm_ssdp_server_init: config is null: null reference");
}

} // namespace
