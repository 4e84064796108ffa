// Before libevhtp, whose regular-expression header clashes with the system's.
#include <gtest/gtest.h>

#include "velm_request_preprocessor.h"

#include <arpa/inet.h>
#include <event2/util.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/paused_request.h"
#include "logger/common_logger.h"
#include "request/record.h"
#include "story/story.h"
#include "story/told.h"
#include "velm_request_assert_check.h"
#include "velm_request_device_check.h"
#include "velm_request_pairing_check.h"
#include "velm_request_user_pass_check.h"

namespace {

/// What the stand-ins for the four checks saw and are to report.
struct checks_seen {
    std::vector<std::string> started;
    std::map<std::string, int> codes;             // none: passed
    std::string held;                             // this check does not report by itself
    velm_request_preprocessor *waiting = nullptr; // the record of the held check
};
checks_seen checks;

void run_stand_in(const std::string &name, velm_request_preprocessor *p)
{
    checks.started.push_back(name);
    if (name == "assertion") {
        p->proof = velm_request_proof_take(p->client_device_id);
    }
    if (name == checks.held) {
        checks.waiting = p;
        return;
    }
    velm_request_preprocessor_continue(p, checks.codes[name]);
}

struct result {
    evhtp_request_t *request;
    int break_code;
};
std::vector<result> results;

void note_result(evhtp_request_t *request, int break_code)
{
    results.push_back({request, break_code});
}

void answer_result(evhtp_request_t *request, int break_code)
{
    note_result(request, break_code);
    evhtp_send_reply(request, 200);
    evhtp_request_resume(request);
}

std::vector<std::string> wiped;
int addresses_printed = 0;

constexpr velm_request_checks all_checks{true, true, true, true, true};
constexpr velm_request_checks request_only{true, false, false, false, false};
constexpr velm_request_checks request_and_assertion{true, true, false, false, false};

constexpr char good_body[] =
    R"({"auth":{"deviceId":"dev-1","deviceType":"iOS","bssid":"aa:bb:cc:dd:ee:ff",)"
    R"("username":"admin","password":"secret","challenge":"c0ffee"}})";

class Preprocessor : public testing::Test {
  protected:
    Preprocessor()
    {
        checks = {};
        results.clear();
        test_loop();
    }

    static velm_request_preprocessor *start(const paused_request &request,
                                            const velm_request_checks &flags,
                                            velm_request_callback callback = note_result)
    {
        velm_request_preprocessor *const p = velm_request_preprocessor_create(flags);
        velm_request_preprocessor_attach_request(p, request.get());
        velm_request_preprocessor_set_callback(p, callback);
        velm_request_preprocessor_start(p);
        return p;
    }

    /// The break code that a request ends with; -1 when nobody was called.
    static int run(const paused_request &request, const velm_request_checks &flags)
    {
        results.clear();
        start(request, flags);
        turn_test_loop();
        return results.size() == 1 ? results[0].break_code : -1;
    }

    static int run(const std::string &body, const velm_request_checks &flags,
                   const paused_request::headers &headers = {{"X-Assertion", "YXNz"}})
    {
        const paused_request request{body, headers};
        return run(request, flags);
    }

    captured_log log_;
};

} // namespace

/// Stands in for OpenSSL's function, to see what is wiped.
extern "C" void OPENSSL_cleanse(void *memory, size_t size)
{
    wiped.emplace_back(static_cast<const char *>(memory), size);
    std::memset(memory, 0, size);
}

/// Stands in for the C library's function, to see when the text of an address is made.
extern "C" const char *inet_ntop(int family, const void *address, char *text, socklen_t size)
{
    ++addresses_printed;
    return evutil_inet_ntop(family, address, text, size);
}

void make_assert_check(velm_request_preprocessor *p)
{
    run_stand_in("assertion", p);
}

void make_user_pass_check(velm_request_preprocessor *p)
{
    run_stand_in("user_pass", p);
}

