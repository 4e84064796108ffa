// Before libevhtp, whose regular-expression header clashes with the system's.
#include <gtest/gtest.h>

#include "request/kept.h"

#include <malloc.h>

#include <string>
#include <utility>

#include "json/text.h"
#include "malloc/json_arena.h"

namespace {

velm_request_kept_body keep(const std::string &body, const char *member)
{
    return velm_request_keep(secret_json_ptr{cJSON_Parse(body.c_str())}, member);
}

std::string text_of(const velm_request_kept_body &kept)
{
    return json_text{cJSON_PrintUnformatted(kept.tree.get())}.get();
}

std::string body_with(const std::string &member)
{
    return R"({"auth":{"deviceId":"a"},)" + member + "}";
}

std::size_t heap_size_of(const cJSON *item)
{
    std::size_t size = 0;
    for (const void *block :
         {static_cast<const void *>(item), static_cast<const void *>(item->string),
          static_cast<const void *>(item->valuestring)}) {
        size += block == nullptr
                    ? 0
                    : malloc_usable_size(const_cast<void *>(block)) + sizeof(std::size_t);
    }
    for (const cJSON *child = item->child; child != nullptr; child = child->next) {
        size += heap_size_of(child);
    }
    return size;
}

struct keep_case {
    const char *name, *body, *member, *kept;
};
class Kept : public testing::TestWithParam<keep_case> {};
TEST_P(Kept, IsWhatTheChecksAndTheRouteRead)
{
    const velm_request_kept_body kept = keep(GetParam().body, GetParam().member);
    EXPECT_EQ(text_of(kept), GetParam().kept);
    EXPECT_TRUE(kept.is_whole);
}
constexpr char all_texts[] =
    R"({"auth":{"deviceId":"a","deviceType":"b","bssid":"c","username":"d",)"
    R"("password":"e","challenge":"f"}})";
// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Of, Kept,
    testing::Values(
        keep_case{"AllTexts", all_texts, nullptr, all_texts},
        keep_case{"OtherMembersOfAuth", R"({"auth":{"x":[1,2],"deviceId":"a","DEVICEID":"b"}})", nullptr, R"({"auth":{"deviceId":"a"}})"},
        keep_case{"ATextThatIsAnObject", R"({"auth":{"deviceId":{"a":"b"},"bssid":"c"}})", nullptr, R"({"auth":{"bssid":"c"}})"},
        keep_case{"ATextThatIsNone", R"({"auth":{"deviceId":7}})", nullptr, R"({"auth":{"deviceId":7}})"},
        keep_case{"ATextTwice", R"({"auth":{"deviceId":"a","deviceId":"b"}})", nullptr, R"({"auth":{"deviceId":"a"}})"},
        keep_case{"ATextBehindAnObjectOfItsName", R"({"auth":{"deviceId":[1],"deviceId":"b"}})", nullptr, R"({"auth":{}})"},
        keep_case{"TheMemberOfTheRoute", R"({"pair":{"x":[{}]},"auth":{},"location":[1]})", "pair", R"({"pair":{"x":[{}]},"auth":{}})"},
        keep_case{"TheMemberTwice", R"({"auth":{},"pair":1,"pair":{},"auth":{"deviceId":"b"}})", "pair", R"({"auth":{},"pair":1})"},
        keep_case{"NoMemberOfTheRoute", R"({"auth":{},"pair":{},"PAIR":[1,2,3]})", nullptr, R"({"auth":{}})"},
        keep_case{"AMemberThatIsNotThere", R"({"auth":{},"pairs":{}})", "pair", R"({"auth":{}})"}),
    [](const auto &row) { return std::string{row.param.name}; });
// clang-format on

TEST(KeptBody, LeavesOutAMemberForWhichThereIsNoRoom)
{
    std::string list = "0";
    std::size_t size = 0;
    int count = 1;
    velm_request_kept_body kept = keep(body_with("\"location\":[" + list + "]"), "location");
    for (; kept.is_whole && count < 1000; ++count) {
        size = kept.size;
        list += ",0";
        kept = keep(body_with("\"location\":[" + list + "]"), "location");
    }
    EXPECT_FALSE(kept.is_whole);
    EXPECT_GT(count, 100);
    EXPECT_LE(size, velm_request_max_kept);
    EXPECT_GT(size, velm_request_max_kept - 200); // one more would not have fitted
    EXPECT_EQ(text_of(kept), R"({"auth":{"deviceId":"a"}})");
    EXPECT_LT(kept.size, 1024U);
}

TEST(KeptBody, HasOneByteTooMuchOfATextOfAuthThatIsTooLong)
{
    for (const std::size_t length : {1024U, 1025U, 1026U, 8000U}) {
        const std::string text(length, 'a');
        const velm_request_kept_body kept =
            keep(R"({"auth":{"deviceId":"b","password":")" + text + "\"}}", nullptr);
        EXPECT_TRUE(kept.is_whole);
        EXPECT_LT(kept.size, 1600U);
        EXPECT_EQ(json_text_or_empty(cJSON_GetObjectItemCaseSensitive(kept.tree.get(), "auth"),
                                     "password"),
                  text.substr(0, 1025));
    }
}

