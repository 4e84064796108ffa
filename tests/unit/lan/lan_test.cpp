#include "lan/lan.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "cutils/interface_addresses.h"
#include "fakes/captured_log.h"
#include "velm_http_server.h"
#include "velm_main.h"
#include "velm_ssdp_server.h"

namespace {

using text_list = std::vector<std::string>;

std::map<std::string, text_list> interfaces;
bool is_readable = true;
text_list calls;

} // namespace

std::optional<text_list> interface_addresses_of(const char *ifname)
{
    return is_readable ? std::optional{interfaces[ifname]} : std::nullopt;
}

void netlink_ip_address_changed(const char *ifname, const char *address)
{
    calls.push_back(std::string{ifname} + " changed " + address);
}

void velm_http_server_address_came()
{
    calls.emplace_back("http");
}

void velm_ssdp_server_address_came(const char *address)
{
    calls.push_back(std::string{"ssdp "} + (address == nullptr ? "any" : address));
}

namespace {

class VelmLan : public testing::Test {
  protected:
    VelmLan()
    {
        interfaces = {{"br0", {"192.168.1.1"}}, {"wan0", {"198.51.100.2"}}};
        is_readable = true;
        velm_config_copy_text(config.lan_name, sizeof config.lan_name, "br0");
        use("192.168.1.1");
        velm_lan_settle(&config, true);
        calls.clear();
    }

    void use(const char *address)
    {
        velm_config_copy_text(config.lan_ip_address, sizeof config.lan_ip_address, address);
    }

    static text_list came(const char *ifname, const char *address)
    {
        velm_lan_address_came(ifname, address, nullptr, nullptr);
        return calls;
    }

    static text_list went(const char *address)
    {
        velm_lan_address_went(address);
        return calls;
    }

    velm_config config{};
    captured_log log;
};

TEST_F(VelmLan, SettlesOnTheFirstAddressOfTheBridgeWhenItHasNotTheOneInUse)
{
    interfaces["br0"] = {"192.168.2.1", "192.168.3.1"};
    velm_lan_settle(&config, true);
    EXPECT_STREQ(config.lan_ip_address, "192.168.2.1");
    EXPECT_TRUE(calls.empty());
    EXPECT_TRUE(log.has("INFO velm_lan - address_to_move_to - br0 has no 192.168.1.1, but "
                        "192.168.2.1"));
}

struct settle_case {
    const char *name;
    text_list present;
    const char *in_use;
    bool platform_has_bridge, readable;
};
class Settled : public VelmLan, public testing::WithParamInterface<settle_case> {};

TEST_P(Settled, ChangesNothing)
{
    interfaces["br0"] = GetParam().present;
    is_readable = GetParam().readable;
    use(GetParam().in_use);
    velm_lan_settle(&config, GetParam().platform_has_bridge);
    EXPECT_STREQ(config.lan_ip_address, GetParam().in_use);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Settled,
    testing::Values(
        settle_case{"OnTheBridge", {"192.168.2.1", "192.168.1.1"}, "192.168.1.1", true, true},
        settle_case{"FirstOfSeveral", {"192.168.1.1"}, "192.168.1.1\n192.168.9.9", true, true},
        settle_case{"BridgeWithoutAddress", {}, "192.168.1.1", true, true},
        settle_case{"NoBridgeOfThePlatform", {"192.168.2.1"}, "10.0.0.1", false, true},
        settle_case{"Unreadable", {"192.168.2.1"}, "192.168.1.1", true, false}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(VelmLan, AnAddressThatTheBridgeStillHasIsPassedOnAndTheServersAreTold)
{
    interfaces["br0"] = {"192.168.1.1", "192.168.2.1"};
    EXPECT_EQ(came("br0", "192.168.2.1"),
              (text_list{"br0 changed 192.168.2.1", "http", "ssdp 192.168.2.1"}));
}

TEST_F(VelmLan, AnAddressThatHasGoneAgainIsLeftOut)
{
    EXPECT_TRUE(came("br0", "192.168.2.1").empty());
    EXPECT_TRUE(log.has("DEBUG velm_lan - velm_lan_address_came - br0 has lost 192.168.2.1 again"));
}

TEST_F(VelmLan, AnAnnouncementIsBelievedWhenTheAddressesCannotBeRead)
{
    is_readable = false;
    EXPECT_EQ(came("br0", "192.168.2.1").size(), 3U);
}

TEST_F(VelmLan, AnotherInterfacesAddressIsPassedOnUnasked)
{
    EXPECT_EQ(came("wan0", "198.51.100.77").front(), "wan0 changed 198.51.100.77");
    EXPECT_EQ(came("", "198.51.100.77").size(), 6U);
}

TEST_F(VelmLan, WhenTheAddressInUseGoesTheServersMoveToTheFirstThatIsLeft)
{
    use("192.168.1.1\n192.168.2.1");
    interfaces["br0"] = {"192.168.2.1", "192.168.3.1"};
    EXPECT_EQ(went("192.168.1.1"), text_list{"br0 changed 192.168.2.1"});
}

TEST_F(VelmLan, WhenTheLastAddressGoesTheyStay)
{
    interfaces["br0"] = {};
    EXPECT_TRUE(went("192.168.1.1").empty());
}

TEST_F(VelmLan, WhenTheAddressInUseIsBackAlreadyTheyStay)
{
    EXPECT_TRUE(went("192.168.1.1").empty());
}

TEST_F(VelmLan, AnotherAddressThatGoesMovesNothing)
{
    interfaces["br0"] = {"192.168.3.1"};
    EXPECT_TRUE(went("192.168.2.1").empty());
}

TEST_F(VelmLan, AfterLostMessagesTheyMoveWhenTheAddressInUseHasGone)
{
    interfaces["br0"] = {"192.168.3.1"};
    EXPECT_EQ(went(nullptr), (text_list{"br0 changed 192.168.3.1", "http", "ssdp any"}));
}

TEST_F(VelmLan, AfterLostMessagesTheyStayWhereTheBridgeStillIs)
{
    EXPECT_EQ(went(nullptr), (text_list{"http", "ssdp any"}));
}

TEST_F(VelmLan, AfterLostMessagesTheyStayWhereTheCommandLinePutThem)
{
    velm_lan_settle(&config, false);
    interfaces["br0"] = {"192.168.3.1"};
    EXPECT_EQ(went(nullptr), (text_list{"http", "ssdp any"}));
}

} // namespace
