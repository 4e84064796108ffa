#include "cutils/common_netlink.h"

#include <arpa/inet.h>
#include <event2/event.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "async/common_async.h"
#include "fakes/captured_log.h"
#include "handles/fd.h"

namespace {

using byte_list = std::vector<std::uint8_t>;
using text_list = std::vector<std::string>;

/// What one call of recvfrom gives.
struct arrival {
    byte_list bytes;
    int error = 0;
    unsigned sender = 0;
    socklen_t sender_size = sizeof(sockaddr_nl);
};

/// The kernel, as far as the module sees it.
struct fake_kernel {
    std::array<unique_fd, 2> bell; // readable while something waits, like the socket
    std::deque<arrival> arrivals;
    text_list present; // "br0 192.168.1.1", the name may have a label
    int socket_domain = 0, socket_type = 0, socket_protocol = 0;
    int socket_error = 0, bind_error = 0, list_error = 0;
    int socket_file = -1; // given out in place of the bell
    sockaddr_nl bound{};
    std::size_t buffer_size = 0;
    int receive_flags = 0;
    int lists = 0;
};
fake_kernel kernel;

constexpr unsigned br0 = 7;
constexpr unsigned eth0 = 8;
constexpr unsigned gone = 9;

/// One entry of a list of addresses with all it points to.
struct listed {
    ifaddrs entry{};
    std::string name;
    sockaddr_in address{};
};
std::list<listed> list_given;

} // namespace

extern "C" {

int socket(int domain, int type, int protocol) noexcept
{
    kernel.socket_domain = domain;
    kernel.socket_type = type;
    kernel.socket_protocol = protocol;
    errno = kernel.socket_error;
    if (kernel.socket_error != 0) {
        return -1;
    }
    return dup(kernel.socket_file >= 0 ? kernel.socket_file : kernel.bell[0].get());
}

int bind(int, const sockaddr *address, socklen_t size) noexcept
{
    std::memcpy(&kernel.bound, address, std::min<std::size_t>(size, sizeof kernel.bound));
    errno = kernel.bind_error;
    return kernel.bind_error == 0 ? 0 : -1;
}

ssize_t recvfrom(int fd, void *buffer, std::size_t size, int flags, sockaddr *sender,
                 socklen_t *sender_size)
{
    kernel.buffer_size = size;
    kernel.receive_flags = flags;
    if (kernel.arrivals.empty()) {
        errno = EAGAIN;
        return -1;
    }
    char rung = 0;
    EXPECT_EQ(read(fd, &rung, 1), 1);
    const arrival got = kernel.arrivals.front();
    kernel.arrivals.pop_front();
    if (got.error != 0) {
        errno = got.error;
        return -1;
    }
    sockaddr_nl from{};
    from.nl_family = AF_NETLINK;
    from.nl_pid = got.sender;
    std::memcpy(sender, &from, std::min<std::size_t>(*sender_size, sizeof from));
    *sender_size = got.sender_size;
    const std::size_t length = std::min(size, got.bytes.size());
    std::copy_n(got.bytes.data(), length, static_cast<std::uint8_t *>(buffer));
    return static_cast<ssize_t>(length);
}

int getifaddrs(ifaddrs **first) noexcept
{
    ++kernel.lists;
    *first = nullptr;
    if (kernel.list_error != 0) {
        errno = kernel.list_error;
        return -1;
    }
    // An interface without an address and one with an address of another family.
    list_given.assign(2, {});
    static sockaddr other_family{AF_INET6, {}};
    list_given.back().entry.ifa_addr = &other_family;
    for (const std::string &text : kernel.present) {
        listed &made = list_given.emplace_back();
        const std::size_t blank = text.find(' ');
        made.name = text.substr(0, blank);
        made.address.sin_family = AF_INET;
        inet_pton(AF_INET, text.substr(blank + 1).c_str(), &made.address.sin_addr);
        made.entry.ifa_addr = reinterpret_cast<sockaddr *>(&made.address);
    }
    ifaddrs **link = first;
    for (listed &one : list_given) {
        one.entry.ifa_name = one.name.data();
        *link = &one.entry;
        link = &one.entry.ifa_next;
    }
    return 0;
}

void freeifaddrs(ifaddrs *) noexcept
{
    list_given.clear();
}

char *if_indextoname(unsigned index, char *name) noexcept
{
    if (index != br0 && index != eth0) {
        errno = ENXIO;
        return nullptr;
    }
    return std::strcpy(name, index == br0 ? "br0" : "eth0");
}

unsigned if_nametoindex(const char *name) noexcept
{
    const std::string text{name};
    return text == "br0" ? br0 : text == "eth0" ? eth0 : 0;
}

} // extern "C"

