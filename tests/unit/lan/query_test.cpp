#include "lan/query.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "fakes/captured_log.h"
#include "handles/fd.h"
#include "handles/libevent.h"
#include "velm_sys_params.h"

namespace {

std::string command; // empty: no LAN bridge
std::vector<velm_lan_answer> answers;

} // namespace

common_launched get_ipv4_address_wlif_begin()
{
    return command.empty() ? common_launched{nullptr, no_lan_bridge}
                           : common_launch_begin(command.c_str());
}

std::optional<std::string> get_ipv4_address_wlif_end(common_launched launched)
{
    std::string output;
    return common_launch_end(std::move(launched), nullptr, &output) == 0 ? std::optional{output}
                                                                         : std::nullopt;
}

namespace {

class LanQuery : public testing::Test {
  protected:
    LanQuery()
    {
        answers.clear();
        velm_lan_query_set_event_base(base);
    }

    static void begin(std::string text)
    {
        command = std::move(text);
        velm_lan_query_begin([](velm_lan_answer answer) { answers.push_back(std::move(answer)); });
    }

    static inline event_base *const base = event_base_new();
    captured_log log;
};

TEST_F(LanQuery, TheAnswerComesFromTheLoop)
{
    begin("echo 192.168.1.1");
    EXPECT_TRUE(answers.empty());
    EXPECT_TRUE(velm_lan_query_is_under_way());
    event_base_dispatch(base); // ends: no event of the question is left
    EXPECT_FALSE(velm_lan_query_is_under_way());
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_TRUE(answers[0].was_asked);
    EXPECT_EQ(answers[0].addresses, "192.168.1.1\n");
}

/// A command that reads from it waits until the test writes or opens it.
struct gate {
    gate()
    {
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe(ends), 0);
        reader.reset(ends[0]);
        writer.reset(ends[1]);
    }
    unique_fd reader, writer;
};

TEST_F(LanQuery, TheLoopTurnsWhileTheCommandRuns)
{
    gate closed;
    begin("exec " + std::to_string(closed.writer.get()) + ">&-; echo first; cat <&" +
          std::to_string(closed.reader.get()));
    for (int i = 0; i < 10; ++i) {
        event_base_loop(base, EVLOOP_NONBLOCK);
    }
    EXPECT_TRUE(answers.empty());
    EXPECT_EQ(write(closed.writer.get(), "second\n", 7), 7);
    closed.writer.reset(); // opens it
    event_base_dispatch(base);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].addresses, "first\nsecond\n");
}

TEST_F(LanQuery, TheLoopTurnsWhileTheShellOutlivesItsOutput)
{
    gate closed;
    // The shell says all, and lives until the test, which turns the loop meanwhile, opens the gate.
    begin("exec " + std::to_string(closed.writer.get()) + ">&-; echo all; exec >&-; read line <&" +
          std::to_string(closed.reader.get()) + "; exit 0");
    static int ticks;
    ticks = 0;
    const timeval tick{0, 10 * 1000};
    const event_ptr ticking{event_new(
        base, -1, EV_PERSIST, [](evutil_socket_t, short, void *) { ++ticks; }, nullptr)};
    event_add(ticking.get(), &tick);
    while (ticks < 20) {
        event_base_loop(base, EVLOOP_ONCE);
    }
    EXPECT_TRUE(answers.empty());
    closed.writer.reset(); // opens it
    event_del(ticking.get());
    event_base_dispatch(base);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].addresses, "all\n");
}

TEST_F(LanQuery, WithoutABridgeNobodyWasAsked)
{
    begin("");
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_FALSE(answers[0].was_asked);
    EXPECT_EQ(answers[0].addresses, std::nullopt);
    EXPECT_FALSE(velm_lan_query_is_under_way());
}

TEST_F(LanQuery, ACommandThatIsEndedHasNoAnswer)
{
    begin("kill -9 $$");
    event_base_dispatch(base);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_TRUE(answers[0].was_asked);
    EXPECT_EQ(answers[0].addresses, std::nullopt);
}

TEST_F(LanQuery, TheNextQuestionMayComeFromTheAnswer)
{
    command = "echo once";
    velm_lan_query_begin([](velm_lan_answer) { begin("echo again"); });
    event_base_dispatch(base);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].addresses, "again\n");
}

TEST_F(LanQuery, AtStartSomethingIsDoneMeanwhile)
{
    static bool done;
    done = false;
    command = "echo 10.0.0.1";
    const velm_lan_answer answer = velm_lan_query_wait([] { done = true; });
    EXPECT_TRUE(done);
    EXPECT_TRUE(answer.was_asked);
    EXPECT_EQ(answer.addresses, "10.0.0.1\n");
}

} // namespace
