#include "check/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "fakes/fake_nvram.h"
#include "found.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> found_in(const velm_command_line &given)
{
    check_findings findings;
    check_options(given, &findings);
    return found(std::move(findings));
}

TEST(Options, ThatAreNotGivenOrFitAreNotMentioned)
{
    velm_command_line given;
    EXPECT_THAT(found_in(given), IsEmpty());
    given.config_path = "/a";
    given.lan_ip_address = "192.168.1.1";
    given.lan_name = "br0";
    given.serial_number = std::string(49, 's');
    given.mac_address = "02:00:00:00:00:01";
    EXPECT_THAT(found_in(given), IsEmpty());
}

TEST(Options, ThatDoNotFitAreTold)
{
    velm_command_line given;
    given.lan_ip_address = "fe80::1";
    given.lan_name = "sixteen-letters-";
    given.serial_number = std::string(50, 's');
    given.mac_address = "";
    EXPECT_THAT(found_in(given),
                ElementsAre("command line: -i: \"fe80::1\" is no IPv4 address",
                            "command line: -n: \"sixteen-letters-\" is no name of an interface",
                            "command line: -s: 50 characters: it is cut to 49",
                            "command line: -m: \"\" is no MAC address"));
}

TEST(Options, TheBssidsNeverCount)
{
    velm_command_line given;
    given.bssids = "02:00:00:00:00:01, x";
    EXPECT_THAT(
        found_in(given),
        ElementsAre("command line: -b: \"x\" is no BSSID",
                    "command line: -b: warning: the BSSIDs of the platform always take its place"));
}

TEST(Options, AreJudgedWithoutThePlatform)
{
    fake_nvram = {};
    velm_command_line given;
    given.lan_ip_address = given.lan_name = given.mac_address = given.bssids = "x";
    EXPECT_FALSE(found_in(given).empty());
    EXPECT_EQ(fake_nvram.reads, 0);
}

} // namespace