namespace {

// Datagrams, built as the kernel builds them.

template <typename T>
void append(byte_list &to, const T &value)
{
    const std::size_t at = to.size();
    to.resize(at + sizeof value);
    std::memcpy(&to[at], &value, sizeof value);
}

void pad(byte_list &to)
{
    to.resize((to.size() + 3) / 4 * 4);
}

byte_list operator+(byte_list left, const byte_list &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

byte_list attribute(unsigned short type, const byte_list &payload)
{
    byte_list made;
    append(made, rtattr{static_cast<unsigned short>(sizeof(rtattr) + payload.size()), type});
    made = made + payload;
    pad(made);
    return made;
}

byte_list ip(const std::string &text)
{
    byte_list made(4);
    inet_pton(AF_INET, text.c_str(), made.data());
    return made;
}

byte_list local(const std::string &text)
{
    return attribute(IFA_LOCAL, ip(text));
}

/// `length` is what the message says of itself; 0: the truth.
byte_list message(std::uint16_t type, const byte_list &content, std::uint32_t length = 0)
{
    nlmsghdr head{};
    head.nlmsg_len =
        length != 0 ? length : static_cast<std::uint32_t>(sizeof head + content.size());
    head.nlmsg_type = type;
    byte_list made;
    append(made, head);
    return made + content;
}

byte_list address_head(unsigned interface, std::uint8_t family = AF_INET)
{
    ifaddrmsg about{};
    about.ifa_family = family;
    about.ifa_index = interface;
    byte_list made;
    append(made, about);
    return made;
}

byte_list new_address(unsigned interface, const std::string &address)
{
    return message(RTM_NEWADDR,
                   address_head(interface) + attribute(IFA_ADDRESS, ip(address)) + local(address));
}

byte_list lost_address(unsigned interface, const std::string &address)
{
    return message(RTM_DELADDR, address_head(interface) + local(address));
}

text_list seen;
common_netlink_observer *observer_given;
void *user_data_given;

void note(const char *ifname, const char *address, void *user_data,
          common_netlink_observer *observer)
{
    seen.push_back(std::string{ifname} + ' ' + address);
    user_data_given = user_data;
    observer_given = observer;
}

class Netlink : public testing::Test {
  protected:
    Netlink()
    {
        kernel = {};
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        kernel.bell[0].reset(ends[0]);
        kernel.bell[1].reset(ends[1]);
        kernel.present = {"br0 192.168.1.1"};
        seen.clear();
        common_async_set_event_base(base);
        common_async_init();
        common_netlink_set_event_base(base);
    }

    static void observe()
    {
        common_netlink_observe(note, &seen);
    }

    static void arrive(arrival what)
    {
        kernel.arrivals.push_back(std::move(what));
        EXPECT_EQ(write(kernel.bell[1].get(), "!", 1), 1);
    }

    static void arrive(const byte_list &datagram)
    {
        arrive(arrival{datagram});
    }

    /// Turns the loop until it has nothing to do at once.
    static void settle()
    {
        for (int idle = 0; idle < 2; ++idle) {
            const std::size_t before = kernel.arrivals.size() + seen.size() * 1000000;
            event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
            if (before != kernel.arrivals.size() + seen.size() * 1000000) {
                idle = -1;
            }
        }
    }

    static text_list reported(const byte_list &datagram)
    {
        arrive(datagram);
        settle();
        return seen;
    }

    // Outlives the module's events, as in the daemon.
    static inline event_base *const base = event_base_new();
};

using NetlinkDeathTest = Netlink;

TEST_F(Netlink, OpensARouteSocketThatNeverBlocksAndThatNoCommandInherits)
{
    observe();
    EXPECT_EQ(kernel.socket_domain, AF_NETLINK);
    EXPECT_EQ(kernel.socket_type, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC);
    EXPECT_EQ(kernel.socket_protocol, NETLINK_ROUTE);
}

TEST_F(Netlink, JoinsTheGroupsOfLinksAndOfIpv4AddressesAtANumberOfTheKernels)
{
    observe();
    EXPECT_EQ(kernel.bound.nl_family, AF_NETLINK);
    EXPECT_EQ(kernel.bound.nl_pid, 0U);
    EXPECT_EQ(kernel.bound.nl_groups, 17U);
}

TEST_F(NetlinkDeathTest, WithoutASocketTheProcessEnds)
{
    const captured_log log;
    kernel.socket_error = EMFILE;
    EXPECT_DEATH(observe(), "ERROR common_netlink - common_netlink_observe: failed to open netlink "
                            "socket: Too many open files");
}

TEST_F(NetlinkDeathTest, ASocketThatCannotBeBoundEndsTheProcess)
{
    const captured_log log;
    kernel.bind_error = EPERM;
    EXPECT_DEATH(observe(),
                 "ERROR common_netlink - common_netlink_observe: call failed: "
                 "bind\\(fd, \\(struct sockaddr \\*\\)&local, sizeof\\(local\\)\\) result: -1 "
                 "loc: .*src/cutils/common_netlink.cpp:");
}

TEST_F(NetlinkDeathTest, WithoutAReadEventTheProcessEnds)
{
    const captured_log log;
    EXPECT_DEATH(
        {
            event_set_mem_functions([](std::size_t) -> void * { return nullptr; }, std::realloc,
                                    std::free);
            observe();
        },
        "ERROR common_netlink - common_netlink_observe: e is null: null reference");
}

TEST_F(NetlinkDeathTest, AReadEventThatCannotBeAddedEndsTheProcess)
{
    const captured_log log;
    // Nothing waits for a plain file.
    const unique_fd file{open("/proc/self/exe", O_RDONLY | O_CLOEXEC)};
    kernel.socket_file = file.get();
    EXPECT_DEATH(observe(),
                 "common_netlink_observe: call failed: event_add\\(e, NULL\\) result: -1 loc: "
                 ".*src/cutils/common_netlink.cpp:");
}

TEST_F(Netlink, ReadsADatagramOf8192BytesWithoutWaiting)
{
    observe();
    arrive(new_address(br0, "192.168.2.1"));
    settle();
    EXPECT_EQ(kernel.buffer_size, 8192U);
    EXPECT_EQ(kernel.receive_flags, MSG_DONTWAIT);
}

TEST_F(Netlink, ANewAddressReachesTheObserverWithItsInterface)
{
    observe();
    EXPECT_EQ(reported(new_address(br0, "192.168.2.1")), text_list{"br0 192.168.2.1"});
    EXPECT_EQ(user_data_given, &seen);
    EXPECT_NE(observer_given, nullptr);
}

TEST_F(Netlink, ANewAddressIsLogged)
{
    const captured_log log;
    observe();
    reported(new_address(eth0, "10.1.2.3"));
    EXPECT_EQ(log.lines(),
              (text_list{"TRACE common_netlink - netlink_cb - RTM_NEWADDR",
                         "TRACE common_netlink - netlink_cb - eth0 new ip: 10.1.2.3"}));
}

TEST_F(Netlink, TheLongestAddressIsReportedWhole)
{
    observe();
    EXPECT_EQ(reported(new_address(br0, "192.168.100.100")), text_list{"br0 192.168.100.100"});
}

TEST_F(Netlink, AnAddressThatWasThereBeforeIsNotReportedAtTheStart)
{
    observe();
    settle();
    EXPECT_TRUE(seen.empty());
}

TEST_F(Netlink, TheSameAddressIsReportedAsOftenAsTheKernelSaysIt)
{
    observe();
    reported(new_address(br0, "192.168.1.1"));
    EXPECT_EQ(reported(new_address(br0, "192.168.1.1")).size(), 2U);
}

TEST_F(Netlink, AnAddressOfAnInterfaceThatHasGoneHasAnEmptyName)
{
    observe();
    EXPECT_EQ(reported(new_address(gone, "10.0.0.1")), text_list{" 10.0.0.1"});
}

TEST_F(Netlink, NothingIsReportedFromInsideTheReading)
{
    observe();
    common_netlink_read_datagram(new_address(br0, "192.168.2.1"));
    EXPECT_TRUE(seen.empty());
    settle();
    EXPECT_EQ(seen.size(), 1U);
}

TEST_F(Netlink, WithoutACallbackAnAddressIsOnlyLogged)
{
    const captured_log log;
    common_netlink_observe(nullptr, nullptr);
    reported(new_address(br0, "192.168.2.1"));
    EXPECT_TRUE(log.has("TRACE common_netlink - netlink_cb - br0 new ip: 192.168.2.1"));
    EXPECT_TRUE(seen.empty());
}

TEST_F(Netlink, TwoLocalAddressesInOneMessageAreTwoReportsInTheirOrder)
{
    observe();
    EXPECT_EQ(reported(message(RTM_NEWADDR,
                               address_head(br0) + local("192.168.3.1") + local("192.168.2.1"))),
              (text_list{"br0 192.168.3.1", "br0 192.168.2.1"}));
}

TEST_F(Netlink, AllMessagesOfADatagramAreReadInTheirOrder)
{
    observe();
    EXPECT_EQ(reported(new_address(br0, "192.168.2.1") + new_address(eth0, "10.0.0.1") +
                       new_address(br0, "192.168.4.1")),
              (text_list{"br0 192.168.2.1", "eth0 10.0.0.1", "br0 192.168.4.1"}));
}

TEST_F(Netlink, TheFamilyOfTheAddressIsNotLookedAt)
{
    observe();
    EXPECT_EQ(
        reported(message(RTM_NEWADDR, address_head(br0, AF_INET6) + local("192.168.2.1"))).size(),
        1U);
}

TEST_F(Netlink, LinksThatComeAndGoAreLoggedAndNeverReachTheObserver)
{
    const captured_log log;
    observe();
    // What they carry looks like an address.
    const byte_list content = address_head(br0) + local("192.168.2.1");
    EXPECT_TRUE(reported(message(RTM_NEWLINK, content) + message(RTM_DELLINK, content)).empty());
    EXPECT_EQ(log.lines(), (text_list{"TRACE common_netlink - netlink_cb - RTM_NEWLINK",
                                      "TRACE common_netlink - netlink_cb - RTM_DELLINK"}));
}

TEST_F(Netlink, OtherMessagesAreSilentAndNeverReachTheObserver)
{
    const captured_log log;
    observe();
    const byte_list content = address_head(br0) + local("192.168.2.1");
    EXPECT_TRUE(reported(message(RTM_DELADDR, content) + message(NLMSG_DONE, content) +
                         message(NLMSG_ERROR, content) + message(RTM_NEWROUTE, content))
                    .empty());
    EXPECT_TRUE(log.lines().empty());
}

struct address_message_case {
    const char *name;
    byte_list content; // behind the message header
    text_list reports;
};
class AddressMessage : public Netlink, public testing::WithParamInterface<address_message_case> {};

TEST_P(AddressMessage, IsReadAsFarAsItsAttributesFit)
{
    observe();
    // The next message is read whatever this one holds.
    byte_list datagram = message(RTM_NEWADDR, GetParam().content);
    pad(datagram);
    text_list expected = GetParam().reports;
    expected.emplace_back("eth0 10.9.9.9");
    EXPECT_EQ(reported(datagram + new_address(eth0, "10.9.9.9")), expected);
}

byte_list raw_attribute(unsigned short length, unsigned short type, const byte_list &payload)
{
    byte_list made;
    append(made, rtattr{length, type});
    return made + payload;
}

const byte_list good = local("192.168.2.1");
const text_list good_report{"br0 192.168.2.1"};

INSTANTIATE_TEST_SUITE_P(
    Contents, AddressMessage,
    testing::Values(
        address_message_case{"Empty", {}, {}},
        address_message_case{"HeadCutByOne", byte_list(7), {}},
        address_message_case{"HeadOnly", address_head(br0), {}},
        address_message_case{"ThreeBytesOfAnAttribute", address_head(br0) + byte_list(3), {}},
        address_message_case{
            "OnlyTheOtherEnd", address_head(br0) + attribute(IFA_ADDRESS, ip("192.168.2.1")), {}},
        address_message_case{"LocalOfThreeBytes",
                             address_head(br0) + attribute(IFA_LOCAL, byte_list(3)) + good,
                             good_report},
        address_message_case{"LocalOfFiveBytes",
                             address_head(br0) + attribute(IFA_LOCAL, byte_list(5)) + good,
                             good_report},
        address_message_case{"LocalOfSixteenBytes",
                             address_head(br0) + attribute(IFA_LOCAL, byte_list(16)) + good,
                             good_report},
        address_message_case{"EmptyAttributeBefore",
                             address_head(br0) + attribute(IFA_LABEL, {}) + good, good_report},
        address_message_case{"PaddedAttributeBefore",
                             address_head(br0) + attribute(IFA_LABEL, byte_list(5)) + good,
                             good_report},
        address_message_case{"LengthThreeEndsTheWalk",
                             address_head(br0) + good + raw_attribute(3, IFA_LOCAL, {}) + good,
                             good_report},
        address_message_case{"LengthZeroEndsTheWalk",
                             address_head(br0) + good + raw_attribute(0, IFA_LOCAL, {}) + good,
                             good_report},
        address_message_case{"LengthThatJustFits",
                             address_head(br0) + raw_attribute(8, IFA_LOCAL, ip("192.168.2.1")),
                             good_report},
        address_message_case{"LengthBeyondTheMessage",
                             address_head(br0) + raw_attribute(9, IFA_LOCAL, ip("192.168.2.1")),
                             {}},
        address_message_case{"LengthIntoTheNextMessage",
                             address_head(br0) + raw_attribute(65535, IFA_LOCAL, {}),
                             {}},
        address_message_case{"LastAttributeWithoutItsPadding",
                             address_head(br0) + good + raw_attribute(5, IFA_LABEL, byte_list(1)),
                             good_report}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(Netlink, ATruncatedDatagramReportsTheMessagesBeforeAndLogsTheExtraBytes)
{
    const captured_log log;
    observe();
    byte_list datagram = new_address(br0, "192.168.2.1") + new_address(br0, "192.168.3.1");
    datagram.pop_back();
    EXPECT_EQ(reported(datagram), text_list{"br0 192.168.2.1"});
    EXPECT_TRUE(log.has(
        "DEBUG common_netlink - netlink_cb - 39 extra bytes in the end of netlink message"));
}

struct walk_case {
    const char *name;
    byte_list bytes; // behind a good message, before another
    int reports;
    const char *extra; // nullptr: no line
};
class Walk : public Netlink, public testing::WithParamInterface<walk_case> {};

TEST_P(Walk, EndsAtALengthThatCannotBe)
{
    const captured_log log;
    observe();
    const byte_list datagram =
        new_address(br0, "192.168.2.1") + GetParam().bytes + new_address(br0, "192.168.3.1");
    EXPECT_EQ(reported(datagram).size(), static_cast<std::size_t>(GetParam().reports));
    if (GetParam().extra == nullptr) {
        EXPECT_FALSE(log.contains("extra bytes"));
    } else {
        EXPECT_TRUE(log.has("DEBUG common_netlink - netlink_cb - " + std::string{GetParam().extra} +
                            " extra bytes in the end of netlink message"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Lengths, Walk,
    testing::Values(walk_case{"Fifteen", message(RTM_NEWLINK, {}, 15), 1, "56"},
                    walk_case{"Sixteen", message(RTM_NEWLINK, {}, 16), 2, nullptr},
                    walk_case{"One", message(RTM_NEWLINK, {}, 1), 1, "56"},
                    walk_case{"SeventeenIsRoundedUp", message(RTM_NEWLINK, byte_list(4), 17), 2,
                              nullptr},
                    walk_case{"AllThatRemains", message(RTM_NEWLINK, {}, 56), 1, nullptr},
                    walk_case{"OneMoreThanRemains", message(RTM_NEWLINK, {}, 57), 1, "56"},
                    walk_case{"TheLargest", message(RTM_NEWLINK, {}, 0xFFFFFFFF), 1, "56"}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(Netlink, FewerBytesThanAMessageHeadAtTheEndAreNotLookedAt)
{
    const captured_log log;
    observe();
    EXPECT_EQ(reported(new_address(br0, "192.168.2.1") + byte_list(15, 0xFF)).size(), 1U);
    EXPECT_FALSE(log.contains("extra bytes"));
}

TEST_F(Netlink, ALastMessageWithoutItsPaddingIsRead)
{
    observe();
    EXPECT_EQ(reported(message(RTM_NEWADDR, address_head(br0) + good +
                                                raw_attribute(6, IFA_LABEL, byte_list(2))))
                  .size(),
              1U);
}

TEST_F(Netlink, AMessageMayStandAtAnyAddress)
{
    observe();
    for (std::size_t shift = 0; shift < 4; ++shift) {
        const byte_list shifted = byte_list(shift) + new_address(br0, "192.168.2.1");
        common_netlink_read_datagram(std::span{shifted}.subspan(shift));
    }
    settle();
    EXPECT_EQ(seen, text_list(4, "br0 192.168.2.1"));
}

TEST_F(Netlink, AnyBytesAreSurvived)
{
    observe();
    std::mt19937 random{20260101};
    const byte_list sample = new_address(br0, "192.168.2.1") + new_address(eth0, "10.0.0.1") +
                             message(RTM_NEWLINK, byte_list(33));
    for (int round = 0; round < 20000; ++round) {
        // Of its very own size, so that an instrumented build sees every read beyond.
        byte_list bytes(sample.begin(),
                        sample.begin() + static_cast<long>(random() % (sample.size() + 1)));
        for (unsigned change = random() % 8; change > 0 && !bytes.empty(); --change) {
            bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
        }
        seen.clear();
        common_netlink_read_datagram(bytes);
        settle();
        ASSERT_LE(seen.size(), bytes.size() / sizeof(rtattr));
    }
}

struct error_case {
    const char *name;
    int error;
    const char *text; // nullptr: silent
};
class ReadError : public Netlink, public testing::WithParamInterface<error_case> {};

TEST_P(ReadError, IsLoggedUnlessReadingIsOnlyToBeTriedAgain)
{
    const captured_log log;
    observe();
    arrive(arrival{{}, GetParam().error});
    EXPECT_EQ(reported(new_address(br0, "192.168.2.1")).size(),
              GetParam().error == ENOBUFS ? 0 : 1);
    if (GetParam().text == nullptr) {
        EXPECT_FALSE(log.contains("recvfrom failed"));
    } else {
        EXPECT_TRUE(log.has("ERROR common_netlink - netlink_cb - recvfrom failed: " +
                            std::string{GetParam().text}));
    }
}

INSTANTIATE_TEST_SUITE_P(Errors, ReadError,
                         testing::Values(error_case{"Interrupted", EINTR, nullptr},
                                         error_case{"NothingThere", EAGAIN, nullptr},
                                         error_case{"NoMemory", ENOMEM, "Cannot allocate memory"},
                                         error_case{"Overrun", ENOBUFS,
                                                    "No buffer space available"}),
                         [](const auto &row) { return std::string{row.param.name}; });

TEST_F(Netlink, AnEmptyDatagramIsSilentAndTheNextIsRead)
{
    const captured_log log;
    observe();
    arrive(byte_list{});
    settle();
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(reported(new_address(br0, "192.168.2.1")).size(), 1U);
}

TEST_F(Netlink, WhatAnotherProcessSendsIsIgnored)
{
    const captured_log log;
    observe();
    arrive(arrival{new_address(br0, "192.168.2.1"), 0, 4711});
    settle();
    EXPECT_TRUE(seen.empty());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Netlink, ADatagramWithoutASendersNumberIsIgnored)
{
    observe();
    arrive(arrival{new_address(br0, "192.168.2.1"), 0, 0, 0});
    settle();
    EXPECT_TRUE(seen.empty());
}

// Bursts.

TEST_F(Netlink, WhileAsManyReportsWaitAsMayNothingMoreIsRead)
{
    observe();
    byte_list burst;
    for (unsigned i = 0; i < common_netlink_waiting_limit; ++i) {
        burst = burst + local("10.0." + std::to_string(i / 256) + '.' + std::to_string(i % 256));
    }
    arrive(message(RTM_NEWADDR, address_head(br0) + burst));
    arrive(new_address(br0, "192.168.2.1"));
    while (kernel.arrivals.size() > 1) {
        event_base_loop(base, EVLOOP_ONCE);
    }
    while (seen.size() + 1 < common_netlink_waiting_limit) {
        event_base_loop(base, EVLOOP_ONCE);
        ASSERT_EQ(kernel.arrivals.size(), 1U) << "read while " << seen.size() << " were delivered";
    }
    settle();
    EXPECT_EQ(seen.size(), common_netlink_waiting_limit + 1);
    EXPECT_EQ(seen.back(), "br0 192.168.2.1");
}

TEST_F(Netlink, WithOneReportLessThanMayWaitTheNextDatagramIsRead)
{
    observe();
    byte_list burst = address_head(br0);
    for (unsigned i = 0; i + 1 < common_netlink_waiting_limit; ++i) {
        burst = burst + local("10.0.0.1");
    }
    common_netlink_read_datagram(message(RTM_NEWADDR, burst));
    arrive(new_address(br0, "192.168.2.1"));
    event_base_loop(base, EVLOOP_ONCE);
    EXPECT_TRUE(kernel.arrivals.empty());
    EXPECT_LE(seen.size(), 1U);
    settle();
    EXPECT_EQ(seen.size(), common_netlink_waiting_limit);
}

// The kernel dropped messages.

TEST_F(Netlink, AfterLostMessagesAnAddressThatWasNotThereBeforeIsReported)
{
    observe();
    kernel.present = {"br0 192.168.1.1", "br0 192.168.2.1", "eth0 10.0.0.1"};
    arrive(arrival{{}, ENOBUFS});
    settle();
    EXPECT_EQ(seen, (text_list{"br0 192.168.2.1", "eth0 10.0.0.1"}));
}

TEST_F(Netlink, AfterLostMessagesAnAddressThatWasReportedBeforeIsNotReportedAgain)
{
    observe();
    reported(new_address(br0, "192.168.2.1"));
    kernel.present = {"br0 192.168.1.1", "br0 192.168.2.1"};
    seen.clear();
    arrive(arrival{{}, ENOBUFS});
    settle();
    EXPECT_TRUE(seen.empty());
}

TEST_F(Netlink, AfterLostMessagesAnAddressThatWentAndCameAgainIsReported)
{
    observe();
    reported(lost_address(br0, "192.168.1.1"));
    arrive(arrival{{}, ENOBUFS});
    settle();
    EXPECT_EQ(seen, text_list{"br0 192.168.1.1"});
}

TEST_F(Netlink, AfterTwoLossesAnAddressThatWasAwayAtTheFirstIsReported)
{
    observe();
    kernel.present = {};
    arrive(arrival{{}, ENOBUFS});
    settle();
    kernel.present = {"br0 192.168.1.1"};
    arrive(arrival{{}, ENOBUFS});
    settle();
    EXPECT_EQ(seen, text_list{"br0 192.168.1.1"});
}

TEST_F(Netlink, MessagesOlderThanTheAddressesReadAgainAreThrownAway)
{
    observe();
    kernel.present = {"br0 192.168.3.1"};
    arrive(arrival{{}, ENOBUFS});
    arrive(new_address(br0, "192.168.2.1"));
    arrive(arrival{{}, EINTR});
    arrive(new_address(br0, "192.168.3.1"));
    settle();
    EXPECT_EQ(seen, text_list{"br0 192.168.3.1"});
    EXPECT_EQ(reported(new_address(br0, "192.168.4.1")).back(), "br0 192.168.4.1");
}

TEST_F(Netlink, MessagesThatHaveNoEndAreThrownAwayAPartATurn)
{
    observe();
    kernel.present = {"br0 192.168.3.1"};
    const int before = kernel.lists;
    arrive(arrival{{}, ENOBUFS});
    for (int i = 0; i < 5000; ++i) {
        arrive(new_address(br0, "192.168.2.1"));
    }
    event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
    EXPECT_EQ(kernel.arrivals.size(), 5000U - 4096U);
    EXPECT_EQ(kernel.lists, before) << "what it reads is older than what still comes";
    settle();
    EXPECT_EQ(seen, text_list{"br0 192.168.3.1"});
}

TEST_F(Netlink, AnAddressWithALabelCountsToItsInterface)
{
    observe();
    kernel.present = {"br0:guest 192.168.2.1"};
    arrive(arrival{{}, ENOBUFS});
    settle();
    EXPECT_EQ(seen, text_list{"br0 192.168.2.1"});
}

TEST_F(Netlink, AddressesReadAgainNeverWaitInLargerNumberEither)
{
    observe();
    kernel.present.clear();
    for (unsigned i = 0; i < 3 * common_netlink_waiting_limit; ++i) {
        kernel.present.push_back("br0 10.0." + std::to_string(i / 256) + '.' +
                                 std::to_string(i % 256));
    }
    kernel.lists = 0;
    arrive(arrival{{}, ENOBUFS});
    settle();
    EXPECT_EQ(seen, kernel.present);
    EXPECT_EQ(kernel.lists, 3);
    EXPECT_EQ(reported(new_address(br0, "192.168.2.1")).back(), "br0 192.168.2.1");
}

TEST_F(Netlink, MessagesLostWhileReportsWaitAreMadeUpForBehindThem)
{
    observe();
    common_netlink_read_datagram(message(RTM_NEWADDR, address_head(br0) + local("10.0.0.1") +
                                                          local("10.0.0.2") + local("10.0.0.3")));
    kernel.present = {"br0 192.168.2.1"};
    arrive(arrival{{}, ENOBUFS});
    settle();
    EXPECT_EQ(seen, (text_list{"br0 10.0.0.1", "br0 10.0.0.2", "br0 10.0.0.3", "br0 192.168.2.1"}));
}

TEST_F(Netlink, AddressesThatCannotBeReadAgainAreTriedASecondLater)
{
    const captured_log log;
    observe();
    kernel.present = {"br0 192.168.2.1"};
    kernel.list_error = EMFILE;
    arrive(arrival{{}, ENOBUFS});
    settle();
    EXPECT_TRUE(
        log.has("ERROR common_netlink - read_addresses - getifaddrs failed: Too many open files"));
    kernel.list_error = 0;
    while (seen.empty()) {
        event_base_loop(base, EVLOOP_ONCE); // ends: the timer is all it waits for
    }
    EXPECT_EQ(seen, text_list{"br0 192.168.2.1"});
}

TEST_F(Netlink, TheMemoryOfWhatWasReportedIsBounded)
{
    observe();
    for (unsigned i = 0; i < 5000; ++i) {
        common_netlink_read_datagram(
            new_address(br0, "10.1." + std::to_string(i / 256) + '.' + std::to_string(i % 256)));
        settle();
    }
    // Beyond what is remembered nothing can be told from what is new, so nothing is reported.
    for (unsigned i = 0; i < 5000; ++i) {
        kernel.present.push_back("br0 10.1." + std::to_string(i / 256) + '.' +
                                 std::to_string(i % 256));
    }
    seen.clear();
    arrive(arrival{{}, ENOBUFS});
    settle();
    EXPECT_TRUE(seen.empty());
}

// Losses.

class NetlinkLosses : public Netlink {
  protected:
    NetlinkLosses()
    {
        common_netlink_observe_losses(
            [](const char *address) { seen.push_back(address == nullptr ? "lost" : address); });
    }
    ~NetlinkLosses() override
    {
        common_netlink_observe_losses(nullptr);
    }
};

TEST_F(NetlinkLosses, AnAddressThatWentIsReportedInOrderWithThoseThatCame)
{
    observe();
    common_netlink_read_datagram(new_address(br0, "192.168.2.1") +
                                 lost_address(br0, "192.168.2.1") +
                                 new_address(br0, "192.168.3.1"));
    EXPECT_TRUE(seen.empty()); // never from inside the reading
    settle();
    EXPECT_EQ(seen, (text_list{"br0 192.168.2.1", "192.168.2.1", "br0 192.168.3.1"}));
}

TEST_F(NetlinkLosses, ThatOfAnInterfaceThatHasGoneIsReportedToo)
{
    observe();
    EXPECT_EQ(reported(lost_address(gone, "192.168.1.1")), text_list{"192.168.1.1"});
}

TEST_F(NetlinkLosses, LostMessagesAreReportedBehindWhatIsNew)
{
    observe();
    kernel.present = {"br0 192.168.2.1"};
    arrive(arrival{{}, ENOBUFS});
    settle();
    EXPECT_EQ(seen, (text_list{"br0 192.168.2.1", "lost"}));
}

TEST_F(NetlinkLosses, WaitInNoLargerNumberThanOtherReports)
{
    observe();
    byte_list burst;
    for (unsigned i = 0; i < common_netlink_waiting_limit; ++i) {
        burst = burst + local("10.0.0.1");
    }
    arrive(message(RTM_DELADDR, address_head(br0) + burst));
    arrive(new_address(br0, "192.168.2.1"));
    while (kernel.arrivals.size() > 1) {
        event_base_loop(base, EVLOOP_ONCE);
    }
    while (seen.size() + 1 < common_netlink_waiting_limit) {
        event_base_loop(base, EVLOOP_ONCE);
        ASSERT_EQ(kernel.arrivals.size(), 1U) << "read while " << seen.size() << " were delivered";
    }
    settle();
    EXPECT_EQ(seen.back(), "br0 192.168.2.1");
}

TEST_F(NetlinkLosses, ThatWaitWhenTheCallbackIsTakenAwayAreNotReported)
{
    observe();
    kernel.present = {"br0 192.168.2.1"};
    common_netlink_read_datagram(lost_address(br0, "192.168.1.1"));
    common_netlink_observe_losses(nullptr);
    settle();
    EXPECT_TRUE(seen.empty());
}

TEST_F(NetlinkLosses, WithoutACallbackAreNotReported)
{
    common_netlink_observe_losses(nullptr);
    observe();
    EXPECT_TRUE(reported(lost_address(br0, "192.168.1.1")).empty());
}

} // namespace
