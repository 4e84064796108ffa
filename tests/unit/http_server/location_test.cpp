// Before libevhtp, whose regular-expression header clashes with the system's.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/paused_request.h"
#include "http_server/routes.h"
#include "ipc/report_queue.h"
#include "velm_location_policy_ipc.h"
#include "velm_request_assert_check.h"
#include "velm_request_device_check.h"
#include "velm_request_pairing_check.h"
#include "velm_request_preprocessor.h"
#include "velm_request_user_pass_check.h"

namespace {

struct hand_over {
    std::string ip, auth, location;
};

/// What the stand-ins for the server, the checks and the IPC saw.
struct seen {
    std::vector<int> statuses;
    std::vector<hand_over> sent;
    std::vector<std::string> checks;
    int device_code = 0;
};
seen server;

std::string text_of(const cJSON *item)
{
    return json_text{cJSON_PrintUnformatted(item)}.get();
}

void run_stand_in(const char *name, velm_request_preprocessor *p, int code)
{
    server.checks.emplace_back(name);
    velm_request_preprocessor_continue(p, code);
}

} // namespace

http_status http_server_status_from_break_code(int break_code)
{
    return static_cast<http_status>(1000 +
                                    break_code); // what the table says is not the matter here
}

void http_server_reply_status(evhtp_request_t *, http_status status)
{
    server.statuses.push_back(status);
}

void http_server_reply_json(evhtp_request_t *, const cJSON *)
{
}

void http_server_reply_text(evhtp_request_t *, const char *)
{
}

void velm_location_policy_ipc_send(const char *ip, const cJSON *auth, const cJSON *location)
{
    server.sent.push_back({ip, text_of(auth), text_of(location)});
}

void make_assert_check(velm_request_preprocessor *p)
{
    run_stand_in("assertion", p, 0);
}

void make_user_pass_check(velm_request_preprocessor *p)
{
    run_stand_in("user_pass", p, 0);
}

void make_pairing_check(velm_request_preprocessor *p)
{
    run_stand_in("paired_app", p, 0);
}

void make_device_check(velm_request_preprocessor *p)
{
    run_stand_in("device", p, server.device_code);
}

namespace {

constexpr char auth[] = R"({"deviceId":"dev-1","deviceType":"iOS","bssid":"aa:bb:cc:dd:ee:ff",)"
                        R"("username":"admin","password":"secret","challenge":"c0ffee"})";

std::string body_with(const std::string &location)
{
    return std::string{R"({"auth":)"} + auth +
           (location.empty() ? "" : ",\"location\":" + location) + "}";
}

class Location : public testing::Test {
  protected:
    Location()
    {
        test_loop();
        server = {};
    }

    static int answer(const paused_request &request, int break_code = 0)
    {
        server.statuses.clear();
        http_method_location_handle(request.get(), break_code);
        return server.statuses.size() == 1 ? server.statuses[0] : -1;
    }

    static int post(const std::string &location)
    {
        const paused_request request{body_with(location)};
        return answer(request);
    }

