#include "velm_sys_params.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/fake_nvram.h"
#include "handles/handle.h"
#include "launch/common_launch.h"

namespace {

/// What stands in for running a command.
struct launch_fake {
    std::vector<std::string> commands;
    int result = 0;
    int status = 0;
    std::string output = "192.168.1.1\n";
};
launch_fake launched;

} // namespace

common_launched common_launch_begin(const char *command)
{
    launched.commands.emplace_back(command);
    return {nullptr, 0};
}

int common_launch_end(common_launched command, int *status, std::string *output)
{
    if (command.error != 0) {
        return command.error;
    }
    *status = launched.status;
    *output = launched.output;
    return launched.result;
}

namespace {

class SysParams : public testing::Test {
  protected:
    SysParams()
    {
        fake_nvram = {};
        launched = {};
    }

    static std::string bssids()
    {
        return json_text{cJSON_PrintUnformatted(sys_bssids().get())}.get();
    }

    captured_log log;
};

class LanBridge : public SysParams {
  protected:
    LanBridge()
    {
        fake_nvram.values["lan0_ifnames"] = "eth0 eth1";
        fake_nvram.values["lan0_ifname"] = "br0";
    }

    static void expect_no_address(const captured_log &log)
    {
        EXPECT_EQ(get_ipv4_address_wlif(), std::nullopt);
        EXPECT_TRUE(log.has("ERROR velm_sys_params - get_ipv4_address_wlif - failed to get IP "
                            "address for wl0"));
    }
};

TEST_F(LanBridge, TheAddressIsThatOfTheBridgeThatHoldsTheFirstRadio)
{
    fake_nvram.values["lan3_ifnames"] = "eth2 wl0 wl1";
    fake_nvram.values["lan3_ifname"] = "br3";
    EXPECT_EQ(get_ipv4_address_wlif(), "192.168.1.1");
    const std::string command =
        R"(ip -f inet addr show br3 | sed -En -e 's/.*inet ([0-9.]+).*/\1/p')";
    EXPECT_EQ(launched.commands, std::vector<std::string>{command});
    EXPECT_TRUE(
        log.has("TRACE velm_sys_params - get_ipv4_address_wlif - running command: " + command));
    EXPECT_TRUE(log.contains(" - brindex[3], br_name=br3"));
    EXPECT_EQ(get_lanif_name_wlif(), "br3");
}

TEST_F(LanBridge, TheFirstOfTwoCounts)
{
    fake_nvram.values["lan5_ifnames"] = "wl0";
    fake_nvram.values["lan5_ifname"] = "br5";
    fake_nvram.values["lan2_ifnames"] = "wl0";
    fake_nvram.values["lan2_ifname"] = "br2";
    EXPECT_EQ(get_lanif_name_wlif(), "br2");
}

TEST_F(LanBridge, MustHoldExactlyTheFirstRadiosPrimaryInterface)
{
    fake_nvram.values["lan1_ifnames"] = "wl0.1 wl00 WL0 xwl0 wl";
    fake_nvram.values["lan1_ifname"] = "br1";
    EXPECT_EQ(get_lanif_name_wlif(), std::nullopt);
    expect_no_address(log);
    EXPECT_TRUE(launched.commands.empty());
}

TEST_F(LanBridge, IsSoughtFrom0To15)
{
    fake_nvram.values["lan16_ifnames"] = "wl0";
    fake_nvram.values["lan16_ifname"] = "br16";
    EXPECT_EQ(get_lanif_name_wlif(), std::nullopt);
    fake_nvram.values["lan15_ifnames"] = "wl0";
    fake_nvram.values["lan15_ifname"] = "br15";
    EXPECT_EQ(get_lanif_name_wlif(), "br15");
}

TEST_F(LanBridge, WithoutANameGivesNoAddress)
{
    fake_nvram.values["lan1_ifnames"] = "wl0";
    EXPECT_EQ(get_lanif_name_wlif(), std::nullopt);
    EXPECT_TRUE(log.contains(" - brindex[1], br_name=(null)"));
    expect_no_address(log);
    EXPECT_TRUE(launched.commands.empty());
}

struct bridge_name_case {
    const char *name, *bridge;
    bool accepted;
};
class BridgeName : public LanBridge, public testing::WithParamInterface<bridge_name_case> {};

TEST_P(BridgeName, MustBeAnInterfaceNameToEnterACommand)
{
    fake_nvram.values["lan0_ifnames"] = "wl0";
    fake_nvram.values["lan0_ifname"] = GetParam().bridge;
    if (GetParam().accepted) {
        EXPECT_EQ(get_ipv4_address_wlif(), "192.168.1.1");
        EXPECT_EQ(launched.commands.size(), 1u);
    } else {
        expect_no_address(log);
        EXPECT_TRUE(launched.commands.empty());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Names, BridgeName,
    testing::Values(
        bridge_name_case{"Ordinary", "br0", true},
        bridge_name_case{"AllKindsOfCharacters", "aZ_9.1:2-3", true},
        bridge_name_case{"Fifteen", "abcdefghijklmno", true},
        bridge_name_case{"Sixteen", "abcdefghijklmnop", false},
        bridge_name_case{"Empty", "", false}, bridge_name_case{"Dot", ".", false},
        bridge_name_case{"DotDot", "..", false}, bridge_name_case{"DotDotDot", "...", true},
        bridge_name_case{"AnOption", "-br0", false}, bridge_name_case{"ABlank", "br 0", false},
        bridge_name_case{"ANewline", "br0\n", false},
        bridge_name_case{"ACommand", "br0;reboot", false},
        bridge_name_case{"ASubstitution", "$(reboot)", false},
        bridge_name_case{"ASlash", "a/b", false}, bridge_name_case{"NoAscii", "br\xc3\xa4", false}),
    [](const auto &row) { return std::string{row.param.name}; });

struct answer_case {
    const char *name;
    int result, status;
    const char *output;
    std::optional<std::string> address;
};
class LanAddress : public LanBridge, public testing::WithParamInterface<answer_case> {};

TEST_P(LanAddress, IsTheCommandsOutputWithoutItsLastNewline)
{
    fake_nvram.values["lan0_ifnames"] = "wl0";
    launched.result = GetParam().result;
    launched.status = GetParam().status;
    launched.output = GetParam().output;
    if (GetParam().address) {
        EXPECT_EQ(get_ipv4_address_wlif(), GetParam().address);
    } else {
        expect_no_address(log);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Answers, LanAddress,
    testing::Values(answer_case{"One", 0, 0, "10.0.0.1\n", "10.0.0.1"},
                    answer_case{"Several", 0, 0, "10.0.0.1\n10.0.0.2\n", "10.0.0.1\n10.0.0.2"},
                    answer_case{"NoNewline", 0, 0, "10.0.0.1", std::nullopt},
                    answer_case{"Nothing", 0, 0, "", std::nullopt},
                    answer_case{"CommandFailed", 0, 256, "10.0.0.1\n", std::nullopt},
                    answer_case{"LaunchFailed", -3, 0, "10.0.0.1\n", std::nullopt}),
    [](const auto &row) { return std::string{row.param.name}; });

/// Runs a command in a shell in which `ip` prints this text.
std::string run_with_ip_answer(const std::string &answer, const std::string &command)
{
    const handle<std::FILE, pclose> pipe{
        popen(("ip() { echo '" + answer + "'; }\n" + command).c_str(), "re")};
    std::string output(1000, '\0');
    output.resize(std::fread(output.data(), 1, output.size(), pipe.get()));
    return output;
}

TEST_F(LanBridge, TheCommandPicksTheAddressesOutOfTheAnswerOfIp)
{
    fake_nvram.values["lan0_ifnames"] = "wl0";
    ASSERT_TRUE(get_ipv4_address_wlif());
    const std::string answer =
        "7: br0: <BROADCAST,MULTICAST,UP,LOWER_UP> mtu 1500 qdisc noqueue state UP\n"
        "    inet 192.168.1.1/24 brd 192.168.1.255 scope global br0\n"
        "       valid_lft forever preferred_lft forever\n"
        "    inet 10.1.2.3/8 scope global secondary br0:1\n";
    EXPECT_EQ(run_with_ip_answer(answer, launched.commands.at(0)), "192.168.1.1\n10.1.2.3\n");
}

TEST_F(SysParams, WithoutRadiosTheListIsEmpty)
{
    EXPECT_EQ(bssids(), "[]");
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(SysParams, BssidsComeInRadioThenInterfaceOrderAsTheyAre)
{
    fake_nvram.values = {{"wl_radio_num", "2"},   {"wl0_maxssid", "3"},   {"wl0_hwaddr", "AA:b0"},
                         {"wl0.1_hwaddr", "a1"},  {"wl0.2_hwaddr", ""},   {"wl1_maxssid", "1"},
                         {"wl1_hwaddr", "b0"},    {"wl1.1_hwaddr", "b1"}, {"wl2_maxssid", "1"},
                         {"wl2_hwaddr", "beyond"}};
    EXPECT_EQ(bssids(), R"(["AA:b0","a1","","b0"])");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "TRACE velm_sys_params - get_bssids_for_radio - wl0 bssid is AA:b0",
                               "TRACE velm_sys_params - get_bssids_for_radio - wl0.1 bssid is a1",
                               "TRACE velm_sys_params - get_bssids_for_radio - wl0.2 bssid is ",
                               "TRACE velm_sys_params - get_bssids_for_radio - wl1 bssid is b0"}));
}

TEST_F(SysParams, AbsentVirtualInterfacesLeaveNoEntry)
{
    fake_nvram.values = {{"wl_radio_num", "2"}, {"wl0_maxssid", "1"}, {"wl0_hwaddr", "a0"},
                         {"wl1_maxssid", "4"},  {"wl1_hwaddr", "b0"}, {"wl1.2_hwaddr", "b2"}};
    EXPECT_EQ(bssids(), R"(["a0","b0","b2"])");
}

TEST_F(SysParams, ARadioWithoutSsidCountOrAddressIsSkipped)
{
    fake_nvram.values = {{"wl_radio_num", "3"},  {"wl0_hwaddr", "a0"}, {"wl1_maxssid", "2"},
                         {"wl1.1_hwaddr", "b1"}, {"wl2_maxssid", "1"}, {"wl2_hwaddr", "c0"}};
    EXPECT_EQ(bssids(), R"(["c0"])");
    EXPECT_TRUE(log.has(
        "ERROR velm_sys_params - get_bssids_for_radio - failed to get max ssid num for wl0"));
    EXPECT_TRUE(
        log.has("ERROR velm_sys_params - get_bssids_for_radio - failed to get hwaddr for wl1"));
}

TEST_F(SysParams, AnEmptyPrimaryAddressCountsAsAbsent)
{
    fake_nvram.values = {{"wl_radio_num", "2"},  {"wl0_maxssid", "2"}, {"wl0_hwaddr", ""},
                         {"wl0.1_hwaddr", "a1"}, {"wl1_maxssid", "1"}, {"wl1_hwaddr", "b0"}};
    EXPECT_EQ(bssids(), R"(["b0"])");
    EXPECT_TRUE(
        log.has("ERROR velm_sys_params - get_bssids_for_radio - failed to get hwaddr for wl0"));
    EXPECT_EQ(sys_mac_address(), std::nullopt);
}

TEST_F(LanBridge, WithoutItThereIsNoCommandWhichTheAskerCanTell)
{
    EXPECT_EQ(get_ipv4_address_wlif_begin().error, no_lan_bridge);
    fake_nvram.values["lan0_ifnames"] = "wl0";
    EXPECT_EQ(get_ipv4_address_wlif_begin().error, 0);
}

TEST_F(SysParams, ACountThatIsNoNumberIsZero)
{
    fake_nvram.values = {{"wl_radio_num", "many"}, {"wl0_maxssid", "1"}, {"wl0_hwaddr", "a0"}};
    EXPECT_EQ(bssids(), "[]");
    fake_nvram.values["wl_radio_num"] = "1";
    fake_nvram.values["wl0_maxssid"] = "many";
    fake_nvram.values["wl0.1_hwaddr"] = "a1";
    EXPECT_EQ(bssids(), R"(["a0"])");
}

TEST_F(SysParams, ANegativeCountIsZero)
{
    fake_nvram.values = {
        {"wl_radio_num", "-4294967295"}, {"wl0_maxssid", "1"}, {"wl0_hwaddr", "a"}};
    EXPECT_EQ(bssids(), "[]");
}

TEST_F(SysParams, RadiosBeyond32AreNotRead)
{
    fake_nvram.values["wl_radio_num"] = "99999999999999999999";
    for (const char *radio : {"wl31", "wl32"}) {
        fake_nvram.values[std::string{radio} + "_maxssid"] = "1";
        fake_nvram.values[std::string{radio} + "_hwaddr"] = radio;
    }
    EXPECT_EQ(bssids(), R"(["wl31"])");
}

TEST_F(SysParams, SsidsBeyond64AreNotRead)
{
    fake_nvram.values = {{"wl_radio_num", "1"},
                         {"wl0_maxssid", "1000"},
                         {"wl0_hwaddr", "a0"},
                         {"wl0.63_hwaddr", "a63"},
                         {"wl0.64_hwaddr", "a64"}};
    EXPECT_EQ(bssids(), R"(["a0","a63"])");
}

TEST_F(SysParams, SerialNumberAndMacAddressAreThePlatforms)
{
    EXPECT_EQ(sys_serial_number(), std::nullopt);
    EXPECT_EQ(sys_mac_address(), std::nullopt);
    fake_nvram.values = {{"ap_serial_number", "SN-1"}, {"wl0_hwaddr", "00:11:22:33:44:55"}};
    EXPECT_EQ(sys_serial_number(), "SN-1");
    EXPECT_EQ(sys_mac_address(), "00:11:22:33:44:55");
}

TEST_F(SysParams, EachBssidHasTheNameOfItsSettingAndSoHasOneThatIsMissing)
{
    fake_nvram.values = {{"wl_radio_num", "3"},  {"wl0_maxssid", "3"}, {"wl0_hwaddr", "a0"},
                         {"wl0.2_hwaddr", "a2"}, {"wl1_maxssid", "1"}, {"wl1_hwaddr", ""}};
    std::string all;
    for (const sys_bssid &bssid : sys_bssid_settings()) {
        all += bssid.setting + '=' + bssid.value.value_or("none") + ' ';
    }
    EXPECT_EQ(all, "wl0_hwaddr=a0 wl0.2_hwaddr=a2 wl1_hwaddr=none wl2_maxssid=none ");
}

TEST_F(SysParams, TheLanBridgeHasTheNameOfItsSetting)
{
    EXPECT_FALSE(sys_find_lan_bridge().has_value());
    fake_nvram.values = {{"lan3_ifnames", "eth0 wl0"}};
    EXPECT_EQ(sys_find_lan_bridge()->setting, "lan3_ifname");
    EXPECT_EQ(sys_find_lan_bridge()->name, std::nullopt);
    fake_nvram.values["lan3_ifname"] = "br3";
    EXPECT_EQ(sys_find_lan_bridge()->name, "br3");
}

} // namespace
