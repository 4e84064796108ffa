#include "velm_main.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "async/common_async.h"
#include "fakes/captured_log.h"
#include "velm_http_server.h"
#include "velm_location_policy_ipc.h"
#include "velm_ssdp_server.h"

namespace {

std::vector<std::string> calls;
common_async_callback queued;

} // namespace

int common_async_action_call(common_async_callback callback, void *)
{
    calls.emplace_back("queue");
    queued = callback;
    return 0;
}

void velm_http_server_set_event_base(event_base *)
{
    calls.emplace_back("http base");
}
void velm_http_server_init(const velm_config *)
{
    calls.emplace_back("http init");
}
void velm_http_server_stop()
{
    calls.emplace_back("http stop");
}
void http_server_start()
{
    calls.emplace_back("http start");
}
void velm_ssdp_server_set_event_base(event_base *)
{
    calls.emplace_back("ssdp base");
}
void velm_ssdp_server_init(const velm_config *)
{
    calls.emplace_back("ssdp init");
}
void ssdp_server_start()
{
    calls.emplace_back("ssdp start");
}
void ssdp_server_stop()
{
    calls.emplace_back("ssdp stop");
}
void velm_location_policy_ipc_set_event_base(event_base *)
{
    calls.emplace_back("ipc base");
}
void velm_location_policy_ipc_init(const velm_config *)
{
    calls.emplace_back("ipc init");
}
void location_policy_ipc_start()
{
    calls.emplace_back("ipc start");
}
void location_policy_ipc_stop()
{
    calls.emplace_back("ipc stop");
}

namespace {

using call_list = std::vector<std::string>;

class Main : public testing::Test {
  protected:
    Main()
    {
        velm_config_copy_text(config.lan_name, sizeof config.lan_name, "br0");
        velm_config_copy_text(config.lan_ip_address, sizeof config.lan_ip_address, "192.168.1.1");
        velm_main_init(&config);
        calls.clear();
    }

    velm_config config{};
};

TEST_F(Main, TheBaseIsHandedToTheServersInOrder)
{
    velm_main_set_event_base(nullptr);
    EXPECT_EQ(calls, (call_list{"http base", "ssdp base", "ipc base"}));
}

TEST_F(Main, TheServersAreInitialisedInOrder)
{
    const captured_log log;
    velm_main_init(&config);
    EXPECT_EQ(calls, (call_list{"http init", "ssdp init", "ipc init"}));
    EXPECT_TRUE(log.has("TRACE velm_main - velm_main_init"));
}

TEST_F(Main, TheServersStartFromAQueuedActionNotFromTheCallersStack)
{
    velm_main_start();
    EXPECT_EQ(calls, call_list{"queue"});
    queued(nullptr, 0, nullptr);
    EXPECT_EQ(calls, (call_list{"queue", "http start", "ssdp start", "ipc start"}));
}

TEST_F(Main, ANewAddressOnTheLanBridgeRestartsTheServersWithItInTheRecord)
{
    netlink_ip_address_changed("br0", "192.168.2.1");
    EXPECT_STREQ(config.lan_ip_address, "192.168.2.1");
    EXPECT_EQ(calls, (call_list{"http stop", "ssdp stop", "ipc stop", "http init", "ssdp init",
                                "ipc init", "queue"}));
}

TEST_F(Main, OfSeveralAddressesTheFirstIsTheOneInUse)
{
    velm_config_copy_text(config.lan_ip_address, sizeof config.lan_ip_address,
                          "192.168.1.1\n192.168.2.1");
    netlink_ip_address_changed("br0", "192.168.1.1");
    EXPECT_TRUE(calls.empty());
    netlink_ip_address_changed("br0", "192.168.2.1");
    EXPECT_STREQ(config.lan_ip_address, "192.168.2.1");
    EXPECT_FALSE(calls.empty());
}

struct address_case {
    const char *name, *ifname, *address;
};
class OtherAddress : public Main, public testing::WithParamInterface<address_case> {};

TEST_P(OtherAddress, ChangesNothing)
{
    netlink_ip_address_changed(GetParam().ifname, GetParam().address);
    EXPECT_STREQ(config.lan_ip_address, "192.168.1.1");
    EXPECT_TRUE(calls.empty());
}

INSTANTIATE_TEST_SUITE_P(Events, OtherAddress,
                         testing::Values(address_case{"OtherInterface", "eth0", "192.168.2.1"},
                                         address_case{"PrefixOfTheInterface", "br", "192.168.2.1"},
                                         address_case{"LongerInterface", "br01", "192.168.2.1"},
                                         address_case{"SameAddress", "br0", "192.168.1.1"},
                                         address_case{"EmptyInterface", "", "192.168.2.1"},
                                         address_case{"EmptyAddress", "br0", ""},
                                         address_case{"NullInterface", nullptr, "192.168.2.1"},
                                         address_case{"NullAddress", "br0", nullptr}),
                         [](const auto &row) { return std::string{row.param.name}; });

TEST_F(Main, AnAddressEventIsLoggedWithItsMissingTextsAsQuestionMarks)
{
    const captured_log log;
    netlink_ip_address_changed(nullptr, nullptr);
    netlink_ip_address_changed("eth0", "10.0.0.1");
    EXPECT_TRUE(log.has("TRACE main - netlink_ip_address_changed - ? new ip: ?"));
    EXPECT_TRUE(log.has("TRACE main - netlink_ip_address_changed - eth0 new ip: 10.0.0.1"));
}

} // namespace
