#include "velm_cloud_messaging.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "story/story.h"
#include "story/view.h"
#include "velm_fcm_messaging.h"
#include "velm_nvram_pairings.h"

namespace {

struct pushed {
    std::uint32_t timeout, type;
};
std::vector<pushed> pushes;
int fcm_inits;
int live_pairings;

} // namespace

void velm_fcm_messaging_init(const velm_config *)
{
    ++fcm_inits;
}

void velm_fcm_messaging_push_to_all(std::uint32_t timeout, std::uint32_t type)
{
    pushes.push_back({timeout, type});
}

int velm_nvram_pairings_count_pairings()
{
    return live_pairings;
}

namespace {

class CloudMessaging : public testing::Test {
  protected:
    CloudMessaging()
    {
        velm_config_copy_text(config.lan_ip_address, sizeof config.lan_ip_address,
                              "192.168.1.1\n10.0.0.1");
        velm_config_copy_text(config.serial_number, sizeof config.serial_number, "SN-7");
        config.http_server_port = 8443;
        config.bssids_list.reset(cJSON_Parse(R"(["aa:bb:cc:dd:ee:01","aa:bb:cc:dd:ee:02"])"));
        fake_clock_set(1700000000);
        pushes.clear();
        live_pairings = 1;
        velm_cloud_messaging_init(&config);
    }
    ~CloudMessaging() override
    {
        fake_clock_reset();
    }

    static std::string message(const char *dev_type, std::uint32_t type)
    {
        json_ptr pairing{cJSON_CreateObject()};
        cJSON_AddStringToObject(pairing.get(), "push_token", "tok");
        cJSON_AddStringToObject(pairing.get(), "dev_type", dev_type);
        const json_ptr content =
            velm_cloud_messaging_generate_push_content(pairing.get(), 45, type);
        return json_text{cJSON_PrintUnformatted(content.get())}.get();
    }