void make_pairing_check(velm_request_preprocessor *p)
{
    run_stand_in("paired_app", p);
}

void make_device_check(velm_request_preprocessor *p)
{
    run_stand_in("device", p);
}

namespace {

// The machine

TEST_F(Preprocessor, RunsAllSelectedChecksInOrderAndThenCallsBackWithZero)
{
    const paused_request request{good_body, {{"X-Assertion", "YXNz"}}};
    EXPECT_EQ(run(request, all_checks), 0);
    EXPECT_EQ(checks.started,
              (std::vector<std::string>{"assertion", "user_pass", "paired_app", "device"}));
    EXPECT_EQ(results[0].request, request.get());
}

TEST_F(Preprocessor, RunsExactlyTheSelectedChecksForEveryChoiceOfThem)
{
    for (unsigned choice = 0; choice < 32; ++choice) {
        const velm_request_checks flags{(choice & 1) != 0, (choice & 2) != 0, (choice & 4) != 0,
                                        (choice & 8) != 0, (choice & 16) != 0};
        std::vector<std::string> expected;
        const std::pair<bool, const char *> selectable[] = {{flags.assertion, "assertion"},
                                                            {flags.user_pass, "user_pass"},
                                                            {flags.paired_app, "paired_app"},
                                                            {flags.device, "device"}};
        for (const auto &[selected, name] : selectable) {
            if (selected) {
                expected.emplace_back(name);
            }
        }
        checks = {};
        EXPECT_EQ(run(good_body, flags), 0) << choice;
        EXPECT_EQ(checks.started, expected) << choice;
    }
}

TEST_F(Preprocessor, WithNoFlagsRunsNoCheckAndCallsBackWithZeroEvenWithAnEmptyBody)
{
    EXPECT_EQ(run("", {}), 0);
    EXPECT_TRUE(checks.started.empty());
    EXPECT_FALSE(log_.contains("request_check"));
}

TEST_F(Preprocessor, ACheckThatReportsCode4EndsTheMachine)
{
    checks.codes["user_pass"] = 4;
    EXPECT_EQ(run(good_body, all_checks), 4);
    EXPECT_EQ(checks.started, (std::vector<std::string>{"assertion", "user_pass"}));
    EXPECT_TRUE(log_.contains(" - break: 4"));
}

TEST_F(Preprocessor, TheFirstCheckThatFailsDecides)
{
    checks.codes = {{"assertion", 3}, {"user_pass", 4}, {"paired_app", 5}, {"device", 6}};
    const std::pair<const char *, int> in_order[] = {
        {"assertion", 3}, {"user_pass", 4}, {"paired_app", 5}, {"device", 6}};
    for (const auto &[name, code] : in_order) {
        EXPECT_EQ(run(good_body, all_checks), code);
        EXPECT_EQ(checks.started.back(), name);
        checks.codes.erase(name);
    }
}

TEST_F(Preprocessor, AFailedRequestCheckRunsNoOtherCheck)
{
    EXPECT_EQ(run("{}", all_checks), 1);
    EXPECT_TRUE(checks.started.empty());
}

TEST_F(Preprocessor, PassesThroughItsStatesByName)
{
    EXPECT_EQ(run(good_body, all_checks), 0);
    std::vector<std::string> names;
    for (const std::string &line : log_.lines()) {
        const std::size_t at = line.find(" - current state: ");
        if (at != std::string::npos) {
            names.push_back(line.substr(at + 18));
        }
    }
    EXPECT_EQ(names, (std::vector<std::string>{"init", "request_check", "assertion_check",
                                               "user_pass_check", "paired_app_check",
                                               "device_check", "finished"}));
}

TEST_F(Preprocessor, TakesEveryStepThroughTheLoop)
{
    const paused_request request{good_body, {{"X-Assertion", "YXNz"}}};
    start(request, all_checks);
    EXPECT_FALSE(log_.contains("current state"));
    const std::size_t steps = 8; // the seven states and the call back
    for (std::size_t step = 1; step <= steps; ++step) {
        EXPECT_TRUE(results.empty());
        step_test_loop();
        EXPECT_EQ(log_.count("current state"), static_cast<int>(std::min<std::size_t>(step, 7)));
    }
    EXPECT_EQ(results.size(), 1U);
}

TEST_F(Preprocessor, WaitsForACheckThatReportsLater)
{
    const paused_request request{good_body, {{"X-Assertion", "YXNz"}}};
    checks.held = "assertion";
    start(request, all_checks);
    turn_test_loop();
    EXPECT_EQ(checks.started, std::vector<std::string>{"assertion"});
    EXPECT_TRUE(results.empty());
    velm_request_preprocessor_continue(checks.waiting, 0);
    turn_test_loop();
    EXPECT_EQ(checks.started.size(), 4U);
    EXPECT_EQ(results.size(), 1U);
}

TEST_F(Preprocessor, RunsSeveralRequestsIndependently)
{
    const paused_request request{good_body, {{"X-Assertion", "YXNz"}}};
    checks.held = "assertion";
    start(request, request_and_assertion);
    turn_test_loop();
    velm_request_preprocessor *const first = checks.waiting;
    const paused_request other{good_body, {{"X-Assertion", "YXNz"}}};
    start(other, request_and_assertion);
    turn_test_loop();
    velm_request_preprocessor_continue(checks.waiting, 2);
    velm_request_preprocessor_continue(first, 3);
    turn_test_loop();
    ASSERT_EQ(results.size(), 2U);
    EXPECT_EQ(results[0].break_code, 2);
    EXPECT_EQ(results[1].break_code, 3);
    EXPECT_NE(results[0].request, results[1].request);
}

TEST_F(Preprocessor, TheCallbackMayAnswerAndResumeTheRequest)
{
    paused_request request{good_body};
    start(request, request_only, answer_result);
    EXPECT_EQ(request.reply().substr(0, 15), "HTTP/1.1 200 OK");
}

bool told_of_its_end = true;
void note_whether_told(evhtp_request_t *request, int break_code)
{
    told_of_its_end = request->hooks->on_request_fini != nullptr;
    answer_result(request, break_code);
}

TEST_F(Preprocessor, IsNotToldOfTheEndOfARequestThatItHasHandedBack)
{
    paused_request request{good_body};
    start(request, request_only, note_whether_told);
    EXPECT_NE(request.get()->hooks->on_request_fini, nullptr);
    turn_test_loop();
    EXPECT_FALSE(told_of_its_end);
}

TEST_F(Preprocessor, WipesThePasswordWithTheRecordAndTheTreeAndTheCopyOfTheBodyItCameIn)
{
    wiped.clear();
    EXPECT_EQ(run(good_body, request_only), 0);
    EXPECT_EQ(std::count(wiped.begin(), wiped.end(), "secret"), 2);
    EXPECT_EQ(std::count(wiped.begin(), wiped.end(), good_body), 1);
}

// What the phone proved itself by

/// The key that the phone's pairing holds; nothing: it is not paired.
std::optional<std::string> paired_key;

json_ptr find_pairing(const char *device_id)
{
    if (!paired_key.has_value() || std::strcmp(device_id, "dev-1") != 0) {
        return nullptr;
    }
    json_ptr pairing{cJSON_CreateObject()};
    cJSON_AddStringToObject(pairing.get(), "attestation_key", paired_key->c_str());
    return pairing;
}

struct proof_case {
    const char *name;
    std::optional<std::string> then, now;
    int code;
};
class Proof : public Preprocessor, public testing::WithParamInterface<proof_case> {
  protected:
    Proof()
    {
        velm_request_proof_set_finder(find_pairing);
    }
    ~Proof() override
    {
        velm_request_proof_set_finder(nullptr);
    }
};

TEST_P(Proof, IsWorthNothingWhenThePairingHasChangedSince)
{
    const paused_request request{good_body, {{"X-Assertion", "YXNz"}}};
    paired_key = GetParam().then;
    checks.held = "user_pass";
    start(request, {true, true, true, false, false});
    turn_test_loop();
    paired_key = GetParam().now;
    velm_request_preprocessor_continue(checks.waiting, 0);
    turn_test_loop();
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results[0].break_code, GetParam().code);
    EXPECT_EQ(log_.count("WARN velm_http_server - request_refused - assertion check: the pairing "
                         "has changed since the assertion was checked, ip: 127.0.0.1, "
                         "device id: dev-1"),
              GetParam().code == 0 ? 0 : 1);
}

