#include "control/rounds.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <string>

#include "control/members.h"
#include "fakes/captured_log.h"
#include "story/story.h"
#include "text/utf8.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

class ControlRounds : public testing::Test {
  protected:
    ControlRounds()
    {
        story_forget();
    }
    ~ControlRounds() override
    {
        story_forget();
    }

    static json_ptr document()
    {
        return control_rounds_document();
    }

    static std::string printed(const cJSON *value)
    {
        const json_text text{cJSON_PrintUnformatted(value)};
        return text != nullptr ? text.get() : "(nothing)";
    }

    static std::string names(const cJSON *object)
    {
        std::string all;
        for (const cJSON *one = object->child; one != nullptr; one = one->next) {
            all += std::string{one->string} + ' ';
        }
        return all;
    }

    static const cJSON *at(const cJSON *object, const char *name)
    {
        return cJSON_GetObjectItemCaseSensitive(object, name);
    }

    static const cJSON *first(const cJSON *object, const char *name)
    {
        return cJSON_GetArrayItem(at(object, name), 0);
    }

    captured_log log_;
};

/// Every place taken by what becomes longest: each byte of a text from outside takes six.
TEST_F(ControlRounds, OfTheWorstTextsHaveAtMost384Kibibytes)
{
    const std::string long_text(200, '\x01');
    for (std::uint32_t i = 0; i < 200; ++i) {
        story_request_came(i, {1 << 30, 1U << 31, i});
        story_run_asked(i);
        story_run_begins();
        const auto push =
            story_push_begins({story_run_number(), 65535, long_text.c_str(), long_text.c_str()});
        story_push_ends(push, 500, long_text.c_str());
        story_visit_came({.address = htonl(0xc0a86464U + i),
                          .device_id = long_text.c_str(),
                          .route = "/challenge",
                          .status = 412,
                          .check = story_user_pass_check,
                          .why = "the name or the password is wrong, or the account may not log in",
                          .hint = long_text.c_str()});
        story_visit_came({.address = htonl(0xc0a86464U + i),
                          .device_id = long_text.c_str(),
                          .check = story_connections,
                          .why = "it took more memory than there is for its address, or for all",
                          .hint = long_text.c_str()});
        story_report_done(long_text.c_str(), htonl(0xc0a86464U + i));
    }
    EXPECT_LT(printed(document().get()).size(), 384U * 1024);
    EXPECT_GT(printed(document().get()).size(), 100U * 1024);
}

TEST_F(ControlRounds, OfADaemonThatDidNothingAreEmptyLists)
{
    const json_ptr all = document();
    EXPECT_EQ(names(all.get()), "version now latest rounds visits ");
    EXPECT_EQ(printed(at(all.get(), "version")), "1");
    EXPECT_EQ(printed(at(all.get(), "rounds")), "[]");
    EXPECT_EQ(printed(at(all.get(), "visits")), "[]");
    EXPECT_THAT(printed(at(all.get(), "now")),
                MatchesRegex("\"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\\.[0-9]{3}Z\""));
}

TEST_F(ControlRounds, OfAnOpenRoundSayNullWhereNothingIsKnownYet)
{
    story_request_came(5, {.pid = 1, .uid = 2, .request_id = 3});
    story_request_wants(5, 30);
    story_run_asked(5);
    story_run_begins();
    (void)story_push_begins({story_run_number(), 4, nullptr, nullptr});
    const json_ptr all = document();
    const cJSON *const round = first(all.get(), "rounds");
    EXPECT_EQ(names(round), "id state asked closed cause causeText pushRun pushes visits reports "
                            "forgotten ");
    EXPECT_EQ(printed(at(round, "state")), "\"open\"");
    EXPECT_EQ(printed(at(round, "closed")), "null");
    EXPECT_EQ(printed(at(round, "cause")), "null");
    EXPECT_EQ(printed(at(round, "causeText")), "null");
    EXPECT_EQ(printed(at(round, "pushRun")), R"({"begun":true,"why":null,"whyText":null})");
    EXPECT_EQ(printed(at(round, "forgotten")), R"({"pushes":0,"visits":0,"reports":0})");
    const cJSON *const asked = at(round, "asked");
    EXPECT_EQ(names(asked), "at pid uid requestId timeoutSeconds ");
    EXPECT_EQ(printed(at(asked, "timeoutSeconds")), "30");
    const cJSON *const push = first(round, "pushes");
    EXPECT_EQ(names(push), "slot name model at milliseconds status error ");
    EXPECT_EQ(printed(at(push, "milliseconds")), "null");
    EXPECT_EQ(printed(at(push, "status")), "null");
}

