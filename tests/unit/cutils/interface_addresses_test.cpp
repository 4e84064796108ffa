#include "cutils/interface_addresses.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cerrno>
#include <list>
#include <string>
#include <vector>

#include "fakes/captured_log.h"

namespace {

struct row {
    std::string name, address, mask;
    unsigned flags = 0;
};

struct listed {
    ifaddrs entry{};
    row text;
    sockaddr_in address{}, mask{};
};

std::vector<row> rows;
std::list<listed> given;
int list_error;

sockaddr_in socket_address(const std::string &text)
{
    sockaddr_in made{};
    made.sin_family = AF_INET;
    inet_pton(AF_INET, text.c_str(), &made.sin_addr);
    return made;
}

} // namespace

extern "C" {

int getifaddrs(ifaddrs **first) noexcept
{
    errno = list_error;
    given.clear();
    given.emplace_back(); // an interface without an address
    ifaddrs **link = &given.back().entry.ifa_next;
    *first = &given.back().entry;
    for (const row &one : rows) {
        listed &made = given.emplace_back();
        made.text = one;
        made.address = socket_address(one.address);
        made.mask = socket_address(one.mask);
        made.entry.ifa_name = made.text.name.data();
        made.entry.ifa_flags = one.flags;
        made.entry.ifa_addr = reinterpret_cast<sockaddr *>(&made.address);
        made.entry.ifa_netmask = reinterpret_cast<sockaddr *>(&made.mask);
        *link = &made.entry;
        link = &made.entry.ifa_next;
    }
    return list_error == 0 ? 0 : -1;
}

void freeifaddrs(ifaddrs *) noexcept
{
}

unsigned if_nametoindex(const char *name) noexcept
{
    const std::string text{name};
    return text == "lo" ? 1 : text == "br0" ? 7 : text == "wan0" ? 8 : 0;
}

} // extern "C"

namespace {

class InterfaceAddresses : public testing::Test {
  protected:
    InterfaceAddresses()
    {
        list_error = 0;
        rows = {{"lo", "127.0.0.1", "255.0.0.0", IFF_LOOPBACK},
                {"wan0", "192.168.1.1", "255.255.255.255"},
                {"br0", "192.168.1.1", "255.255.255.0"},
                {"br0:guest", "192.168.2.1", "255.255.255.0"},
                {"br00", "192.168.3.1", "255.255.255.0"}};
    }
};

TEST_F(InterfaceAddresses, OfOneComeInTheKernelsOrderThoseWithALabelToo)
{
    EXPECT_EQ(interface_addresses_of("br0"),
              (std::vector<std::string>{"192.168.1.1", "192.168.2.1"}));
    EXPECT_EQ(interface_addresses_of("br1"), std::vector<std::string>{});
}

TEST_F(InterfaceAddresses, OfSeveralInterfacesThePreferredOneHasTheAddress)
{
    EXPECT_EQ(interface_with_address("192.168.1.1", "br0"), 7U);
    EXPECT_EQ(interface_with_address("192.168.1.1", "wan0"), 8U);
    EXPECT_EQ(interface_with_address("192.168.1.1", "eth7"), 8U);
    EXPECT_EQ(interface_with_address("192.168.2.1", "wan0"), 7U);
}

TEST_F(InterfaceAddresses, TheLoopbackInterfaceHasItsWholeNetworkAndNoOtherHas)
{
    EXPECT_EQ(interface_with_address("127.0.0.2", "br0"), 1U);
    EXPECT_EQ(interface_with_address("192.168.2.2", "br0"), 0U);
}

TEST_F(InterfaceAddresses, WhatIsNoAddressNobodyHas)
{
    EXPECT_EQ(interface_with_address("", "br0"), 0U);
    EXPECT_EQ(interface_with_address("br0", "br0"), 0U);
}

TEST_F(InterfaceAddresses, ThatCannotBeReadAreNotTakenForNone)
{
    const captured_log log;
    list_error = EMFILE;
    EXPECT_EQ(interface_addresses_of("br0"), std::nullopt);
    EXPECT_EQ(interface_addresses_read(), std::nullopt);
    EXPECT_EQ(interface_with_address("192.168.1.1", "br0"), 0U);
    EXPECT_TRUE(
        log.has("ERROR common_netlink - read_addresses - getifaddrs failed: Too many open files"));
}

} // namespace
