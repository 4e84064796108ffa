#include "tools/explain/story.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "story/checks.h"
#include "story/view.h"
#include "tools/explain/remedies.h"
#include "tools/explain/text.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

control_moment at(const char *clock)
{
    return *control_moment_parse(std::string{"2026-11-22T"} + clock + ".000Z");
}

const control_moment now = at("12:05:00");

control_push some_push()
{
    return {0, "Anna's iPhone", "iPhone15,2", at("12:03:01"), 182, 200, std::nullopt};
}

control_visit some_visit()
{
    control_visit visit{};
    visit.at = visit.until = at("12:03:05");
    visit.times = 1;
    visit.address = "192.168.1.50";
    visit.device_id = "anna";
    visit.route = "/location";
    visit.status = 200;
    visit.accepted = true;
    return visit;
}

control_visit refused_by(const char *check)
{
    control_visit visit = some_visit();
    visit.accepted = false;
    visit.status = 403;
    visit.check = check;
    visit.why = "a reason";
    return visit;
}

control_round some_round()
{
    control_round round{};
    round.id = 12;
    round.state = "open";
    round.asked = {at("12:03:00"), 123, 0, 1, 60};
    round.run.begun = true;
    return round;
}

control_pairing pairing(const char *device_id, const char *name)
{
    control_pairing made{};
    made.device_id = device_id;
    made.name = name;
    return made;
}

class ExplainStory : public testing::Test {
  protected:
    ExplainStory()
    {
        setenv("TZ", "UTC", 1);
        tzset();
    }

    explain_story story() const
    {
        return explain_round(round, now, names);
    }

    control_round round = some_round();
    explain_names names{{pairing("anna", "Anna's iPhone"), pairing("bob", "Bob's Pixel")}};
};

TEST_F(ExplainStory, ARoundInWhichNothingHappenedHasATitle)
{
    EXPECT_EQ(story().title,
              "Round 12: process 123 (user 0) asked at 12:03:00 for a location within 60 s.");
    EXPECT_THAT(story().sentences, IsEmpty());
    EXPECT_EQ(story().ending, "It is still open, until 12:04:00.");
    EXPECT_EQ(story().cause + story().remedy, "");
    round.asked.timeout_s = 0; // an older daemon may not know
    EXPECT_EQ(story().ending, "");
}

TEST_F(ExplainStory, ALateAnswerIsCalledLate)
{
    round.state = "answered";
    round.closed = at("12:04:30");
    EXPECT_EQ(story().ending, "The request was answered late, after its time was up, at 12:04:30.");
}

TEST_F(ExplainStory, OfAReloadTheDaemonEndedTheConnection)
{
    round.state = "client gone";
    round.cause = "daemon reloaded";
    round.closed = at("12:03:30");
    EXPECT_EQ(story().ending, "The daemon ended the client's connection at 12:03:30.");
    EXPECT_THAT(story().remedy, HasSubstr("Ask again"));
}

TEST_F(ExplainStory, AnOldChallengeIsNoMatterOfTheProof)
{
    round.visits = {refused_by("assertion_check")};
    round.visits[0].why = "its challenge is older than 60 s";
    round.cause = "phones refused";
    EXPECT_THAT(story().sentences,
                ElementsAre("Anna's iPhone came from 192.168.1.50 at 12:03:05 and was refused: its "
                            "challenge is older than 60 s."));
    EXPECT_EQ(story().remedy,
              "The app took longer than 60 s between the challenge and the location: it was "
              "probably stopped in the background. Open the app and ask again.");
}

TEST_F(ExplainStory, TheRemedyIsOfTheRefusalThatTheCauseCounts)
{
    round.cause = "phones refused";
    round.visits = {refused_by("user_pass_check"), refused_by("device_check"), refused_by("tls"),
                    refused_by("request_check")};
    round.visits[0].until = at("12:03:20"); // again, after the BSSID of the other
    round.visits[2].route.reset();
    round.visits[2].until = at("12:03:30");
    round.visits[3].route = "/info";
    round.visits[3].device_id.reset();
    round.visits[3].until = at("12:03:30");
    EXPECT_EQ(story().remedy, explain_check("user_pass_check")->remedy);
}

