// Before libevhtp, whose regular-expression header clashes with the system's.
#include <gtest/gtest.h>

#include "velm_request_pairing_check.h"

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/paused_request.h"
#include "request/record.h"
#include "velm_nvram_pairings.h"

namespace {

std::string paired_device;
int look_ups = 0;
std::vector<int> reported;

} // namespace

json_ptr velm_nvram_pairings_select_pairing(const char *dev_id)
{
    ++look_ups;
    return paired_device == dev_id ? json_ptr{cJSON_CreateObject()} : nullptr;
}

void velm_request_preprocessor_continue(velm_request_preprocessor *, int break_code)
{
    reported.push_back(break_code);
}

namespace {

class PairingCheck : public testing::Test {
  protected:
    PairingCheck()
    {
        test_loop();
        paired_device = "dev-1";
        look_ups = 0;
    }

    static int check(const char *device_id, bool request_gone = false)
    {
        velm_request_preprocessor p;
        p.client_device_id = device_id;
        p.request_gone = request_gone;
        reported.clear();
        make_pairing_check(&p);
        EXPECT_TRUE(reported.empty()) << "the check ran inside the call";
        turn_test_loop();
        return reported.size() == 1 ? reported[0] : -1;
    }

    captured_log log_;
};

TEST_F(PairingCheck, PassesForAPairedDevice)
{
    EXPECT_EQ(check("dev-1"), 0);
    EXPECT_TRUE(log_.contains("TRACE velm_request_pairing_check - make_pairing_check [0x"));
    EXPECT_TRUE(log_.contains("] - finished"));
}

TEST_F(PairingCheck, GivesCode5ForAnUnknownDevice)
{
    EXPECT_EQ(check("dev-2"), VELM_BREAK_PAIRING);
}

TEST_F(PairingCheck, GivesCode5ForADeletedPairing)
{
    EXPECT_EQ(check("dev-1"), 0);
    paired_device = ""; // what a deleted slot bears
    EXPECT_EQ(check("dev-1"), VELM_BREAK_PAIRING);
}

TEST_F(PairingCheck, NeverLooksUpAnAbsentOrEmptyDeviceId)
{
    paired_device = "";
    EXPECT_EQ(check(nullptr), VELM_BREAK_PAIRING);
    EXPECT_EQ(check(""), VELM_BREAK_PAIRING);
    EXPECT_EQ(look_ups, 0);
}

TEST_F(PairingCheck, DoesNotBeginWhenTheRequestHasGone)
{
    EXPECT_EQ(check("dev-2", true), 0) << "the machine goes on, and ends by itself";
    EXPECT_EQ(look_ups, 0);
}

TEST_F(PairingCheck, InitLogsItsName)
{
    velm_request_pairing_check_init(nullptr);
    EXPECT_TRUE(log_.has("TRACE velm_request_pairing_check - velm_request_pairing_check_init"));
}

} // namespace
