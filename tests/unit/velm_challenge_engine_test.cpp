#include "velm_challenge_engine.h"

#include <gtest/gtest.h>
#include <openssl/rand.h>

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "story/reason.h"

namespace {
struct random_stand_in {
    std::optional<int> result; // what RAND_bytes answers; nothing: 1 and the next numbers
    unsigned char next = 0;
    int asked_for = 0;
};
random_stand_in random_source;
} // namespace

extern "C" int RAND_bytes(unsigned char *buffer, int count)
{
    random_source.asked_for = count;
    if (random_source.result.has_value()) {
        return *random_source.result;
    }
    // The last bytes count, so that texts differ at their end only.
    std::fill_n(buffer, count, static_cast<unsigned char>(0xc5));
    static unsigned serial = 0;
    ++serial;
    buffer[count - 2] = static_cast<unsigned char>(serial >> 8);
    buffer[count - 1] = static_cast<unsigned char>(serial);
    if (random_source.next != 0) {
        std::generate_n(buffer, count, [] { return random_source.next++; });
    }
    return 1;
}

namespace {

constexpr std::time_t start = 1'700'000'000;

class ChallengeEngine : public testing::Test {
  protected:
    ChallengeEngine()
    {
        random_source = {};
        fake_clock_set(start);
        velm_challenge_engine_init();
    }
    ~ChallengeEngine() override
    {
        fake_clock_reset();
    }

    static std::string issue()
    {
        const char *challenge = velm_challenge_engine_generate_challenge();
        return challenge == nullptr ? "" : challenge;
    }
    static int consume(const std::string &challenge)
    {
        return velm_challenge_engine_consume_challenge(challenge.c_str());
    }
    static std::vector<std::string> issue_many(int count)
    {
        std::vector<std::string> issued;
        for (int i = 0; i < count; ++i) {
            issued.push_back(issue());
        }
        return issued;
    }
};

TEST_F(ChallengeEngine, AcceptsAChallengeOnce)
{
    const std::string challenge = issue();
    EXPECT_EQ(consume(challenge), 1);
    EXPECT_EQ(consume(challenge), 0);
}

TEST_F(ChallengeEngine, AcceptsAChallengeThatIsExactlySixtySecondsOld)
{
    const std::string challenge = issue();
    fake_clock_advance(60);
    EXPECT_EQ(consume(challenge), 1);
}

TEST_F(ChallengeEngine, RemovesAChallengeWhenTheClockIsSetFrom1970ToAfter2038)
{
    if (sizeof(std::time_t) == 4) {
        GTEST_SKIP() << "no moment after 2038 with the time_t of this libevent";
    }
    fake_clock_set(0);
    const std::string challenge = issue();
    fake_clock_set(static_cast<std::time_t>(2147483708)); // 2^31 and a minute
    EXPECT_EQ(consume(challenge), 0);
}

TEST_F(ChallengeEngine, RemovesAChallengeOfSixtyOneSecondsOnTheNextConsume)
{
    const std::string challenge = issue();
    fake_clock_advance(61);
    const captured_log log;
    EXPECT_EQ(consume(challenge), 0);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "TRACE velm_challenge_engine - challenge_entries_remove_outdated - removed "
                  "challenge: " +
                      challenge,
                  "TRACE velm_challenge_engine - velm_challenge_engine_consume_challenge - no "
                  "challenge: " +
                      challenge}));
}

TEST_F(ChallengeEngine, RemovesOnlyOutdatedChallengesOnTheNextIssue)
{
    const std::string old = issue();
    fake_clock_advance(1);
    const std::string young = issue();
    fake_clock_advance(60);
    const captured_log log;
    EXPECT_NE(issue(), "");
    EXPECT_EQ(log.count("removed challenge: " + old), 1);
    EXPECT_EQ(log.count("removed challenge"), 1);
    EXPECT_TRUE(log.has("TRACE velm_challenge_engine - velm_challenge_engine_generate_challenge - "
                        "pending challenges: 1"));
    EXPECT_EQ(consume(young), 1);
}