INSTANTIATE_TEST_SUITE_P(
    Pairings, Proof,
    testing::Values(proof_case{"SameKey", "key", "key", 0},
                    proof_case{"AnotherKey", "key", "other", VELM_BREAK_ASSERTION},
                    proof_case{"UnpairedIphone", "key", std::nullopt, VELM_BREAK_ASSERTION},
                    proof_case{"SameAndroidPhone", "", "", 0},
                    proof_case{"UnpairedAndroidPhone", "", std::nullopt, VELM_BREAK_ASSERTION},
                    proof_case{"AndroidPhoneThatIsAnIphoneNow", "", "key", VELM_BREAK_ASSERTION},
                    proof_case{"NewAndroidPhone", std::nullopt, std::nullopt, 0},
                    proof_case{"NewAndroidPhoneThatSentTwice", std::nullopt, "", 0},
                    proof_case{"NewPhoneThatIsAnIphoneNow", std::nullopt, "key",
                               VELM_BREAK_ASSERTION}),
    [](const auto &row) { return std::string{row.param.name}; });

// The line of a refusal

TEST_F(Preprocessor, ARefusalLeavesOneLineThatNamesTheCheckTheAddressAndTheDevice)
{
    const std::pair<const char *, const char *> lines[] = {
        {"assertion", "assertion check: assertion is not valid"},
        {"user_pass", "user/password check: login refused"},
        {"paired_app", "paired-app check: not paired"},
        {"device", "device check: bssid is not ours"}};
    int code = VELM_BREAK_ASSERTION;
    for (const auto &[check, text] : lines) {
        checks = {};
        checks.codes[check] = code;
        log_.clear();
        EXPECT_EQ(run(good_body, all_checks), code++);
        EXPECT_TRUE(log_.has(std::string{"WARN velm_http_server - request_refused - "} + text +
                             ", ip: 127.0.0.1, device id: dev-1"));
        EXPECT_EQ(log_.count("WARN "), 1);
    }
    checks.codes = {{"assertion", VELM_BREAK_CHALLENGE}};
    EXPECT_EQ(run(good_body, all_checks), VELM_BREAK_CHALLENGE);
    EXPECT_TRUE(log_.contains("assertion check: challenge is not pending, "));
    checks.codes = {{"assertion", 7}};
    EXPECT_EQ(run(good_body, all_checks), 7);
    EXPECT_TRUE(log_.contains("no check: unknown, "));
    EXPECT_EQ(run("{}", request_only), VELM_BREAK_BAD_REQUEST);
    EXPECT_TRUE(log_.contains("request check: no valid body, ip: 127.0.0.1, device id: -"));
}

