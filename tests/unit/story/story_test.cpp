#include "story/story.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "fakes/heap_in_use.h"
#include "logger/common_logger.h"
#include "metrics/metrics.h"
#include "story/view.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char location[] = "/location";
constexpr char challenge[] = "/challenge";
constexpr char not_ours[] = "the BSSID is none of this access point's";

in_addr_t address_of(const char *text)
{
    return inet_addr(text);
}

const in_addr_t phone_address = address_of("192.168.1.50");

story_visit_note accepted_at(const char *route)
{
    return {phone_address, "phone", route, 200, nullptr, nullptr, nullptr};
}

story_visit_note refused_at(const char *route)
{
    return {phone_address, "phone", route, 409, story_device_check, not_ours, "02:00:00:00:00:01"};
}

class Story : public testing::Test {
  protected:
    Story()
    {
        story_forget();
    }
    ~Story() override
    {
        story_forget();
    }

    /// A request that led to a push, which the push service took.
    static void ask(std::uint32_t seq, std::uint32_t timeout_s = 60)
    {
        story_request_came(seq, {.pid = 42, .uid = 7, .request_id = 100 + seq});
        story_request_wants(seq, timeout_s);
        story_run_asked(seq);
        story_run_begins();
        story_push_ends(push(), 200, nullptr);
    }

    static std::uint64_t push(const char *name = "Anna's iPhone")
    {
        return story_push_begins({story_run_number(), 0, name, "iPhone15,2"});
    }

    static void report()
    {
        story_report_sent(2);
        story_report_done("phone", phone_address);
    }

    static story_round_view newest()
    {
        return story_look().rounds.at(0);
    }

    static std::string cause()
    {
        return story_cause_name(story_cause_of(*newest().round));
    }

    static std::string text()
    {
        return story_cause_text(*newest().round);
    }

    captured_log log_;
};

TEST_F(Story, OfAGoodRoundHasWhoAskedThePushTheVisitsAndTheReport)
{
    ask(1);
    story_visit_came(accepted_at(challenge));
    story_visit_came(accepted_at(location));
    report();
    const story_round_view view = newest();
    EXPECT_EQ(view.round->state, story_state::answered);
    EXPECT_EQ(view.round->pid, 42);
    EXPECT_EQ(view.round->uid, 7U);
    EXPECT_EQ(view.round->request_id, 101U);
    EXPECT_EQ(view.round->timeout_s, 60U);
    EXPECT_NE(view.round->closed, 0);
    ASSERT_THAT(view.pushes, SizeIs(1));
    EXPECT_STREQ(view.pushes[0]->name, "Anna's iPhone");
    EXPECT_TRUE(view.pushes[0]->ended);
    ASSERT_THAT(view.visits, SizeIs(2));
    EXPECT_STREQ(view.visits[1]->route, location);
    ASSERT_THAT(view.reports, SizeIs(1));
    EXPECT_EQ(view.reports[0]->clients, 2U);
    EXPECT_EQ(story_cause_of(*view.round), story_cause::none);
    EXPECT_TRUE(log_.has("INFO story - story_round_log - round 1 (pid 42, request 101) answered: "
                         "1 pushes, 2 visits, 1 reports"));
}

TEST_F(Story, OfAVisitAfterTheAnswerIsNotOfTheRound)
{
    ask(1);
    report();
    story_visit_came(accepted_at(challenge));
    EXPECT_THAT(newest().visits, IsEmpty());
    EXPECT_THAT(story_look().visits, SizeIs(1));
}

/// Two phones are pushed to, the first one answers.
class StoryLate : public Story {
  protected:
    StoryLate()
    {
        ask(1);
        push_to("phone");
        push_to("second");
        story_visit_came(accepted_at(location));
        report();
    }

    static void push_to(const char *device_id)
    {
        const auto number =
            story_push_begins({story_run_number(), 0, device_id, "iPhone15,2", device_id});
        story_push_ends(number, 200, nullptr);
    }

    static void second_comes(const char *route = location)
    {
        story_visit_came({address_of("192.168.1.51"), "second", route, 200});
    }
};