TEST_F(ExplainStory, APhoneThatIsSpokenOfAgainIsIt)
{
    round.pushes = {some_push()};
    round.visits = {some_visit()};
    round.reports = {{at("12:03:06"), "anna", "192.168.1.50", 2}};
    EXPECT_THAT(story().sentences,
                ElementsAre("Anna's iPhone was pushed to at 12:03:01 (200).",
                            "It posted its location from 192.168.1.50 at 12:03:05.",
                            "Its location went to 2 local clients at 12:03:06."));
}

TEST_F(ExplainStory, TwoPhonesKeepTheirNames)
{
    round.pushes = {some_push(), some_push()};
    round.pushes[1].name = "Bob's Pixel";
    round.pushes[1].at = at("12:03:02");
    round.visits = {some_visit(), some_visit()};
    round.visits[1].device_id = "bob";
    round.visits[1].at = at("12:03:07");
    round.reports = {{at("12:03:06"), "anna", "192.168.1.50", 1}};
    EXPECT_THAT(story().sentences,
                ElementsAre("Anna's iPhone was pushed to at 12:03:01 (200).",
                            "Bob's Pixel was pushed to at 12:03:02 (200).",
                            "Anna's iPhone posted its location from 192.168.1.50 at 12:03:05.",
                            "Its location went to 1 local client at 12:03:06.",
                            "Bob's Pixel posted its location from 192.168.1.50 at 12:03:07."));
}

TEST_F(ExplainStory, TheWrongBssidIsNamed)
{
    round.visits = {refused_by("device_check")};
    round.visits[0].hint = "named 02:11:22:33:44:55, ours: 00:1a:2b:3c:4d:50, 00:1a:2b:3c:4d:51";
    EXPECT_THAT(story().sentences,
                ElementsAre("Anna's iPhone came from 192.168.1.50 at 12:03:05 and was refused: its "
                            "BSSID 02:11:22:33:44:55 is none of this access point's "
                            "(00:1a:2b:3c:4d:50, 00:1a:2b:3c:4d:51)."));
}

TEST_F(ExplainStory, AnyOtherRefusalNamesTheCheckAndWhatItSaw)
{
    round.visits = {refused_by("device_check"), refused_by("user_pass_check"), refused_by("new")};
    round.visits[0].hint = "named xyz";
    round.visits[1].status = 401;
    round.visits[1].route = "/challenge";
    EXPECT_THAT(story().sentences,
                ElementsAre("Anna's iPhone came from 192.168.1.50 at 12:03:05 and was refused by "
                            "the check of its BSSID (403): a reason (named xyz).",
                            "It came from 192.168.1.50 at 12:03:05 with /challenge and was refused "
                            "by the login (401): a reason.",
                            "It came from 192.168.1.50 at 12:03:05 and was refused by new (403): a "
                            "reason."));
}

TEST_F(ExplainStory, AnUnknownPhoneHasItsDeviceId)
{
    round.visits = {some_visit(), some_visit()};
    round.visits[0].device_id = "carl\n";
    round.visits[0].route = "/challenge";
    round.visits[1].device_id.reset();
    round.visits[1].route = "/info";
    EXPECT_THAT(story().sentences,
                ElementsAre("The phone with the device id carl? fetched a challenge from "
                            "192.168.1.50 at 12:03:05.",
                            "Somebody asked for /info from 192.168.1.50 at 12:03:05."));
}

TEST_F(ExplainStory, WhatCameSeveralTimesIsOneSentence)
{
    round.visits = {some_visit()};
    round.visits[0].times = 3;
    round.visits[0].until = at("12:03:09");
    EXPECT_THAT(story().sentences,
                ElementsAre("Anna's iPhone posted its location from 192.168.1.50 at 12:03:05, 3 "
                            "times until 12:03:09."));
}