TEST_F(ControlRounds, OfAClosedRoundHaveItsVisitsReportsAndCause)
{
    story_request_came(1, {1, 2, 3});
    story_visit_came({.address = inet_addr("192.168.1.50"),
                      .device_id = "phone",
                      .route = "/location",
                      .status = 409,
                      .check = story_device_check,
                      .why = "not ours",
                      .hint = "02:00:00:00:00:01"});
    story_report_sent(0);
    story_report_done("phone", inet_addr("192.168.1.50"));
    story_request_dropped(1);
    const json_ptr all = document();
    const cJSON *const round = first(all.get(), "rounds");
    EXPECT_EQ(printed(at(round, "state")), "\"expired\"");
    EXPECT_EQ(printed(at(round, "cause")), "\"phones refused\"");
    EXPECT_EQ(printed(at(round, "causeText")), "\"a phone came and was refused: not ours\"");
    const cJSON *const visit = first(round, "visits");
    EXPECT_EQ(names(visit),
              "at until times address deviceId route status accepted check why hint ");
    EXPECT_THAT(printed(visit),
                HasSubstr(R"("times":1,"address":"192.168.1.50","deviceId":"phone",)"
                          R"("route":"/location","status":409,"accepted":false,)"
                          R"("check":"device_check","why":"not ours",)"
                          R"("hint":"02:00:00:00:00:01")"));
    EXPECT_THAT(printed(first(round, "reports")),
                HasSubstr(R"("deviceId":"phone","address":"192.168.1.50","clients":0)"));
}

TEST_F(ControlRounds, OfAVisitOfNobodyKnownSayNull)
{
    story_visit_came({.check = story_tls, .why = "no shared cipher"});
    const json_ptr all = document();
    EXPECT_THAT(
        printed(first(all.get(), "visits")),
        HasSubstr(R"("address":null,"deviceId":null,"route":null,"status":null,)"
                  R"("accepted":false,"check":"tls","why":"no shared cipher","hint":null)"));
}

TEST_F(ControlRounds, EscapeWhatComesFromOutside)
{
    story_visit_came({.address = 1, .device_id = "a\"b\\\n\x1b[31m\xff\xc3", .route = "/pair"});
    const json_ptr all = document();
    const std::string text = printed(all.get());
    EXPECT_TRUE(is_utf8(text));
    EXPECT_THAT(text, HasSubstr("\"a\\\"b\\\\\\n\\u001b[31m\xef\xbf\xbd\xef\xbf\xbd\""));
}

TEST_F(ControlRounds, EscapeWhatCommandsATerminalOrTurnsTheText)
{
    const char *const id = "a\x7f"
                           "b\xc2\x9b"
                           "c\xd8\x9c"
                           "d\xe2\x80\xae"
                           "e\xe2\x81\xa9"
                           "f";
    story_visit_came({.address = 1, .device_id = id, .route = "/pair"});
    const json_ptr all = document();
    const std::string text = control_print(all.get());
    EXPECT_THAT(text, HasSubstr(R"("a\u007fb\u009bc\u061cd\u202ee\u2069f")"));
    const json_ptr read{cJSON_Parse(text.c_str())};
    EXPECT_STREQ(at(first(read.get(), "visits"), "deviceId")->valuestring, id);
}

TEST_F(ControlRounds, LeaveOtherCharactersAsTheyAre)
{
    const char *const id = "J\xc3\xbcrgen \xe2\x82\xac \xf0\x9f\x93\xb1";
    story_visit_came({.address = 1, .device_id = id, .route = "/pair"});
    EXPECT_THAT(control_print(document().get()), HasSubstr(id));
}

TEST_F(ControlRounds, OfAPushRunThatWasLeftOutSayWhy)
{
    story_request_came(1, {1, 2, 3});
    story_run_asked(1);
    story_run_left_out(story_cause::too_soon);
    const json_ptr all = document();
    EXPECT_EQ(printed(at(first(all.get(), "rounds"), "pushRun")),
              R"({"begun":false,"why":"too soon",)"
              R"("whyText":"the last push run began less than 60 s before"})");
}

} // namespace