TEST_F(StoryLate, APhoneThatWasPushedToIsToldInTheRoundThatAnotherOneAnswered)
{
    const std::int64_t closed = newest().round->closed;
    second_comes();
    second_comes();
    story_report_sent(2);
    story_report_done("second", address_of("192.168.1.51"));
    const story_round_view view = newest();
    EXPECT_EQ(view.round->closed, closed);
    ASSERT_THAT(view.visits, SizeIs(2));
    EXPECT_STREQ(view.visits[1]->device_id, "second");
    EXPECT_EQ(view.visits[1]->times, 2U);
    ASSERT_THAT(view.reports, SizeIs(2));
    EXPECT_STREQ(view.reports[1]->device_id, "second");
    EXPECT_EQ(view.forgotten_visits, 0U);
    EXPECT_EQ(view.forgotten_reports, 0U);
    EXPECT_THAT(story_look().visits, IsEmpty());
    EXPECT_EQ(log_.count("story_round_log"), 1);
}

TEST_F(StoryLate, ARefusalOfItIsToldThereAndIsNoCause)
{
    story_visit_came({address_of("192.168.1.51"), "second", location, 409, story_device_check,
                      not_ours, nullptr});
    EXPECT_THAT(newest().visits, SizeIs(2));
    EXPECT_EQ(cause(), "");
}

TEST_F(StoryLate, APhoneThatWasNotPushedToIsToldOutsideOfTheRound)
{
    story_visit_came({address_of("192.168.1.52"), "third", location, 200});
    story_report_sent(2);
    story_report_done("third", address_of("192.168.1.52"));
    EXPECT_THAT(newest().visits, SizeIs(1));
    EXPECT_THAT(newest().reports, SizeIs(1));
    EXPECT_THAT(story_look().visits, SizeIs(1));
}

TEST_F(StoryLate, AMinuteAfterTheAnswerItIsToldOutsideOfTheRound)
{
    fake_clock_advance_steady(59);
    second_comes();
    EXPECT_THAT(newest().visits, SizeIs(2));
    fake_clock_advance_steady(1);
    second_comes(challenge);
    EXPECT_THAT(newest().visits, SizeIs(2));
    EXPECT_THAT(story_look().visits, SizeIs(1));
}

TEST_F(StoryLate, WhileTheNextRoundWaitsItIsToldInBoth)
{
    story_request_came(2, {.pid = 42, .uid = 7, .request_id = 102});
    second_comes();
    const story_view seen = story_look();
    EXPECT_THAT(seen.rounds[0].visits, SizeIs(1));
    EXPECT_THAT(seen.rounds[1].visits, SizeIs(2));
}

TEST_F(StoryLate, OfThemTooItIsSaidHowManyAreForgotten)
{
    for (in_addr_t stranger = 1; stranger <= 200; ++stranger) {
        second_comes(stranger % 2 == 0 ? location : challenge);
    }
    const story_round_view view = newest();
    EXPECT_EQ(view.visits.size() + view.forgotten_visits, 201U);
    EXPECT_GT(view.forgotten_visits, 0U);
}

TEST_F(Story, OfAVisitBelongsToEveryRoundThatWaits)
{
    ask(1);
    story_visit_came(accepted_at(challenge));
    story_request_came(2, {1, 1, 2});
    story_visit_came(accepted_at(location));
    const story_view view = story_look();
    EXPECT_THAT(view.rounds[0].visits, SizeIs(1));
    EXPECT_THAT(view.rounds[1].visits, SizeIs(2));
}

TEST_F(Story, TellsTheSamePhoneAgainAsTimes)
{
    for (int i = 0; i < 5; ++i) {
        story_visit_came(refused_at(location));
    }
    ASSERT_THAT(story_look().visits, SizeIs(1));
    EXPECT_EQ(story_look().visits[0]->times, 5U);
    EXPECT_GE(story_look().visits[0]->until, story_look().visits[0]->at);
}

TEST_F(Story, TellsPhonesThatTakeTurnsAsTimes)
{
    const char *const hosts[] = {"10.0.0.1", "10.0.0.2", "10.0.0.17", "10.0.1.1"};
    for (int i = 0; i < 5; ++i) {
        for (const char *host : hosts) {
            story_visit_came(
                {.address = address_of(host), .route = location, .check = story_device_check});
        }
    }
    const auto visits = story_look().visits;
    ASSERT_THAT(visits, SizeIs(4));
    for (const story_visit *visit : visits) {
        EXPECT_EQ(visit->times, 5U);
    }
}

TEST_F(Story, OfAnAddressThatAlternatesRepeatsOnlyItsNewest)
{
    for (const char *route : {location, challenge, location}) {
        story_visit_came({.address = phone_address, .route = route, .check = story_device_check});
        story_visit_came({.address = address_of("10.0.0.1"), .route = route});
    }
    EXPECT_THAT(story_look().visits, SizeIs(6));
}