TEST_F(Preprocessor, ARequestThatPassesOrIsGoneLeavesNoWarning)
{
    EXPECT_EQ(run(good_body, all_checks), 0);
    paused_request request{"{}"};
    start(request, request_only);
    request.free_connection();
    turn_test_loop();
    EXPECT_EQ(log_.count("WARN "), 0);
}

// The request goes first

TEST_F(Preprocessor, WhoseConnectionIsFreedBeforeAnyStepEndsWithoutCallingAnybody)
{
    const std::size_t steps = 8;
    for (std::size_t step = 0; step < steps; ++step) {
        checks = {};
        paused_request request{good_body, {{"X-Assertion", "YXNz"}}};
        start(request, all_checks);
        for (std::size_t turn = 0; turn < step; ++turn) {
            step_test_loop();
        }
        const std::size_t started = checks.started.size();
        request.free_connection();
        turn_test_loop();
        EXPECT_TRUE(results.empty()) << "freed after step " << step;
        EXPECT_EQ(checks.started.size(), started) << "a check began after step " << step;
    }
}

TEST_F(Preprocessor, OfARequestThatIsGoneOnlyTheTextsOfAuthAreKept)
{
    paused_request request{
        R"({"auth":{"deviceId":"dev-1","deviceType":"iOS","bssid":"aa:bb:cc:dd:ee:ff",)"
        R"("username":"admin","password":"secret"},"location":[{"latitude":1},{"latitude":2}]})"};
    checks.held = "user_pass";
    velm_request_preprocessor *const p =
        velm_request_preprocessor_create({true, false, true, false, false});
    velm_request_preprocessor_attach_request(p, request.get());
    velm_request_preprocessor_set_callback(p, note_result);
    velm_request_preprocessor_attach_body(
        p, velm_request_keep(velm_request_parse_request_body(request.get()).body, "location"));
    velm_request_preprocessor_start(p);
    turn_test_loop();
    ASSERT_EQ(checks.waiting, p);
    EXPECT_NE(cJSON_GetObjectItemCaseSensitive(p->body.tree.get(), "location"), nullptr);
    request.free_connection();
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(p->body.tree.get(), "location"), nullptr);
    EXPECT_STREQ(p->client_device_id, "dev-1");
    velm_request_preprocessor_continue(p, 0);
    turn_test_loop();
    EXPECT_TRUE(results.empty());
}

