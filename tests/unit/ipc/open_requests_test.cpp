#include "ipc/open_requests.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "velm_conn.h"
#include "velm_ipc_cmd.h"

struct velm_conn {
    bool is_closed = false;
};

bool velm_conn_is_closed(const velm_conn *conn)
{
    return conn->is_closed;
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::time_t arrival = 1700000000;
constexpr std::time_t deadline = arrival + velm_ipc_cmd_request_lifetime_s;

std::vector<std::uint32_t> removed;

void take_note(const velm_ipc_open_request &request)
{
    removed.push_back(request.seq);
}

class OpenRequests : public testing::Test {
  protected:
    OpenRequests()
    {
        removed.clear();
    }

    void add(std::uint32_t seq, std::time_t until = deadline)
    {
        requests.add({&conn, seq, seq + 100, until});
    }

    velm_conn conn;
    velm_conn other;
    velm_ipc_open_requests requests;
};

TEST_F(OpenRequests, IsTakenOnceWithAllThatItCameWith)
{
    add(1);
    add(2);
    const auto taken = requests.take(1);
    ASSERT_TRUE(taken.has_value());
    EXPECT_EQ(taken->conn, &conn);
    EXPECT_EQ(taken->seq, 1U);
    EXPECT_EQ(taken->id, 101U);
    EXPECT_EQ(taken->deadline, deadline);
    EXPECT_FALSE(requests.take(1).has_value());
    EXPECT_EQ(requests.size(), 1U);
}

TEST_F(OpenRequests, ThatNeverCameIsNotThere)
{
    EXPECT_FALSE(requests.take(1).has_value());
    add(2);
    EXPECT_FALSE(requests.take(1).has_value());
    EXPECT_EQ(requests.size(), 1U);
}

TEST_F(OpenRequests, TellsTheDeadlineOfTheOldest)
{
    EXPECT_FALSE(requests.first_deadline().has_value());
    add(1, deadline);
    add(2, deadline + 7);
    EXPECT_EQ(requests.first_deadline(), deadline);
    (void)requests.take(1);
    EXPECT_EQ(requests.first_deadline(), deadline + 7);
}

TEST_F(OpenRequests, OfAClosedConnectionAreRemovedInTheirOrderAndTheOthersStay)
{
    add(1);
    requests.add({&other, 2, 102, deadline});
    add(3);
    requests.remove_of_closed(take_note);
    EXPECT_THAT(removed, IsEmpty());
    conn.is_closed = true;
    requests.remove_of_closed(take_note);
    EXPECT_THAT(removed, ElementsAre(1U, 3U));
    EXPECT_EQ(requests.size(), 1U);
    EXPECT_TRUE(requests.take(2).has_value());
}

TEST_F(OpenRequests, WaitToTheEndOfTheirDeadline)
{
    add(1, deadline);
    add(2, deadline + 1);
    requests.remove_late(deadline, take_note);
    EXPECT_THAT(removed, IsEmpty());
    requests.remove_late(deadline + 1, take_note);
    EXPECT_THAT(removed, ElementsAre(1U));
    EXPECT_EQ(requests.size(), 1U);
}

TEST_F(OpenRequests, GoWhenTheClockStepsBackBehindTheirArrival)
{
    add(1);
    requests.remove_late(arrival, take_note);
    EXPECT_THAT(removed, IsEmpty());
    requests.remove_late(arrival - 1, take_note);
    EXPECT_THAT(removed, ElementsAre(1U));
    EXPECT_EQ(requests.size(), 0U);
}

} // namespace