    velm_config config{};
};

TEST_F(CloudMessaging, FiftyNineSecondsLaterNothingIsPushedSixtySecondsLaterItIs)
{
    const captured_log log;
    velm_cloud_messaging_push_to_all(30, 0);
    fake_clock_advance(59);
    velm_cloud_messaging_push_to_all(30, 0);
    EXPECT_EQ(pushes.size(), 1U);
    EXPECT_TRUE(log.has("WARN velm_cloud_messaging - velm_cloud_messaging_push_to_all - too often "
                        "(limit 60)"));
    fake_clock_advance(1);
    velm_cloud_messaging_push_to_all(31, 0);
    ASSERT_EQ(pushes.size(), 2U);
    EXPECT_EQ(pushes[1].timeout, 31U);
}

TEST_F(CloudMessaging, APushThatLiesInTheFutureWasLongAgo)
{
    velm_cloud_messaging_push_to_all(30, 0);
    fake_clock_advance(-1);
    velm_cloud_messaging_push_to_all(31, 0);
    ASSERT_EQ(pushes.size(), 2U) << "the clock was set back";
    fake_clock_advance(-3600);
    velm_cloud_messaging_push_to_all(32, 0);
    ASSERT_EQ(pushes.size(), 3U);
    fake_clock_advance(59);
    velm_cloud_messaging_push_to_all(33, 0);
    EXPECT_EQ(pushes.size(), 3U) << "the minute counts from the last push, by the clock that is";
}

TEST_F(CloudMessaging, AClockThatBeginsWithTheEpochHoldsNothingUp)
{
    fake_clock_set(5);
    velm_cloud_messaging_push_to_all(30, 0);
    EXPECT_EQ(pushes.size(), 1U);
}

TEST_F(CloudMessaging, WithoutLivePairingsNothingIsPushedAndTheLimitIsNotTouched)
{
    const captured_log log;
    live_pairings = 0;
    velm_cloud_messaging_push_to_all(30, 0);
    EXPECT_TRUE(log.has("ERROR velm_cloud_messaging - velm_cloud_messaging_push_to_all - no "
                        "pairings or tokens"));
    live_pairings = 1;
    velm_cloud_messaging_push_to_all(30, 0);
    EXPECT_EQ(pushes.size(), 1U);
}

TEST_F(CloudMessaging, AReloadResetsTheLimitAndTheSender)
{
    velm_cloud_messaging_push_to_all(30, 0);
    const int inits = fcm_inits;
    velm_cloud_messaging_init(&config);
    EXPECT_EQ(fcm_inits, inits + 1);
    velm_cloud_messaging_push_to_all(30, 0);
    EXPECT_EQ(pushes.size(), 2U);
}

TEST_F(CloudMessaging, TheSilentIosMessageHasNoAlertAndCarriesTheBssidsAsAnArray)
{
    EXPECT_EQ(message("iOS", velm_push_data),
              R"({"message":{"token":"tok","apns":{"payload":{"aps":{"content-available":1},)"
              R"("serialNumber":"SN-7","location":"192.168.1.1:8443","timestamp":"1700000000",)"
              R"("timeout":"45","messageType":"data",)"
              R"("bssids":["aa:bb:cc:dd:ee:01","aa:bb:cc:dd:ee:02"]},)"
              R"("fcm_options":{"analytics_label":"push_ios"}}}})");
}

TEST_F(CloudMessaging, TheVisibleIosMessageAddsTheAlert)
{
    const std::string text = message("ios 17", velm_push_notification);
    EXPECT_NE(text.find(R"("aps":{"content-available":1,"alert":{)"
                        R"("title-loc-key":"afc_request_location_notification_title",)"
                        R"("subtitle-loc-key":"afc_request_location_notification_subtitle",)"
                        R"("loc-key":"afc_request_location_notification_body"}})"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find(R"("messageType":"notification")"), std::string::npos);
}

TEST_F(CloudMessaging, TheSilentAndroidMessageHasADayToLiveAndTheBssidsAsText)
{
    EXPECT_EQ(message("Android", velm_push_data),
              R"({"message":{"token":"tok","android":{"ttl":"86400s","data":{)"
              R"("serialNumber":"SN-7","location":"192.168.1.1:8443","timestamp":"1700000000",)"
              R"("timeout":"45","messageType":"data",)"
              R"("bssids":"[\"aa:bb:cc:dd:ee:01\",\"aa:bb:cc:dd:ee:02\"]"},)"
              R"("fcm_options":{"analytics_label":"push_android"}}}})");
}

TEST_F(CloudMessaging, TheVisibleAndroidMessageAddsTheNotification)
{
    const std::string text = message("android-14", velm_push_notification);
    EXPECT_NE(text.find(R"("ttl":"86400s","notification":{)"
                        R"("title_loc_key":"afc_request_location_notification_title",)"
                        R"("body_loc_key":"afc_request_location_notification_body",)"
                        R"("click_action":"AFC_SEND_LOCATION"},"data")"),
              std::string::npos)
        << text;
}

TEST_F(CloudMessaging, ADeviceTypeThatIsNeitherYieldsAMessageWithOnlyTheToken)
{
    EXPECT_EQ(message("Windows", velm_push_data), R"({"message":{"token":"tok"}})");
}

TEST_F(CloudMessaging, WithoutBssidsIosCarriesAnEmptyArrayAndAndroidItsText)
{
    for (const char *list : {"[]", "null"}) {
        config.bssids_list.reset(*list == '[' ? cJSON_Parse(list) : nullptr);
        EXPECT_NE(message("iOS", 0).find(R"("bssids":[]})"), std::string::npos) << list;
        EXPECT_NE(message("Android", 0).find(R"("bssids":"[]"})"), std::string::npos) << list;
    }
}

TEST_F(CloudMessaging, AnUnknownTypeIsNamedUnknownAndShowsNothing)
{
    const std::string text = message("iOS", 2);
    EXPECT_NE(text.find(R"("messageType":"unknown")"), std::string::npos);
    EXPECT_EQ(text.find("alert"), std::string::npos);
}

TEST_F(CloudMessaging, ANullPairingIsFatal)
{
    const captured_log log;
    EXPECT_DEATH((void)velm_cloud_messaging_generate_push_content(nullptr, 0, 0),
                 "velm_cloud_messaging_generate_push_content: pairing is null: null reference");
}

TEST_F(CloudMessaging, TellsWhetherARunBeganAndWhyNot)
{
    story_forget();
    live_pairings = 1;
    for (std::uint32_t seq = 1; seq <= 2; ++seq) {
        story_request_came(seq, {1, 2, seq});
        story_run_asked(seq);
        velm_cloud_messaging_push_to_all(30, 0);
    }
    const story_view view = story_look();
    EXPECT_EQ(view.rounds[1].round->run, story_run_number());
    EXPECT_EQ(view.rounds[1].round->run_left_out, story_cause::none);
    EXPECT_EQ(view.rounds[0].round->run, 0U);
    EXPECT_EQ(view.rounds[0].round->run_left_out, story_cause::too_soon);
    story_forget();
}

} // namespace
