#include "check/nvram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "fakes/fake_nvram.h"
#include "found.h"
#include "velm_config.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// An access point of one radio, whose LAN is the loopback interface.
class Nvram : public testing::Test {
  protected:
    Nvram()
    {
        fake_nvram = {};
        fake_nvram.values = {{"wl_radio_num", "1"},
                             {"wl0_maxssid", "2"},
                             {"wl0_hwaddr", "02:00:00:00:00:01"},
                             {"wl0.1_hwaddr", "02:00:00:00:00:02"},
                             {"lan0_ifnames", "eth0 wl0"},
                             {"lan0_ifname", "lo"}};
        velm_config_set_defaults(&subject_.config);
    }

    std::vector<std::string> found_with(const std::string &name, const std::string &value,
                                        bool has_lan_address = false)
    {
        fake_nvram.values[name] = value;
        check_findings findings;
        check_nvram(subject_, has_lan_address, &findings);
        return found(std::move(findings));
    }

    check_subject subject_;
};

TEST_F(Nvram, ThatFitsIsNotMentioned)
{
    EXPECT_THAT(found_with("zelkad_http_server_port", "8443"), IsEmpty());
    EXPECT_THAT(found_with("zelkad_http_server_cert", std::string(255, '/')), IsEmpty());
    EXPECT_THAT(found_with("zelkad_debug_level", "Info"), IsEmpty());
}

TEST_F(Nvram, AnEmptySettingCountsAsAbsent)
{
    EXPECT_THAT(found_with("zelkad_http_server_port", ""), IsEmpty());
    EXPECT_THAT(found_with("zelkad_mode", ""), IsEmpty());
    EXPECT_THAT(found_with("ap_vendor", ""), IsEmpty());
    EXPECT_THAT(found_with("zelkad_debug_level", ""), IsEmpty());
}

TEST_F(Nvram, ANumberThatIsIgnoredIsTold)
{
    for (const char *number : {"0", "65536", "-1", "8443 ", "x", "000000000000000000001"}) {
        EXPECT_THAT(found_with("zelkad_http_server_port", number),
                    ElementsAre("nvram zelkad_http_server_port: \"" + std::string{number} +
                                "\" is no number from 1 to 65535: it is ignored"));
    }
}

TEST_F(Nvram, ATextThatIsIgnoredIsTold)
{
    EXPECT_THAT(found_with("ap_vendor", std::string(50, 'v')),
                ElementsAre("nvram ap_vendor: 50 characters, more than 49: it is ignored"));
}

TEST_F(Nvram, TheSwitchAndTheLevelAreLookedAt)
{
    EXPECT_THAT(found_with("zelkad_mode", "0"),
                ElementsAre("nvram zelkad_mode: warning: with 0 the daemon does not start"));
    EXPECT_THAT(
        found_with("zelkad_mode", "x"),
        ElementsAre("nvram zelkad_mode: \"x\" is no number from 0 to 65535: it is ignored"));
    EXPECT_THAT(found_with("zelkad_mode", "1"), IsEmpty());
    EXPECT_THAT(
        found_with("zelkad_debug_level", "all"),
        ElementsAre("nvram zelkad_debug_level: \"all\" is no level (trace, debug, info, warn, "
                    "error): nothing is logged"));
}

TEST_F(Nvram, WhatIsNoBssidIsTold)
{
    EXPECT_THAT(found_with("wl0.1_hwaddr", "02:00"),
                ElementsAre("nvram wl0.1_hwaddr: \"02:00\" is no BSSID"));
    EXPECT_THAT(found_with("wl0.1_hwaddr", ""),
                ElementsAre("nvram wl0.1_hwaddr: \"\" is no BSSID"));
}

TEST_F(Nvram, ABssidHasSixPairsOfHexadecimalDigits)
{
    for (const char *text : {"02:00:00:00:00:0G", "02:00:00:00:00:0", "2:0:0:0:0:1",
                             "02-00-00-00-00-01", "02:00:00:00:00:01 ", "02:00:00:00:00:0x"}) {
        EXPECT_THAT(found_with("wl0.1_hwaddr", text),
                    ElementsAre("nvram wl0.1_hwaddr: \"" + std::string{text} + "\" is no BSSID"));
    }
    EXPECT_THAT(found_with("wl0.1_hwaddr", "0A:bC:00:fF:00:09"), IsEmpty());
}

TEST_F(Nvram, ARadioWithoutBssidsIsWarnedOf)
{
    EXPECT_THAT(found_with("wl_radio_num", "2"),
                ElementsAre("nvram wl1_maxssid: warning: not set: this radio has no BSSIDs"));
    fake_nvram.values.erase("wl0_hwaddr");
    EXPECT_THAT(found_with("wl_radio_num", "1"),
                ElementsAre("nvram wl0_hwaddr: warning: not set: this radio has no BSSIDs",
                            "nvram wl_radio_num: warning: no radio has a BSSID: every location is "
                            "refused"));
}

TEST_F(Nvram, TheLanBridgeIsLookedAt)
{
    EXPECT_THAT(
        found_with("lan0_ifname", "no-such-bridge"),
        ElementsAre("nvram lan0_ifname: warning: \"no-such-bridge\" has no IPv4 address now"));
    EXPECT_THAT(found_with("lan0_ifname", "br0;x"),
                ElementsAre("nvram lan0_ifname: \"br0;x\" is no name of an interface"));
    fake_nvram.values.erase("lan0_ifname");
    EXPECT_THAT(found_with("lan0_ifnames", "wl0"),
                ElementsAre("nvram lan0_ifname: not set: the LAN bridge has no name"));
}

TEST_F(Nvram, WithoutABridgeAnAddressMustBeGiven)
{
    EXPECT_THAT(found_with("lan0_ifnames", "eth0"),
                ElementsAre("nvram lan0_ifnames: warning: no bridge has wl0: the LAN address is "
                            "192.168.1.1"));
    EXPECT_THAT(found_with("lan0_ifnames", "eth0", true), IsEmpty());
}

TEST_F(Nvram, NothingIsWritten)
{
    EXPECT_THAT(found_with("zelkad_mode", "1"), IsEmpty());
    EXPECT_EQ(fake_nvram.writes, 0);
    EXPECT_EQ(fake_nvram.commits, 0);
}

} // namespace
