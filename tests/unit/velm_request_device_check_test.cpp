// Before libevhtp, whose regular-expression header clashes with the system's.
#include <gtest/gtest.h>

#include "velm_request_device_check.h"

#include <optional>
#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/paused_request.h"
#include "request/record.h"

namespace {
std::vector<int> reported;
} // namespace

void velm_request_preprocessor_continue(velm_request_preprocessor *, int break_code)
{
    reported.push_back(break_code);
}

namespace {

constexpr char own_bssids[] = R"(["00:1a:2b:3c:4d:5e","aa:bb:cc:dd:ee:ff"])";

class DeviceCheck : public testing::Test {
  protected:
    DeviceCheck()
    {
        test_loop();
        set_list(own_bssids);
        velm_request_device_check_init(&config_);
    }

    void set_list(const char *json)
    {
        config_.bssids_list.reset(cJSON_Parse(json));
        ASSERT_NE(config_.bssids_list, nullptr);
    }

    static int check(const char *bssid, bool request_gone = false)
    {
        velm_request_preprocessor p;
        p.client_bssid = bssid;
        p.request_gone = request_gone;
        reported.clear();
        make_device_check(&p);
        EXPECT_TRUE(reported.empty()) << "the check ran inside the call";
        turn_test_loop();
        return reported.size() == 1 ? reported[0] : -1;
    }

    captured_log log_;
    velm_config config_{};
};

TEST_F(DeviceCheck, PassesForEveryConfiguredBssid)
{
    EXPECT_EQ(check("00:1a:2b:3c:4d:5e"), 0);
    EXPECT_EQ(check("aa:bb:cc:dd:ee:ff"), 0);
    EXPECT_TRUE(log_.contains("TRACE velm_request_device_check - make_device_check [0x"));
    EXPECT_TRUE(log_.contains("] - start"));
    EXPECT_TRUE(log_.contains("] - finished"));
}

TEST_F(DeviceCheck, AnUpperCaseBssidMatchesALowerCaseOne)
{
    EXPECT_EQ(check("AA:BB:CC:DD:EE:FF"), 0);
}

TEST_F(DeviceCheck, AFieldOfOneDigitMatchesTwo)
{
    EXPECT_EQ(check("0:1a:2b:3c:4d:5e"), 0);
}

TEST_F(DeviceCheck, AnUnknownBssidGivesCode6)
{
    EXPECT_EQ(check("00:1a:2b:3c:4d:5f"), VELM_BREAK_BSSID);
    EXPECT_TRUE(log_.has("DEBUG velm_request_device_check - make_device_check - "
                         "unknown bssid: 00:1a:2b:3c:4d:5f"));
}

TEST_F(DeviceCheck, AnUnparseableBssidGivesCode6)
{
    EXPECT_EQ(check("00:1a:2b:3c:4d"), VELM_BREAK_BSSID);
    EXPECT_TRUE(log_.has("ERROR velm_request_device_check - make_device_check - "
                         "invalid bssid 00:1a:2b:3c:4d"));
}

TEST_F(DeviceCheck, AnAbsentOrEmptyBssidGivesCode6)
{
    EXPECT_EQ(check(nullptr), VELM_BREAK_BSSID);
    EXPECT_EQ(check(""), VELM_BREAK_BSSID);
    EXPECT_FALSE(log_.contains("bssid:"));
}

TEST_F(DeviceCheck, AnEmptyListRefusesEveryBssid)
{
    set_list("[]");
    EXPECT_EQ(check("00:1a:2b:3c:4d:5e"), VELM_BREAK_BSSID);
}

TEST_F(DeviceCheck, WithNoListAtAllEveryParseableBssidPasses)
{
    config_.bssids_list.reset();
    EXPECT_EQ(check("12:34:56:78:9a:bc"), 0);
    EXPECT_EQ(check("12:34:56:78:9a"), VELM_BREAK_BSSID);
}

TEST_F(DeviceCheck, SkipsEntriesThatAreNoBssid)
{
    set_list(R"(["",7,null,"nonsense","00:1a:2b:3c:4d:5e"])");
    EXPECT_EQ(check("00:1a:2b:3c:4d:5e"), 0);
    EXPECT_EQ(check("00:00:00:00:00:00"), VELM_BREAK_BSSID);
}

TEST_F(DeviceCheck, DoesNotBeginWhenTheRequestHasGone)
{
    EXPECT_EQ(check("nonsense", true), 0) << "the machine goes on, and ends by itself";
    EXPECT_FALSE(log_.contains("invalid bssid"));
}

TEST_F(DeviceCheck, InitLogsItsName)
{
    EXPECT_TRUE(log_.has("TRACE velm_request_device_check - velm_request_device_check_init"));
}

TEST_F(DeviceCheck, SaysWhatThePhoneNamedAndWhatWouldHaveDone)
{
    velm_request_preprocessor p;
    p.client_bssid = "02:00:00:00:00:01";
    make_device_check(&p);
    turn_test_loop();
    EXPECT_STREQ(p.explained, "the BSSID that it named is none of this access point's");
    EXPECT_EQ(p.hint, "named 02:00:00:00:00:01, ours: 00:1a:2b:3c:4d:5e, aa:bb:cc:dd:ee:ff");
}

TEST_F(DeviceCheck, SaysThatTheListIsEmptyOrTheBssidIsNone)
{
    velm_request_preprocessor p;
    p.client_bssid = "02";
    make_device_check(&p);
    turn_test_loop();
    EXPECT_STREQ(p.explained, "the BSSID that it named is no MAC address");
    EXPECT_EQ(p.hint, "named 02");
    set_list("[]");
    p.client_bssid = "02:00:00:00:00:01";
    make_device_check(&p);
    turn_test_loop();
    EXPECT_STREQ(p.explained, "this access point knows no BSSID of its own");
}

} // namespace