class PreprocessorGone : public Preprocessor, public testing::WithParamInterface<int> {};

TEST_P(PreprocessorGone, WhileACheckWaitsEndsSilentlyWhateverTheCheckReports)
{
    paused_request request{good_body, {{"X-Assertion", "YXNz"}}};
    checks.held = "assertion";
    velm_request_preprocessor *const p = start(request, all_checks);
    turn_test_loop();
    request.free_connection();
    turn_test_loop();
    EXPECT_STREQ(p->client_device_id, "dev-1") << "the check still reads the record";
    EXPECT_EQ(p->client_assertion, nullptr) << "it was the request's";
    velm_request_preprocessor_continue(p, GetParam());
    turn_test_loop();
    EXPECT_TRUE(results.empty());
    EXPECT_EQ(checks.started, std::vector<std::string>{"assertion"});
}

INSTANTIATE_TEST_SUITE_P(Codes, PreprocessorGone, testing::Values(0, 3));

// Programming errors

TEST_F(Preprocessor, WithoutARecordEndsTheProcess)
{
    EXPECT_DEATH(velm_request_preprocessor_start(nullptr),
                 "velm_request_preprocessor_start: preprocessor is null: null reference");
    EXPECT_DEATH(velm_request_preprocessor_continue(nullptr, 0),
                 "velm_request_preprocessor_continue: preprocessor is null: null reference");
    EXPECT_DEATH(velm_request_preprocessor_attach_request(nullptr, nullptr),
                 "velm_request_preprocessor_attach_request: preprocessor is null: null reference");
    EXPECT_DEATH(velm_request_preprocessor_set_callback(nullptr, note_result),
                 "velm_request_preprocessor_set_callback: preprocessor is null: null reference");
}

TEST_F(Preprocessor, WithoutARequestOrCallbackEndsTheProcess)
{
    velm_request_preprocessor p;
    EXPECT_DEATH(velm_request_preprocessor_attach_request(&p, nullptr),
                 "velm_request_preprocessor_attach_request: request is null: null reference");
    EXPECT_DEATH(velm_request_preprocessor_set_callback(&p, nullptr),
                 "velm_request_preprocessor_set_callback: callback is null: null reference");
    EXPECT_DEATH(velm_request_preprocessor_start(&p),
                 "velm_request_preprocessor_start: p->request is null: null reference");
}