TEST_F(ChallengeEngine, RemovesOutdatedChallengesFromTheMiddleWhenTheClockWasSetBack)
{
    const std::string first = issue();
    fake_clock_advance(-30);
    const std::string second = issue();
    fake_clock_advance(30);
    const std::string third = issue();
    fake_clock_advance(45);
    EXPECT_EQ(consume(second), 0);
    EXPECT_EQ(consume(first), 1);
    EXPECT_EQ(consume(third), 1);
}

TEST_F(ChallengeEngine, KeepsAChallengeWhenTheClockIsSetBack)
{
    const std::string challenge = issue();
    fake_clock_advance(-1'000'000);
    EXPECT_EQ(consume(challenge), 1);
}

TEST_F(ChallengeEngine, KeepsAChallengeNoLongerThanItsTimeWhenTheClockIsSetBack)
{
    const std::string one = issue();
    const std::string two = issue();
    fake_clock_advance(-3600);
    fake_clock_advance_steady(60);
    EXPECT_EQ(consume(one), 1);
    fake_clock_advance_steady(1);
    EXPECT_EQ(consume(two), 0);
}

TEST_F(ChallengeEngine, IssuesAgainAMinuteAfterAThousandAlsoWhenTheClockIsSetBack)
{
    issue_many(1000);
    fake_clock_advance(-3600);
    EXPECT_EQ(issue(), "");
    fake_clock_advance_steady(61);
    EXPECT_NE(issue(), "");
}

TEST_F(ChallengeEngine, RefusesToIssueWhileAThousandWait)
{
    issue_many(999);
    EXPECT_NE(issue(), "");
    const captured_log log;
    EXPECT_EQ(velm_challenge_engine_generate_challenge(), nullptr);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "TRACE velm_challenge_engine - velm_challenge_engine_generate_challenge - "
                  "pending challenges: 1000",
                  "WARN velm_challenge_engine - velm_challenge_engine_generate_challenge - too "
                  "many pending challenges"}));
}

TEST_F(ChallengeEngine, EvictsNothingWhenItRefusesToIssue)
{
    const std::vector<std::string> issued = issue_many(1000);
    EXPECT_EQ(issue(), "");
    for (const std::string &challenge : issued) {
        EXPECT_EQ(consume(challenge), 1);
    }
}

TEST_F(ChallengeEngine, IssuesAgainAfterOneOfAThousandIsConsumed)
{
    const std::vector<std::string> issued = issue_many(1000);
    EXPECT_EQ(issue(), "");
    EXPECT_EQ(consume(issued[500]), 1);
    EXPECT_NE(issue(), "");
    EXPECT_EQ(issue(), "");
}

TEST_F(ChallengeEngine, IssuesAgainAfterOneOfAThousandExpires)
{
    issue();
    fake_clock_advance(1);
    issue_many(999);
    fake_clock_advance(59);
    EXPECT_EQ(issue(), "");
    fake_clock_advance(1);
    EXPECT_NE(issue(), "");
    EXPECT_EQ(issue(), "");
}

TEST_F(ChallengeEngine, RefusesAPrefixOfAChallenge)
{
    const std::string challenge = issue();
    EXPECT_EQ(consume(challenge.substr(0, 31)), 0);
    EXPECT_EQ(consume(""), 0);
    EXPECT_EQ(consume(challenge), 1);
}

TEST_F(ChallengeEngine, RefusesAChallengeWithCharactersBehindIt)
{
    const std::string challenge = issue();
    EXPECT_EQ(consume(challenge + "0"), 0);
    EXPECT_EQ(consume(challenge + " "), 0);
    EXPECT_EQ(consume(challenge), 1);
}

TEST_F(ChallengeEngine, RefusesAnUpperCaseCopy)
{
    std::string challenge = issue();
    std::string upper = challenge;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    ASSERT_NE(upper, challenge);
    EXPECT_EQ(consume(upper), 0);
    EXPECT_EQ(consume(challenge), 1);
}

TEST_F(ChallengeEngine, RefusesWhatWasNeverIssued)
{
    EXPECT_EQ(consume("00112233445566778899aabbccddeeff"), 0);
    issue();
    EXPECT_EQ(consume("00112233445566778899aabbccddeeff"), 0);
}