TEST_F(ExplainStory, ALongNameIsThatOfThePhoneThatWasPushedTo)
{
    const std::string kept(47, 'x');
    const std::string id(47, 'i');
    names = explain_names{{pairing((id + "...").c_str(), (kept + "...").c_str())}};
    round.pushes = {some_push()};
    round.pushes[0].name = kept;
    round.visits = {some_visit()};
    round.visits[0].device_id = id;
    EXPECT_EQ(story().sentences.back(), "It posted its location from 192.168.1.50 at 12:03:05.");
}

struct push_case {
    const char *name;
    std::optional<std::int64_t> status;
    std::optional<std::string> error;
    const char *sentence;
};
class ExplainPush : public ExplainStory, public testing::WithParamInterface<push_case> {};

TEST_P(ExplainPush, SaysWhatBecameOfIt)
{
    round.pushes = {some_push()};
    round.pushes[0].status = GetParam().status;
    round.pushes[0].error = GetParam().error;
    EXPECT_THAT(story().sentences, ElementsAre(GetParam().sentence));
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, ExplainPush,
    testing::Values(
        push_case{"Taken", 200, {}, "Anna's iPhone was pushed to at 12:03:01 (200)."},
        push_case{"NotTaken", 404, "unknown token",
                  "Anna's iPhone was pushed to at 12:03:01, and the push service did not take it "
                  "(404): unknown token."},
        push_case{"NotTakenWithoutReason",
                  500,
                  {},
                  "Anna's iPhone was pushed to at 12:03:01, and the push service did not take it "
                  "(500)."},
        push_case{"Unreachable",
                  {},
                  "no answer",
                  "Anna's iPhone was pushed to at 12:03:01, and the push failed: no answer."},
        push_case{"OnItsWay",
                  {},
                  {},
                  "Anna's iPhone was pushed to at 12:03:01, and the push service has not answered "
                  "yet."}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(ExplainStory, APhoneWithoutANameHasItsSlot)
{
    round.pushes = {some_push(), some_push()};
    round.pushes[0].name = round.pushes[1].name = "";
    round.pushes[1].model = "";
    EXPECT_THAT(story().sentences,
                ElementsAre("The phone in slot 0 (iPhone15,2) was pushed to at 12:03:01 (200).",
                            "The phone in slot 0 was pushed to at 12:03:01 (200)."));
}

TEST_F(ExplainStory, ARunThatWasLeftOutAndWhatIsForgottenAreSaid)
{
    round.run = {false, "too soon", "the last push run began less than 60 s before"};
    round.forgotten = 4;
    EXPECT_THAT(story().sentences,
                ElementsAre("No push was sent: the last push run began less than 60 s before.",
                            "The daemon has forgotten 4 more of what happened."));
}

struct ending_case {
    const char *name, *state, *sentence;
};
class ExplainEnding : public ExplainStory, public testing::WithParamInterface<ending_case> {};

TEST_P(ExplainEnding, HasASentence)
{
    round.state = GetParam().state;
    round.closed = at("12:04:00");
    EXPECT_EQ(story().ending, GetParam().sentence);
}

INSTANTIATE_TEST_SUITE_P(
    States, ExplainEnding,
    testing::Values(
        ending_case{"Answered", "answered", "The request was answered at 12:04:00."},
        ending_case{"Expired", "expired", "The time for the request was up at 12:04:00."},
        ending_case{"Gone", "client gone", "The process that asked went away at 12:04:00."},
        ending_case{"Refused", "refused", "The request was refused at 12:04:00."},
        ending_case{"Unknown", "a new one", "The request ended as a new one at 12:04:00."}),
    [](const auto &row) { return std::string{row.param.name}; });

/// Each row has a remedy, or one comes from what the round holds.
class ExplainCauses : public ExplainStory, public testing::WithParamInterface<const char *> {};

TEST_P(ExplainCauses, HasACauseAndARemedy)
{
    round.pushes = {some_push()};
    round.pushes[0].status = 404;
    round.visits = {refused_by("user_pass_check")};
    round.cause = GetParam();
    const explain_story told = story();
    ASSERT_NE(explain_cause(GetParam()), nullptr);
    EXPECT_EQ(told.cause, std::string{explain_cause(GetParam())->what} + '.');
    EXPECT_NE(told.remedy, "");
    EXPECT_EQ(told.remedy.back(), '.');
}

std::vector<const char *> causes_of_the_daemon()
{
    std::vector<const char *> names;
    for (int cause = 1; cause <= static_cast<int>(story_cause::unknown); ++cause) {
        names.push_back(story_cause_name(static_cast<story_cause>(cause)));
    }
    return names;
}

INSTANTIATE_TEST_SUITE_P(Codes, ExplainCauses, testing::ValuesIn(causes_of_the_daemon()));

TEST_F(ExplainStory, TheDaemonsOwnWordsAreTheCause)
{
    round.cause = "phone never came";
    round.cause_text = "2 pushes left, and no phone came";
    EXPECT_EQ(story().cause, "2 pushes left, and no phone came.");
}

TEST_F(ExplainStory, AnOpenRoundSaysWhatStandsInTheWaySoFar)
{
    round.run = {false, "too soon", "the last push run began less than 60 s before"};
    EXPECT_EQ(story().cause_label, "Likely cause so far:");
    EXPECT_EQ(story().cause, "The last push run began less than 60 s before.");
    EXPECT_EQ(story().remedy, explain_cause("too soon")->remedy);
    round.run = {true, {}, {}};
    round.pushes = {some_push()};
    EXPECT_EQ(story().cause, "");
    round.pushes[0].status = 500;
    EXPECT_EQ(story().cause_label, "Likely cause so far:");
    EXPECT_EQ(story().cause, "The push service took no push.");
    EXPECT_EQ(story().remedy, explain_push_remedy(500));
    round.visits = {refused_by("device_check")};
    EXPECT_EQ(story().cause_label, "Likely cause so far:");
    EXPECT_EQ(story().cause, "Each phone that came was refused.");
    EXPECT_EQ(story().remedy, explain_check("device_check")->remedy);
    round.pushes[0].status = 200;
    round.visits.push_back(some_visit()); // it overcame that
    EXPECT_EQ(story().cause + story().remedy, "");
    round.state = "answered";
    round.run.begun = false;
    round.run.why = "too soon";
    EXPECT_EQ(story().cause, "");
}

TEST_F(ExplainStory, WhatCameAfterTheAnswerIsToldAfterIt)
{
    round.state = "answered";
    round.closed = at("12:03:06");
    round.visits = {some_visit(), some_visit()};
    round.visits[1].at = round.visits[1].until = at("12:03:09");
    EXPECT_THAT(story().sentences,
                ElementsAre("Anna's iPhone posted its location from 192.168.1.50 at 12:03:05.",
                            "The request was answered at 12:03:06.",
                            "Anna's iPhone posted its location from 192.168.1.50 at 12:03:09."));
    EXPECT_EQ(story().ending, "");
    EXPECT_EQ(explain_round(round, now, names, explain_style::alone).cause, "");
}

TEST_F(ExplainStory, AWrongPasswordIsToldInFewWords)
{
    round.visits = {refused_by("user_pass_check")};
    round.visits[0].route = "/challenge";
    round.visits[0].why = "its user name or password is wrong";
    EXPECT_THAT(story().sentences,
                ElementsAre("Anna's iPhone came from 192.168.1.50 at 12:03:05 and was refused: its "
                            "user name or password is wrong."));
}

TEST_F(ExplainStory, TheRemedyOfA404GoesByWhetherThePhoneIsPairedStill)
{
    round.cause = "every push failed";
    round.pushes = {some_push()};
    round.pushes[0].status = 404;
    round.pushes[0].error = "the push token is not registered any more";
    EXPECT_THAT(story().remedy, HasSubstr("the daemon has unpaired the phone"));
    round.pushes[0].error = "the answer is not about the push token";
    EXPECT_THAT(story().remedy, HasSubstr("The phone is paired still. Look whether"));
    round.pushes[0].error = "the phone has another push token by now";
    EXPECT_THAT(story().remedy, HasSubstr("ask again"));
}

TEST_F(ExplainStory, ACauseThatIsNotKnownIsStillTold)
{
    round.cause = "a new one";
    EXPECT_EQ(story().cause, "A new one.");
    EXPECT_EQ(story().remedy, "");
}

TEST_F(ExplainStory, TheRemedyOfRefusedPhonesIsThatOfTheLastRefusal)
{
    round.cause = "phones refused";
    round.visits = {refused_by("user_pass_check"), refused_by("device_check"), some_visit()};
    EXPECT_EQ(story().remedy, explain_check("device_check")->remedy);
    round.visits = {some_visit()};
    EXPECT_EQ(story().remedy, "");
}

TEST_F(ExplainStory, TheRemedyOfFailedPushesIsThatOfTheLastFailure)
{
    round.cause = "every push failed";
    round.pushes = {some_push(), some_push(), some_push()};
    round.pushes[0].status = 500;
    round.pushes[1].status = 404;
    EXPECT_THAT(story().remedy, HasSubstr("pair again"));
    round.pushes[1] = some_push();
    round.pushes[1].status.reset();
    round.pushes[1].error = "no answer";
    EXPECT_THAT(story().remedy, HasSubstr("could not be reached"));
    round.pushes = {some_push()};
    EXPECT_EQ(story().remedy, "");
}

TEST(ExplainRemedies, EachCheckOfTheDaemonHasOne)
{
    for (const char *const check : story_checks) {
        EXPECT_NE(explain_check(check), nullptr) << check;
    }
    EXPECT_EQ(explain_checks().size(), std::size(story_checks));
    EXPECT_EQ(explain_causes().size(), causes_of_the_daemon().size());
}

TEST(ExplainRemedies, EachCheckHasOne)
{
    for (const explain_remedy &row : explain_checks()) {
        EXPECT_EQ(explain_check(row.code), &row) << "twice: " << row.code;
        EXPECT_NE(std::string{row.what}, "") << row.code;
        EXPECT_EQ(std::string{row.remedy}.back(), '.') << row.code;
    }
}

TEST(ExplainRemedies, EachStatusOfAPushHasOne)
{
    for (const int status : {400, 401, 403, 404, 429, 500, 503, 599, 600, 302, 200}) {
        EXPECT_EQ(std::string{explain_push_remedy(status)}.back(), '.');
    }
    EXPECT_STRNE(explain_push_remedy(599), explain_push_remedy(600));
}

TEST_F(ExplainStory, LinesForFollowingAllHaveNames)
{
    round.pushes = {some_push()};
    round.visits = {some_visit()};
    const control_rounds rounds{now, 1, {round}, {refused_by("path")}};
    EXPECT_THAT(explain_to_lines(rounds, names, now),
                ElementsAre("Anna's iPhone came from 192.168.1.50 at 12:03:05 and was refused by "
                            "the list of paths (403): a reason.",
                            story().title,
                            "Round 12: Anna's iPhone was pushed to at 12:03:01 (200).",
                            "Round 12: Anna's iPhone posted its location from 192.168.1.50 at "
                            "12:03:05."));
}

TEST_F(ExplainStory, FiveOfTheVisitsOutsideOfRoundsAreTold)
{
    control_rounds rounds{now, 1, {}, {}};
    const velmctl_paint plain{false};
    EXPECT_EQ(explain_to_text(rounds, 1, names, plain),
              "No local client has asked for a location since the daemon was started.\n");
    rounds.visits.assign(6, some_visit());
    rounds.visits[5] = refused_by("tls");
    const std::string five = explain_to_text(rounds, 1, names, plain);
    EXPECT_THAT(five, HasSubstr("\n\nOutside of the rounds, newest first:\n"));
    EXPECT_EQ(std::count(five.begin(), five.end(), '\n'), 2 + 1 + 5);
    rounds.visits.erase(rounds.visits.begin());
    EXPECT_THAT(explain_to_text(rounds, 1, names, plain),
                HasSubstr(std::string{"\nRemedy: "} + explain_check("tls")->remedy));
}

} // namespace