TEST_F(Preprocessor, StartedFromAnotherStateThanInitEndsTheProcess)
{
    const paused_request request{good_body};
    velm_request_preprocessor p;
    p.request = request.get();
    p.state = preproc_state::request_check;
    EXPECT_DEATH(velm_request_preprocessor_start(&p),
                 "velm_request_preprocessor_start: p->state != preproc_state_init");
}

TEST_F(Preprocessor, InAStateOutOfRangeEndsTheProcess)
{
    // A forked child would share this process's loop.
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    velm_request_preprocessor p;
    p.state = static_cast<preproc_state>(7);
    EXPECT_DEATH(
        {
            velm_request_preprocessor_continue(&p, 0);
            turn_test_loop();
        },
        "velm_request_preprocessor_loop: invalid state: 7");
}

TEST_F(Preprocessor, InitLogsItsName)
{
    velm_request_preprocessor_init(nullptr);
    EXPECT_TRUE(log_.has("TRACE velm_request_preprocessor - velm_request_preprocessor_init"));
}

// The request check

/// A body with one member of "auth" replaced by JSON text; empty text leaves the member out.
std::string body_with(const std::string &member, const std::string &json)
{
    const std::pair<const char *, const char *> members[] = {
        {"deviceId", R"("dev-1")"}, {"deviceType", R"("iOS")"},  {"bssid", R"("aa:bb")"},
        {"username", R"("admin")"}, {"password", R"("secret")"}, {"challenge", R"("c0ffee")"}};
    std::string auth;
    for (const auto &[name, usual] : members) {
        const std::string text = name == member ? json : usual;
        if (!text.empty()) {
            auth += std::string{auth.empty() ? "" : ","} + "\"" + name + "\":" + text;
        }
    }
    return "{\"auth\":{" + auth + "}}";
}

std::string quoted(std::size_t length, const std::string &head = "")
{
    return "\"" + head + std::string(length - head.size(), 'x') + "\"";
}

struct member_case {
    const char *name;
    std::size_t limit;
    const char *head; // what the text must begin with
};

class AuthMember : public Preprocessor, public testing::WithParamInterface<member_case> {
  protected:
    static int run_with(const std::string &json)
    {
        return run(body_with(GetParam().name, json), request_and_assertion);
    }
};

TEST_P(AuthMember, OfTheGreatestLengthIsAccepted)
{
    EXPECT_EQ(run_with(quoted(GetParam().limit, GetParam().head)), 0);
}

TEST_P(AuthMember, OneByteLongerGives400)
{
    EXPECT_EQ(run_with(quoted(GetParam().limit + 1, GetParam().head)), 1);
}

TEST_P(AuthMember, MissingGives400)
{
    EXPECT_EQ(run_with(""), 1);
    EXPECT_TRUE(checks.started.empty());
}

TEST_P(AuthMember, EmptyGives400)
{
    EXPECT_EQ(run_with("\"\""), 1);
}

TEST_P(AuthMember, OfAnotherKindCountsAsMissing)
{
    for (const char *json : {"1", "null", "true", "[]", "{}"}) {
        EXPECT_EQ(run_with(json), 1) << json;
    }
}

TEST_P(AuthMember, HasACaseSensitiveName)
{
    std::string body = body_with(GetParam().name, quoted(3, GetParam().head));
    body.replace(body.find(GetParam().name), 1, 1, 'X');
    EXPECT_EQ(run(body, request_and_assertion), 1);
}

TEST_P(AuthMember, GivenTwiceCountsTheFirstTime)
{
    const std::string good = quoted(7, GetParam().head);
    const std::string second = std::string{",\""} + GetParam().name + "\":";
    EXPECT_EQ(run_with(good + second + "\"\""), 0);
    EXPECT_EQ(run_with("\"\"" + second + good), 1);
}