    captured_log log_;
};

TEST_F(Location, AnObjectIsHandedOverOnceWithAuthAndAddressAndUnchanged)
{
    EXPECT_EQ(post(R"({"latitude":1.5,"x":[null]})"), 200);
    ASSERT_EQ(server.sent.size(), 1U);
    EXPECT_EQ(server.sent[0].ip, "127.0.0.1");
    EXPECT_EQ(server.sent[0].auth, auth);
    EXPECT_EQ(server.sent[0].location, R"({"latitude":1.5,"x":[null]})");
    EXPECT_TRUE(log_.has("TRACE velm_http_server - http_method_location_handle - start"));
    EXPECT_TRUE(log_.has("TRACE velm_http_server - http_method_location_handle - done"));
}

TEST_F(Location, AnArrayOfThreeObjectsGivesThreeHandOversInOrderAndOne200)
{
    EXPECT_EQ(post(R"([{"n":1},{"n":2},{"n":3}])"), 200);
    ASSERT_EQ(server.sent.size(), 3U);
    EXPECT_EQ(server.sent[0].location, R"({"n":1})");
    EXPECT_EQ(server.sent[1].location, R"({"n":2})");
    EXPECT_EQ(server.sent[2].location, R"({"n":3})");
}

TEST_F(Location, ElementsOfAnArrayAreHandedOverWhateverTheirKind)
{
    EXPECT_EQ(post(R"([1,"x",null,[]])"), 200);
    ASSERT_EQ(server.sent.size(), 4U);
    EXPECT_EQ(server.sent[1].location, "\"x\"");
    EXPECT_EQ(server.sent[3].location, "[]");
}

TEST_F(Location, AnEmptyObjectIsHandedOver)
{
    EXPECT_EQ(post("{}"), 200);
    EXPECT_EQ(server.sent.size(), 1U);
}

TEST_F(Location, MissingOrAnEmptyArrayGives400)
{
    for (const char *location : {"", "[]"}) {
        log_.clear();
        EXPECT_EQ(post(location), 400);
        EXPECT_TRUE(log_.has("ERROR velm_http_server - http_method_location_handle - "
                             "no location data"));
    }
    EXPECT_TRUE(server.sent.empty());
}

TEST_F(Location, OfAnotherKindGives400)
{
    for (const char *location : {"\"x\"", "1", "true", "null"}) {
        log_.clear();
        EXPECT_EQ(post(location), 400);
        EXPECT_TRUE(log_.has("ERROR velm_http_server - http_method_location_handle - "
                             "invalid location data"));
    }
    EXPECT_TRUE(server.sent.empty());
}

TEST_F(Location, WithANameInOtherLettersIsMissing)
{
    const paused_request request{R"({"auth":{},"Location":{}})"};
    EXPECT_EQ(answer(request), 400);
}

TEST_F(Location, ABodyThatCannotBeReadIsAnsweredAsTheParserSays)
{
    const paused_request request{"no json"};
    EXPECT_EQ(answer(request), 400);
    EXPECT_TRUE(server.sent.empty());
}

TEST_F(Location, FromAPeerWithoutAnIpAddressIsNotHandedOverYetAnswered200)
{
    const paused_request request = paused_request::without_ip_address(body_with("{}"));
    EXPECT_EQ(answer(request), 200);
    EXPECT_TRUE(log_.has("ERROR velm_http_server - http_method_location_handle - "
                         "invalid ip address"));
    EXPECT_TRUE(server.sent.empty());
}

/// Locations of another phone that wait, as many as there is room for.
void fill_queue()
{
    const json_ptr other{cJSON_Parse(R"({"deviceId":"other"})")};
    const json_ptr location{cJSON_CreateObject()};
    while (location_queue_add("test", "192.168.1.2", other.get(), location.get())) {
    }
}

TEST_F(Location, WithoutRoomForAllOfAListGives503AndHandsNothingOver)
{
    fill_queue();
    EXPECT_EQ(post("{}"), 503);
    EXPECT_TRUE(log_.contains("WARN velm_http_server - http_method_location_handle - no room for 1 "
                              "locations while a client does not read, device id dev-1,"
                              " ip address 127.0.0.1"));
    while (!location_queue_has_room(json_ptr{cJSON_Parse(auth)}.get(), 2)) {
        location_queue_remove_first();
    }
    EXPECT_EQ(post("[{},{},{}]"), 503);
    EXPECT_TRUE(server.sent.empty());
    EXPECT_EQ(post("[{},{}]"), 200);
    EXPECT_EQ(server.sent.size(), 2U);
    location_queue_clear();
}

TEST_F(Location, AFailedCheckIsAnsweredWithItsStatusAndHandsNothingOver)
{
    for (const int code : {1, 2, 3, 4, 5, 6, 7}) {
        const paused_request request{body_with("{}")};
        EXPECT_EQ(answer(request, code), 1000 + code);
    }
    EXPECT_TRUE(server.sent.empty());
}

TEST_F(Location, WithoutARequestEndsTheProcess)
{
    EXPECT_DEATH(http_method_location_handle(nullptr, 0),
                 "http_method_location_handle: req is null: null reference");
}

/// The route's own checks, as far as the stand-ins let them pass.
int post_through_the_checks(const paused_request &request, const std::string &parsed = "")
{
    server.statuses.clear();
    velm_request_preprocessor *const p =
        velm_request_preprocessor_create({true, true, true, true, true});
    velm_request_preprocessor_attach_request(p, request.get());
    velm_request_preprocessor_set_callback(p, http_method_location_handle);
    if (!parsed.empty()) {
        velm_request_preprocessor_attach_body(
            p, velm_request_keep(secret_json_ptr{cJSON_Parse(parsed.c_str())}, "location"));
    }
    velm_request_preprocessor_start(p);
    turn_test_loop();
    return server.statuses.size() == 1 ? server.statuses[0] : -1;
}

constexpr char parsing[] = "velm_request_parse_request_body - received:";

TEST_F(Location, ABodyThatTheRouteHasParsedIsNotParsedAgain)
{
    const std::string body = body_with(R"([{"x":1},{"x":2}])");
    const paused_request request{body, {{"X-Assertion", "YXNz"}}};
    EXPECT_EQ(post_through_the_checks(request, body), 200);
    ASSERT_EQ(server.sent.size(), 2U);
    EXPECT_EQ(server.sent[0].auth, auth);
    EXPECT_EQ(server.sent[1].location, R"({"x":2})");
    EXPECT_EQ(log_.count(parsing), 0);
}

TEST_F(Location, AListThatIsTooLongToBeKeptIsParsedAgainAndHandedOverWhole)
{
    std::string list = R"([{"x":0})";
    for (int i = 1; i < 300; ++i) {
        list += R"(,{"x":0})";
    }
    const std::string body = body_with(list + "]");
    const paused_request request{body, {{"X-Assertion", "YXNz"}}};
    EXPECT_EQ(post_through_the_checks(request, body), 200);
    EXPECT_EQ(server.sent.size(), 300U);
    EXPECT_EQ(log_.count(parsing), 1);
}

TEST_F(Location, WithoutAParsedBodyTheChecksAndTheRouteParseIt)
{
    const paused_request request{body_with(R"({"x":1})"), {{"X-Assertion", "YXNz"}}};
    EXPECT_EQ(post_through_the_checks(request), 200);
    EXPECT_EQ(server.sent.size(), 1U);
}

TEST_F(Location, TheChecksRunInOrderAndAForeignBssidOfAnElseGoodRequestGivesTheStatusOfCode6)
{
    server.device_code = VELM_BREAK_BSSID;
    const paused_request request{body_with("{}"), {{"X-Assertion", "YXNz"}}};
    EXPECT_EQ(post_through_the_checks(request), 1006);
    EXPECT_EQ(server.checks,
              (std::vector<std::string>{"assertion", "user_pass", "paired_app", "device"}));
    EXPECT_TRUE(server.sent.empty());
}

TEST_F(Location, IsHandedOverWhenEveryCheckPassed)
{
    const paused_request request{body_with("{}"), {{"X-Assertion", "YXNz"}}};
    EXPECT_EQ(post_through_the_checks(request), 200);
    EXPECT_EQ(server.sent.size(), 1U);
}

} // namespace