TEST_F(Story, OfTheSameVisitBeforeAndAfterARoundBeganHasTwo)
{
    ask(1);
    story_visit_came(refused_at(location));
    ask(2);
    story_visit_came(refused_at(location));
    const story_view view = story_look();
    ASSERT_THAT(view.rounds[0].visits, SizeIs(1));
    EXPECT_EQ(view.rounds[0].visits[0]->times, 1U);
    EXPECT_THAT(view.rounds[1].visits, SizeIs(2));
}

TEST_F(Story, OneAddressTakesAQuarterOfTheVisitsAndReplacesItsOwn)
{
    const char *const hosts[] = {"10.0.0.1", "10.0.0.2", "10.0.0.3"};
    for (const char *host : hosts) {
        story_visit_came(
            {.address = address_of(host), .route = location, .check = story_device_check});
    }
    for (int i = 0; i < 1000; ++i) {
        const std::string id = std::to_string(i);
        story_visit_came({.address = phone_address, .device_id = id.c_str(), .route = challenge});
    }
    const auto visits = story_look().visits;
    ASSERT_THAT(visits, SizeIs(16 + 3));
    EXPECT_STREQ(visits.front()->device_id, "999");
    EXPECT_EQ(visits.back()->address, address_of("10.0.0.1"));
}

TEST_F(Story, SaysHowManyVisitsOfARoundAreForgotten)
{
    ask(1);
    for (int i = 0; i < 30; ++i) {
        const std::string id = std::to_string(i);
        story_visit_came({.address = phone_address, .device_id = id.c_str(), .route = challenge});
    }
    EXPECT_THAT(newest().visits, SizeIs(24));
    EXPECT_EQ(newest().forgotten_visits, 6U);
}

TEST_F(Story, RemembersTheLast32Rounds)
{
    for (std::uint32_t seq = 1; seq <= 40; ++seq) {
        story_request_came(seq, {1, 0, seq});
    }
    const auto rounds = story_look().rounds;
    ASSERT_THAT(rounds, SizeIs(32));
    EXPECT_EQ(rounds.front().round->id, 40U);
    EXPECT_EQ(rounds.back().round->id, 9U);
    story_client_gone(3); // long forgotten
    story_clients_gone();
    EXPECT_EQ(story_look().rounds.front().round->state, story_state::client_gone);
}

TEST_F(Story, OfPairingsAndRefusalsBeforeARouteIsToldBesideTheRoundToo)
{
    ask(1);
    story_visit_came(accepted_at("/pair"));
    story_visit_came({.address = phone_address, .check = story_tls, .why = "bad certificate"});
    story_visit_came(accepted_at(challenge));
    EXPECT_THAT(newest().visits, SizeIs(3));
    EXPECT_THAT(story_look().visits, SizeIs(2));
}

TEST_F(Story, ClosesARoundWhenItsClientHasWaited)
{
    ask(1, 60);
    fake_clock_advance_steady(59);
    story_close_expired();
    EXPECT_EQ(newest().round->state, story_state::open);
    fake_clock_advance_steady(2);
    story_close_expired();
    EXPECT_EQ(newest().round->state, story_state::expired);
    EXPECT_EQ(cause(), "phone never came");
    EXPECT_EQ(text(),
              "the push service took the push to Anna's iPhone, but the phone did not come");
    EXPECT_TRUE(log_.has("INFO story - story_round_log - round 1 (pid 42, request 101) expired: "
                         "1 pushes, 0 visits, 0 reports; phone never came: the push service took "
                         "the push to Anna's iPhone, but the phone did not come"));
}

TEST_F(Story, OfALateLocationAnswersTheExpiredRound)
{
    ask(1, 5);
    fake_clock_advance_steady(6);
    story_close_expired();
    story_visit_came(accepted_at(location));
    EXPECT_EQ(cause(), "phone never came");
    const auto answered = metrics_get(metric::rounds_first, 0);
    const auto expired = metrics_get(metric::rounds_first, 1);
    report();
    EXPECT_EQ(newest().round->state, story_state::answered);
    EXPECT_EQ(cause(), "");
    EXPECT_THAT(newest().reports, SizeIs(1));
    EXPECT_EQ(metrics_get(metric::rounds_first, 0), answered);
    EXPECT_EQ(metrics_get(metric::rounds_first, 1), expired);
    EXPECT_FALSE(log_.contains("answered"));
}