TEST_F(ChallengeEngine, EveryChallengeIsThirtyTwoLowerCaseHexadecimalDigits)
{
    const std::vector<std::string> issued = issue_many(1000);
    for (const std::string &challenge : issued) {
        EXPECT_EQ(challenge.size(), 32U);
        EXPECT_EQ(challenge.find_first_not_of("0123456789abcdef"), std::string::npos) << challenge;
    }
    EXPECT_EQ(std::set<std::string>(issued.begin(), issued.end()).size(), 1000U);
}

TEST_F(ChallengeEngine, AChallengeSpellsTheSixteenDrawnBytesInOrder)
{
    random_source.next = 0xf1;
    EXPECT_EQ(issue(), "f1f2f3f4f5f6f7f8f9fafbfcfdfeff00");
    EXPECT_EQ(random_source.asked_for, 16);
}

TEST_F(ChallengeEngine, InitForgetsEveryChallengeAndSaysSoInOrderOfIssue)
{
    const std::vector<std::string> issued = issue_many(2);
    const captured_log log;
    velm_challenge_engine_init();
    const std::string removed =
        "TRACE velm_challenge_engine - challenge_entries_remove_all - removed challenge: ";
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"TRACE velm_challenge_engine - velm_challenge_engine_init",
                                        removed + issued[0], removed + issued[1]}));
    EXPECT_EQ(consume(issued[0]), 0);
    EXPECT_EQ(consume(issued[1]), 0);
}

TEST_F(ChallengeEngine, SaysWhatItIssuesAndFinds)
{
    const captured_log log;
    const std::string challenge = issue();
    EXPECT_EQ(consume(challenge), 1);
    EXPECT_EQ(
        log.lines(),
        (std::vector<std::string>{
            "TRACE velm_challenge_engine - velm_challenge_engine_generate_challenge - "
            "pending challenges: 0",
            "TRACE velm_challenge_engine - velm_challenge_engine_generate_challenge - " + challenge,
            "TRACE velm_challenge_engine - velm_challenge_engine_consume_challenge - found "
            "challenge: " +
                challenge}));
}

TEST_F(ChallengeEngine, ANullChallengeEndsTheProcess)
{
    const captured_log log;
    EXPECT_DEATH((void)velm_challenge_engine_consume_challenge(nullptr),
                 "challenge_entry_find: challenge is null: null reference");
}

TEST_F(ChallengeEngine, AClockThatCannotBeReadEndsTheProcess)
{
    const captured_log log;
    fake_clock_break();
    EXPECT_DEATH((void)velm_challenge_engine_generate_challenge(),
                 "challenge_entries_remove_outdated: cannot get time now");
    EXPECT_DEATH((void)velm_challenge_engine_consume_challenge("x"),
                 "challenge_entries_remove_outdated: cannot get time now");
}

class FailingRandomGenerator : public testing::TestWithParam<int> {};

TEST_P(FailingRandomGenerator, EndsTheProcess)
{
    fake_clock_set(start);
    velm_challenge_engine_init();
    const captured_log log;
    random_source.result = GetParam();
    EXPECT_DEATH((void)velm_challenge_engine_generate_challenge(),
                 "ERROR velm_challenge_engine - velm_challenge_engine_generate_challenge: ssl call "
                 "failed: RAND_bytes\\(challenge \\+ 16, 16\\) result: " +
                     std::to_string(GetParam()) + " loc: src/velm_challenge_engine.cpp:[0-9]+");
    random_source = {};
    fake_clock_reset();
}
INSTANTIATE_TEST_SUITE_P(Results, FailingRandomGenerator, testing::Values(0, -1, 2));

TEST_F(ChallengeEngine, SaysOfAChallengeOnlyWhenItIsThereThatItIsTooOld)
{
    (void)story_reason_take();
    const std::string challenge = velm_challenge_engine_generate_challenge();
    EXPECT_EQ(velm_challenge_engine_consume_challenge("never issued"), 0);
    EXPECT_EQ(story_reason_take().text, nullptr);
    fake_clock_advance(61);
    EXPECT_EQ(velm_challenge_engine_consume_challenge(challenge.c_str()), 0);
    EXPECT_STREQ(story_reason_take().text, "its challenge is older than 60 s");
}

} // namespace