TEST(KeptBody, OfAuthThereIsNoTooMuch)
{
    const std::string longest(1025, 'a');
    std::string body = R"({"auth":{)";
    for (const char *const name : {"deviceId", "deviceType", "bssid", "username", "password"}) {
        body += std::string{"\""} + name + "\":\"" + longest + "\",";
    }
    const velm_request_kept_body kept = keep(body + R"("challenge":"c"}})", nullptr);
    EXPECT_TRUE(kept.is_whole);
    EXPECT_GT(kept.size, 5 * longest.size());
    EXPECT_LT(kept.size, 5 * longest.size() + 1500);
}

TEST(KeptBody, CountsItsTextsByTheMemoryThatTheyTake)
{
    const auto size = [](const std::string &text) {
        return keep(body_with("\"pair\":{\"x\":\"" + text + "\"}"), "pair").size;
    };
    EXPECT_GE(size(std::string(4000, 'a')), size("") + 3900);
    std::string escaped; // the parser has five bytes too much for each character
    for (int i = 0; i < 800; ++i) {
        escaped += "\\u0041";
    }
    EXPECT_GE(size(escaped), size("") + 780);
    EXPECT_LE(size(escaped), size("") + 820);
}

TEST(KeptBody, CountsWhatTheHeapTakesForIt)
{
#ifdef VELM_SANITIZED
    GTEST_SKIP() << "a sanitizer's blocks have other sizes";
#endif
    const std::string list = R"("pair":{"a":[1,2,3,"b"],"c":"%","d":{"e":null}})";
    for (const std::size_t length : {0U, 7U, 23U, 24U, 25U, 40U, 41U, 1000U}) {
        std::string body = body_with(list);
        body.replace(body.find('%'), 1, std::string(length, 'x'));
        const velm_request_kept_body kept = keep(body, "pair");
        const std::size_t taken = heap_size_of(kept.tree.get());
        EXPECT_LE(kept.size, taken) << length;
        EXPECT_GE(kept.size + 8 * sizeof(void *), taken) << length; // a block may have a rest in it
    }
}

TEST(KeptBody, IsACopyThatTheParsersMemoryDoesNotHold)
{
    json_arena_install();
    velm_request_kept_body kept;
    {
        secret_json_ptr parsed;
        {
            const json_arena_use arena;
            parsed.reset(cJSON_Parse(all_texts));
        }
        ASSERT_GT(json_arena_used(), 0U);
        kept = velm_request_keep(std::move(parsed), nullptr);
    }
    EXPECT_EQ(json_arena_used(), 0U);
    EXPECT_EQ(text_of(kept), all_texts);
}

TEST(KeptBody, LosesTheMemberOfItsRouteWhenNoRouteComes)
{
    velm_request_kept_body kept = keep(body_with("\"pair\":{\"x\":[1,2,3]}"), "pair");
    const std::size_t size = kept.size;
    const char *const id =
        json_text_or_empty(cJSON_GetObjectItemCaseSensitive(kept.tree.get(), "auth"), "deviceId");
    velm_request_keep_auth(&kept);
    EXPECT_EQ(text_of(kept), R"({"auth":{"deviceId":"a"}})");
    EXPECT_LT(kept.size, size);
    EXPECT_EQ(id, json_text_or_empty(cJSON_GetObjectItemCaseSensitive(kept.tree.get(), "auth"),
                                     "deviceId"));
    EXPECT_FALSE(kept.is_whole);

    velm_request_kept_body none;
    velm_request_keep_auth(&none);
    EXPECT_EQ(none.tree, nullptr);
}

TEST(KeptBody, CountsAHundredBytesForANamedValue)
{
    const std::string object = R"("pair":{"a":1,"b":2,"c":3,"d":4,"e":5})";
    const std::size_t five = keep(body_with(object), "pair").size;
    EXPECT_GE(five, keep(body_with(R"("pair":{})"), "pair").size + 5 * sizeof(cJSON));
}

TEST(KeptBody, IsOfferedToItsRouteWhileTheOfferLives)
{
    evhtp_request_t request{};
    evhtp_request_t other{};
    const velm_request_kept_body kept = keep(body_with("\"pair\":{}"), "pair");
    {
        const velm_request_body_offer offer{&request, kept};
        EXPECT_EQ(velm_request_offered_body(&request), kept.tree.get());
        EXPECT_EQ(velm_request_offered_body(&other), nullptr);
    }
    EXPECT_EQ(velm_request_offered_body(&request), nullptr);
}

TEST(KeptBody, IsNotOfferedWhenAPartWasLeftOut)
{
    evhtp_request_t request{};
    velm_request_kept_body kept = keep(body_with("\"pair\":{}"), "pair");
    kept.is_whole = false;
    const velm_request_body_offer offer{&request, kept};
    EXPECT_EQ(velm_request_offered_body(&request), nullptr);
}

} // namespace
