#include "ipc/report_queue.h"

#include <gtest/gtest.h>

#include <string>

#include "fakes/heap_in_use.h"

namespace {

std::string auth_of(const std::string &device, const std::string &more = "")
{
    return R"({"deviceId": ")" + device + R"(", "bssid": "00:1a:2b:3c:4d:ff")" + more + "}";
}

class LocationQueue : public testing::Test {
  protected:
    LocationQueue()
    {
        location_queue_clear();
    }

    static bool add(const std::string &auth, const std::string &location = "{}",
                    const char *ip = "192.168.1.23")
    {
        const json_ptr auth_json{cJSON_Parse(auth.c_str())};
        const json_ptr location_json{cJSON_Parse(location.c_str())};
        return location_queue_add("caller", ip, auth_json.get(), location_json.get());
    }

    static bool has_room(const std::string &auth, std::size_t count)
    {
        const json_ptr auth_json{cJSON_Parse(auth.c_str())};
        return location_queue_has_room(auth_json.get(), count);
    }
};

TEST_F(LocationQueue, GivesWhatCameInItsOrderWithTheOneWhoSentIt)
{
    EXPECT_TRUE(add(auth_of("a"), R"({"latitude": 1, "timestamp": "9"})"));
    EXPECT_TRUE(add(auth_of("a"), R"({"latitude": 2})"));
    EXPECT_TRUE(add(auth_of("b"), R"({"latitude": 3})"));
    EXPECT_TRUE(add(auth_of("b"), R"({"latitude": 4})", "192.168.1.24"));
    const char *const senders[] = {"a", "a", "b", "b"};
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(location_queue_size(), static_cast<std::size_t>(4 - i));
        EXPECT_EQ(location_queue_first_values().latitude, i + 1);
        const location_source &source = location_queue_first_source();
        EXPECT_EQ(source.ip, i == 3 ? "192.168.1.24" : "192.168.1.23");
        EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItem(source.auth.get(), "deviceId")),
                     senders[i]);
        EXPECT_EQ(location_queue_first_values().time.has_value(), i == 0);
        location_queue_remove_first();
    }
    EXPECT_EQ(location_queue_size(), 0U);
}

TEST_F(LocationQueue, HasRoomForAsManyAsItSaysAndForNoneMore)
{
    std::size_t count = 0;
    while (has_room(auth_of("a"), count + 1)) {
        ++count;
    }
    EXPECT_GE(count, 9U * 999) << "nine of the longest lists that a body can hold";
    for (std::size_t i = 0; i < count; ++i) {
        ASSERT_TRUE(add(auth_of("a"))) << i;
    }
    EXPECT_FALSE(has_room(auth_of("a"), 1));
    EXPECT_FALSE(add(auth_of("b")));
    EXPECT_EQ(location_queue_size(), count);
    while (location_queue_size() > 0) {
        location_queue_remove_first();
    }
    EXPECT_TRUE(has_room(auth_of("a"), count)) << "what has gone still counts";
    EXPECT_FALSE(has_room(auth_of("a"), count + 1));
}

TEST_F(LocationQueue, HoldsNoMoreMemoryThanItsLimitWhateverItHolds)
{
    const std::size_t before = heap_in_use(); // an instrumented allocator says 0
    std::size_t number = 0;
    while (number < 100000 && add(auth_of(std::to_string(number) + std::string(1000, 'x')))) {
        ++number;
    }
    EXPECT_LT(number, 100000U);
    EXPECT_LE(heap_in_use() - before, location_queue_limit);
    location_queue_clear();
    number = 0;
    while (number < 100000 && add(auth_of(std::to_string(number)), "{}", "1.2.3.4")) {
        ++number;
    }
    EXPECT_GE(number, 700U);
    EXPECT_LE(heap_in_use() - before, location_queue_limit);
}

TEST_F(LocationQueue, OfAPhonesWordsOnlyThoseThatAReportHoldsAreKept)
{
    std::string numbers = R"(, "x": [0)";
    for (int i = 0; i < 2000; ++i) {
        numbers += ",0";
    }
    const std::size_t before = heap_in_use();
    EXPECT_TRUE(add(auth_of("a", numbers + "]"), R"({"latitude": 1)" + numbers + "]}"));
    EXPECT_LT(heap_in_use() - before, 4096U);
}

} // namespace