TEST_F(Story, OfAVisitAfterTheTimeWasUpIsNotOfTheRound)
{
    ask(1, 5);
    fake_clock_advance_steady(6);
    story_close_expired();
    story_visit_came(refused_at(location));
    EXPECT_EQ(cause(), "phone never came");
    EXPECT_THAT(newest().visits, IsEmpty());
    EXPECT_THAT(story_look().visits, SizeIs(1));
    ask(2);
    story_visit_came(refused_at(location));
    EXPECT_THAT(story_look().rounds[0].visits, SizeIs(1));
    EXPECT_THAT(story_look().rounds[1].visits, IsEmpty());
}

TEST_F(Story, OfARequestThatWasDroppedWaitsNoMore)
{
    ask(1, 5);
    fake_clock_advance_steady(6);
    story_close_expired();
    story_request_dropped(1);
    report();
    EXPECT_EQ(newest().round->state, story_state::expired);
    EXPECT_THAT(newest().reports, IsEmpty());
}

TEST_F(Story, ATimeOutOfZeroOrTooLongIsAsLongAsARequestIsKept)
{
    ask(1, 0);
    EXPECT_EQ(newest().round->timeout_s, 600U);
    ask(2, 65535);
    EXPECT_EQ(newest().round->timeout_s, 600U);
}

TEST_F(Story, OfAListOfLocationsHasAllItsReports)
{
    ask(1);
    story_visit_came(accepted_at(location));
    report();
    report();
    story_visit_came({.address = address_of("10.0.0.9"), .route = "/info", .status = 200});
    report();
    EXPECT_THAT(newest().reports, SizeIs(3));
    story_visit_came(accepted_at(location));
    report();
    EXPECT_THAT(newest().reports, SizeIs(3));
}

TEST_F(Story, AReportThatNoClientGotAnswersNoRound)
{
    ask(1);
    story_report_sent(0);
    story_report_done("phone", phone_address);
    EXPECT_EQ(newest().round->state, story_state::open);
    EXPECT_THAT(newest().reports, SizeIs(1));
}

TEST_F(Story, HasOneRoundForAClientThatIsBusyAgainAndAgain)
{
    for (std::uint32_t seq = 1; seq <= 100; ++seq) {
        story_request_came(seq, {9, 0, seq});
        story_request_refused(seq, story_cause::busy);
    }
    ASSERT_THAT(story_look().rounds, SizeIs(1));
    EXPECT_EQ(newest().round->state, story_state::refused);
    EXPECT_EQ(cause(), "busy");
}

// Why nothing came.

TEST_F(Story, CauseNoPairings)
{
    story_request_came(1, {1, 0, 1});
    story_request_refused(1, story_cause::no_pairings);
    EXPECT_EQ(cause(), "no pairings");
    EXPECT_EQ(text(), "no phone is paired");
}

TEST_F(Story, CauseTooSoon)
{
    story_request_came(1, {1, 0, 1});
    story_run_asked(1);
    story_run_left_out(story_cause::too_soon);
    story_client_gone(1);
    EXPECT_EQ(cause(), "too soon");
    EXPECT_EQ(text(), "the last push run began less than 60 s before");
}

TEST_F(Story, CausePhonesRefusedSaysAlsoThatNoPushWasSent)
{
    story_request_came(1, {1, 0, 1});
    story_run_asked(1);
    story_run_left_out(story_cause::too_soon);
    story_visit_came(refused_at(location));
    story_client_gone(1);
    EXPECT_EQ(cause(), "phones refused");
    EXPECT_EQ(text(), std::string{"a phone came and was refused: "} + not_ours +
                          "; no push was sent: the last push run began less than 60 s before");
}

TEST_F(Story, CauseNoAccessTokenNamesTheStatus)
{
    story_request_came(1, {1, 0, 1});
    story_run_asked(1);
    story_run_begins();
    story_run_failed(story_run_number(), story_cause::no_access_token, 403);
    story_client_gone(1);
    EXPECT_EQ(cause(), "no access token");
    EXPECT_EQ(text(), "no access token for the push service could be had (status 403)");
}

TEST_F(Story, CauseEveryPushFailedNamesTheStatus)
{
    story_request_came(1, {1, 0, 1});
    story_run_asked(1);
    story_run_begins();
    story_push_ends(push(), 404, "its push token is not registered any more");
    story_push_ends(push(), 500, "no");
    story_request_dropped(1);
    EXPECT_EQ(cause(), "every push failed");
    EXPECT_EQ(text(), "the push service took none of the pushes (status 500)");
}

