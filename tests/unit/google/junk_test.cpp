#include "google/junk.h"

#include <gtest/gtest.h>

#include <vector>

#include "fakes/fake_clock.h"

namespace {

// The module remembers an hour, so that each test has a day of its own.
std::time_t today = 1700000000;

in_addr host(unsigned number)
{
    return {htonl(0xc0a80000U + number)};
}

class GoogleJunk : public testing::Test {
  protected:
    GoogleJunk()
    {
        today += 86400;
        fake_clock_set(today);
    }
    ~GoogleJunk() override
    {
        fake_clock_reset();
    }

    static bool admitted(unsigned number)
    {
        const auto question = velm_google_junk_admit(host(number));
        if (question.has_value()) {
            velm_google_junk_settle(*question, false);
        }
        return question.has_value();
    }
    /// How many of so many junk tokens Google is asked about, one after another.
    static int junk(unsigned number, int count)
    {
        int asked = 0;
        for (int i = 0; i < count; ++i) {
            if (const auto question = velm_google_junk_admit(host(number))) {
                velm_google_junk_settle(*question, true);
                ++asked;
            }
        }
        return asked;
    }
};

TEST_F(GoogleJunk, TenOfOneAddressInAMinuteShutItOutForTheRestOfIt)
{
    EXPECT_EQ(junk(1, 9), 9);
    fake_clock_set(today + 59);
    EXPECT_EQ(junk(1, 2), 1);
    EXPECT_FALSE(admitted(1));
    EXPECT_TRUE(admitted(2));
    fake_clock_set(today + 60);
    EXPECT_TRUE(admitted(1));
}

TEST_F(GoogleJunk, AMinuteIsAnyMinute)
{
    EXPECT_EQ(junk(1, 5), 5);
    fake_clock_set(today + 50);
    EXPECT_EQ(junk(1, 4), 4);
    fake_clock_set(today + 70);
    EXPECT_EQ(junk(1, 20), 6) << "the first five are over";
    fake_clock_set(today + 109);
    EXPECT_FALSE(admitted(1));
    fake_clock_set(today + 110);
    EXPECT_TRUE(admitted(1));
}

TEST_F(GoogleJunk, GoodTokensAreNotCounted)
{
    for (int i = 0; i < 1000; ++i) {
        EXPECT_TRUE(admitted(1));
    }
}

TEST_F(GoogleJunk, SixtyOfAllInAnHourShutOutEachAddressThatSentAnyUntilItIsOver)
{
    EXPECT_EQ(junk(1, 1), 1);
    for (unsigned number = 2; number <= 60; ++number) {
        fake_clock_set(today + number);
        EXPECT_EQ(junk(number, 1), 1);
        EXPECT_EQ(admitted(1), number < 60);
    }
    for (const std::time_t later : {61, 1800, 3599}) {
        fake_clock_set(today + later);
        EXPECT_FALSE(admitted(1));
        EXPECT_FALSE(admitted(30));
        EXPECT_FALSE(admitted(60));
        EXPECT_TRUE(admitted(61)) << "has sent none";
    }
    fake_clock_set(today + 3600);
    EXPECT_TRUE(admitted(1));
    EXPECT_TRUE(admitted(60));
}

TEST_F(GoogleJunk, OneAddressAloneIsAskedAboutSixtyTimesInAnHour)
{
    int asked = 0;
    for (int minute = 0; minute < 60; ++minute) {
        fake_clock_set(today + minute * 60);
        asked += junk(1, 20);
    }
    EXPECT_EQ(asked, 60);
    EXPECT_TRUE(admitted(2));
}

TEST_F(GoogleJunk, AnAddressThatSentNoneIsAskedAboutOnceMoreAndThenOneOfThem)
{
    for (unsigned number = 1; number <= 6; ++number) {
        EXPECT_EQ(junk(number, 20), 10);
    }
    EXPECT_EQ(junk(7, 20), 1);
    EXPECT_TRUE(admitted(8));
}

TEST_F(GoogleJunk, AQuestionCountsUntilItIsAnswered)
{
    std::vector<std::uint32_t> open;
    for (int i = 0; i < 10; ++i) {
        open.push_back(velm_google_junk_admit(host(1)).value_or(0));
    }
    EXPECT_FALSE(admitted(1));
    fake_clock_set(today + 7200);
    EXPECT_FALSE(admitted(1)) << "not one is answered yet";
    velm_google_junk_settle(open.back(), false);
    EXPECT_TRUE(admitted(1));
    for (const std::uint32_t question : open) {
        velm_google_junk_settle(question, false);
    }
}

TEST_F(GoogleJunk, AnOpenQuestionIsNoJunkOfTheHour)
{
    for (unsigned number = 1; number <= 6; ++number) {
        EXPECT_EQ(junk(number, 20), 10);
    }
    const auto first = velm_google_junk_admit(host(7));
    const auto second = velm_google_junk_admit(host(7));
    EXPECT_TRUE(first.has_value() && second.has_value()) << "two phones of one address at once";
    velm_google_junk_settle(first.value_or(0), false);
    velm_google_junk_settle(second.value_or(0), true);
    EXPECT_FALSE(admitted(7)) << "one of them was junk";
}

TEST_F(GoogleJunk, WhatLiesInTheFutureWasLongAgo)
{
    EXPECT_EQ(junk(1, 10), 10);
    fake_clock_set(today - 1);
    EXPECT_TRUE(admitted(1));
    EXPECT_EQ(junk(1, 20), 10);
}

TEST_F(GoogleJunk, QuestionsOfNobodyAreAllAdmitted)
{
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(velm_google_junk_admit(std::nullopt), 0U);
        velm_google_junk_settle(0, true);
    }
}

TEST_F(GoogleJunk, OfMoreQuestionsThanAreRememberedTheOldestIsForgotten)
{
    constexpr unsigned remembered = 1024;
    for (unsigned number = 1; number <= remembered; ++number) {
        EXPECT_EQ(junk(number, 1), 1);
    }
    EXPECT_FALSE(admitted(1));
    EXPECT_EQ(junk(remembered + 1, 1), 1);
    EXPECT_TRUE(admitted(1));
    EXPECT_FALSE(admitted(remembered));
}

TEST_F(GoogleJunk, TheAskerIsTheInnermostOne)
{
    EXPECT_FALSE(velm_google_asker::current().has_value());
    {
        const velm_google_asker outer{host(1)};
        {
            const velm_google_asker inner{std::nullopt};
            EXPECT_FALSE(velm_google_asker::current().has_value());
        }
        EXPECT_EQ(velm_google_asker::current()->s_addr, host(1).s_addr);
    }
    EXPECT_FALSE(velm_google_asker::current().has_value());
}

} // namespace