INSTANTIATE_TEST_SUITE_P(
    All, AuthMember,
    testing::Values(member_case{"deviceId", 1024, ""}, member_case{"deviceType", 64, "iOS"},
                    member_case{"bssid", 64, ""}, member_case{"username", 1024, ""},
                    member_case{"password", 1024, ""}, member_case{"challenge", 1024, ""}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(Preprocessor, CountsLengthsInBytes)
{
    std::string two_byte_letters;
    for (int i = 0; i < 512; ++i) {
        two_byte_letters += "\xc3\xa9";
    }
    EXPECT_EQ(run(body_with("deviceId", "\"" + two_byte_letters + "\""), request_only), 0);
    EXPECT_EQ(run(body_with("deviceId", "\"" + two_byte_letters + "x\""), request_only), 1);
}

struct type_case {
    const char *text;
    int code;
};

class DeviceType : public Preprocessor, public testing::WithParamInterface<type_case> {};

TEST_P(DeviceType, MustBeginWithAKnownWord)
{
    const std::string json = std::string{"\""} + GetParam().text + "\"";
    EXPECT_EQ(run(body_with("deviceType", json), request_only), GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(Words, DeviceType,
                         testing::Values(type_case{"iOS", 0}, type_case{"ios13", 0},
                                         type_case{"IOS", 0}, type_case{"Android", 0},
                                         type_case{"ANDROID-12", 0}, type_case{"Androi", 1},
                                         type_case{"io", 1}, type_case{" iOS", 1},
                                         type_case{"Windows", 1}, type_case{"xiOS", 1}));

TEST_F(Preprocessor, WithoutTheAssertionFlagNeedsNeitherChallengeNorAssertion)
{
    EXPECT_EQ(run(body_with("challenge", ""), request_only, {}), 0);
}

TEST_F(Preprocessor, WithTheAssertionFlagAndNoAssertionHeaderGives400BeforeTheCheckRuns)
{
    EXPECT_EQ(run(good_body, all_checks, {}), 1);
    EXPECT_TRUE(checks.started.empty());
}

TEST_F(Preprocessor, WithTheAssertionFlagAndNoChallengeGives400BeforeTheCheckRuns)
{
    EXPECT_EQ(run(body_with("challenge", ""), all_checks), 1);
    EXPECT_TRUE(checks.started.empty());
}

TEST_F(Preprocessor, TakesAnAssertionHeaderOf1To16384Bytes)
{
    const std::pair<std::size_t, int> lengths[] = {{0, 1}, {1, 0}, {16384, 0}, {16385, 1}};
    for (const auto &[length, code] : lengths) {
        paused_request request{good_body};
        request.add_header("X-Assertion", std::string(length, 'A'));
        EXPECT_EQ(run(request, request_and_assertion), code) << length;
    }
}

TEST_F(Preprocessor, FindsTheAssertionHeaderInAnyCase)
{
    EXPECT_EQ(run(good_body, request_and_assertion, {{"x-assertion", "YXNz"}}), 0);
}

TEST_F(Preprocessor, GivesTheChecksWhatTheRequestSays)
{
    const paused_request request{good_body, {{"X-Assertion", "YXNz"}, {"User-Agent", "app/1"}}};
    checks.held = "assertion";
    velm_request_preprocessor *const p = start(request, all_checks);
    turn_test_loop();
    EXPECT_EQ(p->client_address.value_or(in_addr{}).s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_STREQ(p->client_device_id, "dev-1");
    EXPECT_STREQ(p->client_device_type, "iOS");
    EXPECT_STREQ(p->client_bssid, "aa:bb:cc:dd:ee:ff");
    EXPECT_STREQ(p->client_username, "admin");
    EXPECT_STREQ(p->client_password, "secret");
    EXPECT_STREQ(p->client_challenge, "c0ffee");
    EXPECT_STREQ(p->client_assertion, "YXNz");
    velm_request_preprocessor_continue(p, 3);
    turn_test_loop();
}

TEST_F(Preprocessor, TracesWhatTheRequestSaysThePasswordIncluded)
{
    run(good_body, request_and_assertion, {{"X-Assertion", "YXNz"}, {"User-Agent", "app/1"}});
    for (const char *text :
         {"preproc_state_handler_request_check [0x", "] - device id:   dev-1",
          "] - device type: iOS", "] - bssid:       aa:bb:cc:dd:ee:ff", "] - username:    admin",
          "] - password:    secret", "] - challenge:   c0ffee", "] - assertion:   YXNz",
          "] - user_agent:  app/1", "preproc_state_handler_init [0x", "] - ip:   127.0.0.1",
          "] - path: /location"}) {
        EXPECT_TRUE(log_.contains(text)) << text;
    }
}

TEST_F(Preprocessor, MakesTheTextOfAnAddressOnlyForALineThatIsWritten)
{
    addresses_printed = 0;
    common_logger_set("level", "debug");
    EXPECT_EQ(run(good_body, request_only), 0);
    EXPECT_EQ(addresses_printed, 0);
    EXPECT_EQ(run("{}", request_only), 1);
    EXPECT_EQ(addresses_printed, 1);
    common_logger_set("level", "trace");
    EXPECT_EQ(run(good_body, request_only), 0);
    EXPECT_EQ(addresses_printed, 2);
}

TEST_F(Preprocessor, StopsReadingAtTheFirstMemberThatWillNotDo)
{
    EXPECT_EQ(run(body_with("bssid", ""), request_and_assertion), 1);
    for (const char *text :
         {"] - device type: iOS", "] - bssid:       (null)", "] - username:    (null)",
          "] - password:    (null)", "] - challenge:   (null)", "] - assertion:   (null)",
          "] - user_agent:  (null)"}) {
        EXPECT_TRUE(log_.contains(text)) << text;
    }
}

// What is told of a request

story_told told_last;
std::string hint_last;

void note_told(evhtp_request_t *request, int break_code)
{
    note_result(request, break_code);
    told_last = story_told_now();
    hint_last = told_last.hint != nullptr ? told_last.hint : "";
}

TEST_F(Preprocessor, LendsWhatTheChecksFoundOutToTheResultCallback)
{
    const paused_request request{good_body, {{"X-Assertion", "YXNz"}}};
    checks.held = "device";
    start(request, all_checks, note_told);
    turn_test_loop();
    checks.waiting->explained = "in words";
    checks.waiting->hint = "seen";
    velm_request_preprocessor_continue(checks.waiting, VELM_BREAK_BSSID);
    turn_test_loop();
    EXPECT_STREQ(told_last.check, story_device_check);
    EXPECT_STREQ(told_last.why, "in words");
    EXPECT_EQ(hint_last, "seen");
    EXPECT_EQ(story_told_now().check, nullptr) << "only while the callback runs";
}

TEST_F(Preprocessor, TellsTheReasonOfTheLogWhereTheCheckGivesNoOther)
{
    const paused_request request{good_body, {{"X-Assertion", "YXNz"}}};
    checks.codes["user_pass"] = VELM_BREAK_LOGIN;
    start(request, all_checks, note_told);
    turn_test_loop();
    EXPECT_STREQ(told_last.check, story_user_pass_check);
    EXPECT_STREQ(told_last.why, "login refused");
    EXPECT_EQ(told_last.hint, nullptr);
}

TEST_F(Preprocessor, TellsOfARequestThatPassedOnlyWhoseItIs)
{
    const paused_request request{good_body, {{"X-Assertion", "YXNz"}}};
    start(request, all_checks, note_told);
    turn_test_loop();
    EXPECT_NE(told_last.device_id, nullptr);
    EXPECT_EQ(told_last.check, nullptr);
    EXPECT_EQ(told_last.why, nullptr);
}

} // namespace