TEST_F(Story, CausePhonesRefusedSaysAlsoThatEveryPushFailed)
{
    story_request_came(1, {1, 0, 1});
    story_run_asked(1);
    story_run_begins();
    story_push_ends(push(), 403, "no");
    story_visit_came(refused_at(location));
    story_request_dropped(1);
    EXPECT_EQ(cause(), "phones refused");
    EXPECT_EQ(text(), std::string{"a phone came and was refused: "} + not_ours +
                          "; the push service took none of the pushes (status 403)");
}

/// A run that has begun, and a push for each of `pushes`.
class StoryPending : public Story, public testing::WithParamInterface<int> {
  protected:
    static void ask_slowly(int pushes)
    {
        story_request_came(1, {1, 0, 1});
        story_request_wants(1, 60);
        story_run_asked(1);
        story_run_begins();
        for (int i = 0; i < pushes; ++i) {
            push();
        }
    }

    static void expire()
    {
        fake_clock_advance_steady(61);
        story_close_expired();
    }
};

TEST_P(StoryPending, IsTheCauseWhenThePushServiceHasNotAnswered)
{
    ask_slowly(GetParam());
    expire();
    EXPECT_EQ(cause(), "push pending");
    EXPECT_EQ(text(), std::string{"no push had "} + (GetParam() == 0 ? "left" : "been answered") +
                          " when the time was up: the daemon was still waiting for the push "
                          "service");
    EXPECT_TRUE(log_.contains("expired: " + std::to_string(GetParam()) + " pushes, 0 visits"));
    EXPECT_TRUE(log_.contains("; push pending: no push had "));
}

INSTANTIATE_TEST_SUITE_P(Pushes, StoryPending, testing::Values(0, 1, 3));

TEST_F(StoryPending, OneRefusedPushLeavesTheOthers)
{
    ask_slowly(2);
    story_push_ends(push(), 404, "no");
    expire();
    EXPECT_EQ(cause(), "push pending");
    EXPECT_THAT(text(), HasSubstr("no push had been taken when the time was up"));
}

TEST_F(StoryPending, APushThatIsTakenLateLeavesTheCause)
{
    ask_slowly(0);
    expire();
    story_push_ends(push(), 200, nullptr);
    EXPECT_EQ(cause(), "push pending");
    EXPECT_THAT(text(), HasSubstr("no push had left"));
}

TEST_F(StoryPending, ALateRefusalOfTheAccessTokenIsTheCause)
{
    ask_slowly(0);
    expire();
    story_run_failed(story_run_number(), story_cause::no_access_token, 0);
    EXPECT_EQ(cause(), "no access token");
    EXPECT_FALSE(log_.contains("; no access token"));
}

TEST_F(Story, OnePushThatWasTakenIsEnoughToAskWhyNoPhoneCame)
{
    ask(1);
    story_push_ends(push(), 404, "no");
    story_request_dropped(1);
    EXPECT_EQ(cause(), "phone never came");
    EXPECT_THAT(text(), HasSubstr("the push service took 1 of 2 pushes, but no phone came"));
}

TEST_F(Story, CausePhonesRefusedNamesTheLastReason)
{
    ask(1);
    story_visit_came(
        {phone_address, "phone", challenge, 401, story_user_pass_check, "login", nullptr});
    story_visit_came(accepted_at(challenge));
    story_visit_came(refused_at(location));
    story_request_dropped(1);
    EXPECT_EQ(cause(), "phones refused");
    EXPECT_EQ(text(), std::string{"a phone came and was refused: "} + not_ours);
}

TEST_F(Story, ARefusalThatThePhoneOvercameIsNotTheCause)
{
    ask(1);
    story_visit_came(
        {phone_address, "phone", challenge, 401, story_user_pass_check, "login", nullptr});
    story_visit_came(accepted_at(challenge));
    story_request_dropped(1);
    EXPECT_EQ(cause(), "unknown");
    EXPECT_EQ(text(), "a phone came, but it posted no location");
}

TEST_F(Story, ALocationThatIsRefusedAfterItsAnswerIsARefusal)
{
    ask(1);
    story_visit_came(accepted_at(location));
    story_visit_came(
        {phone_address, "phone", location, 0, story_location_check, "not finite", nullptr});
    story_request_dropped(1);
    EXPECT_EQ(cause(), "phones refused");
    EXPECT_TRUE(log_.contains("1 pushes, 1 visits, 0 reports; phones refused"));
}

TEST_F(Story, CauseClientGone)
{
    ask(1);
    story_client_gone(1);
    EXPECT_EQ(cause(), "client gone");
    EXPECT_EQ(newest().round->state, story_state::client_gone);
}

TEST_F(Story, CauseDaemonReloaded)
{
    ask(1);
    story_clients_gone();
    EXPECT_EQ(cause(), "daemon reloaded");
    EXPECT_THAT(text(), HasSubstr("the daemon ended the client's connection"));
    EXPECT_EQ(newest().round->state, story_state::client_gone);
}

TEST_F(Story, OfAPhoneWithoutANameOrOfSeveralNeverCameNamesNone)
{
    story_request_came(1, {1, 0, 1});
    story_run_asked(1);
    story_run_begins();
    story_push_ends(push(""), 200, nullptr);
    story_request_dropped(1);
    EXPECT_EQ(text(), "the push service took the push, but the phone did not come");
    ask(2);
    story_push_ends(push("Bob's Pixel"), 200, nullptr);
    story_request_dropped(2);
    EXPECT_EQ(text(), "the push service took 2 pushes, but no phone came");
}

TEST_F(Story, AClientThatLeavesWhenItsTimeIsUpHasWaited)
{
    ask(1, 60);
    fake_clock_advance_steady(60);
    story_client_gone(1);
    EXPECT_EQ(newest().round->state, story_state::expired);
    EXPECT_EQ(cause(), "phone never came");
}

TEST_F(Story, OfARefusalBeforeARouteIsNamedWhenNoPhoneCame)
{
    ask(1);
    story_visit_came({.address = phone_address, .check = story_tls, .why = "unknown ca"});
    story_request_dropped(1);
    EXPECT_EQ(cause(), "phone never came");
    EXPECT_THAT(text(), HasSubstr("refused before it reached a route: unknown ca"));
}

TEST_F(Story, InfoIsNoVisitOfAPhone)
{
    ask(1);
    story_visit_came({.address = phone_address, .route = "/info", .status = 200});
    story_request_dropped(1);
    EXPECT_EQ(cause(), "phone never came");
}

// Its keeping.

TEST_F(Story, CutsTextsBetweenCharacters)
{
    std::string name(46, 'a');
    name += "\xc3\xa9"; // é ends where the terminator must be
    ask(1);
    push(name.c_str());
    EXPECT_EQ(newest().pushes[1]->name, std::string(46, 'a'));
}

TEST_F(Story, TakesAtMost56KibibytesAndAllocatesNothingHoweverMuchHappens)
{
    EXPECT_LE(story_size(), std::size_t{56} * 1024);
    common_logger_set("enabled", "no");
    const std::string longest(1000, 'x');
    const std::size_t before = heap_in_use();
    for (std::uint32_t seq = 1; seq <= 100; ++seq) {
        story_request_came(seq, {1, 0, seq});
        story_run_asked(seq);
        story_run_begins();
        story_push_ends(push(longest.c_str()), 500, longest.c_str());
        story_visit_came({.address = seq,
                          .device_id = longest.c_str(),
                          .route = "/pair",
                          .status = 500,
                          .check = story_endpoint,
                          .why = "why",
                          .hint = longest.c_str()});
        story_report_sent(seq % 2);
        story_report_done(longest.c_str(), seq);
    }
    EXPECT_EQ(heap_in_use(), before);
}

TEST_F(Story, TellsEachChangeOnce)
{
    static int changes;
    changes = 0;
    story_subscribe([] { ++changes; });
    const std::uint64_t before = story_latest();
    story_visit_came(accepted_at(challenge));
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(story_latest(), before + 1);
    report();
    EXPECT_EQ(changes, 2);
    story_subscribe(nullptr);
    report();
    EXPECT_EQ(changes, 2);
}

TEST_F(Story, OfAPushThatIsForgottenTakesNoEnd)
{
    ask(1);
    const std::uint64_t first = push("first");
    for (int i = 0; i < 64; ++i) {
        push("other");
    }
    story_push_ends(first, 500, "late");
    for (const story_push *one : newest().pushes) {
        EXPECT_STREQ(one->error, "");
    }
    EXPECT_EQ(newest().forgotten_pushes, 2U);
    story_push_ends(0, 500, "none was begun");
}

} // namespace
