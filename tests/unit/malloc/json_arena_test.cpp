#include "malloc/json_arena.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "handles/cjson.h"

namespace {

json_ptr parse_in_arena(const std::string &text)
{
    const json_arena_use arena;
    return json_ptr{cJSON_Parse(text.c_str())};
}

/// The bytes that lie at the object and behind it.
std::vector<unsigned char> bytes_at(const void *begin, std::size_t size)
{
    const auto *const bytes = static_cast<const unsigned char *>(begin);
    return {bytes, bytes + size};
}

bool all_zero(const std::vector<unsigned char> &bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](unsigned char byte) { return byte == 0; });
}

/// Of that much memory, which begins with a page.
std::size_t resident_pages(void *begin, std::size_t size)
{
    std::vector<unsigned char> pages(size / static_cast<std::size_t>(sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(mincore(begin, size, pages.data()), 0);
    return static_cast<std::size_t>(
        std::count_if(pages.begin(), pages.end(), [](unsigned char page) { return page & 1; }));
}

std::string list_of(std::size_t count)
{
    std::string text = "[0";
    for (std::size_t i = 1; i < count; ++i) {
        text += ",0";
    }
    return text + "]";
}

class JsonArena : public testing::Test {
  protected:
    JsonArena()
    {
        json_arena_install();
    }
    ~JsonArena() override
    {
        EXPECT_EQ(json_arena_used(), 0U);
    }
};

TEST_F(JsonArena, HasWhatIsParsedWhileItIsUsedAndNothingElse)
{
    const json_ptr before{cJSON_Parse(R"({"a":"b"})")};
    EXPECT_EQ(json_arena_used(), 0U);
    const json_ptr inside = parse_in_arena(R"({"a":"b"})");
    const std::size_t used = json_arena_used();
    EXPECT_GE(used, 2 * sizeof(cJSON) + 4);
    EXPECT_LE(used, 2 * sizeof(cJSON) + 32);
    const json_ptr copy{cJSON_Duplicate(inside.get(), 1)};
    const json_text printed{cJSON_Print(copy.get())};
    EXPECT_EQ(json_arena_used(), used);
}

TEST_F(JsonArena, IsOverwrittenWhenTheLastPieceIsFreed)
{
    json_ptr first = parse_in_arena(R"({"password":"a secret that nobody may find"})");
    json_ptr second = parse_in_arena(R"(["and another one"])");
    const void *const begin = first.get();
    const std::size_t used = json_arena_used();
    first.reset();
    EXPECT_EQ(json_arena_used(), used); // what is freed is not used again while others live
    second.reset();
    EXPECT_EQ(json_arena_used(), 0U);
    EXPECT_TRUE(all_zero(bytes_at(begin, used)));
}

TEST_F(JsonArena, IsEmptyAfterTextThatIsNoJson)
{
    EXPECT_EQ(parse_in_arena(R"({"password":"secret","x":[1,2,3})"), nullptr);
    EXPECT_EQ(json_arena_used(), 0U);
}

TEST_F(JsonArena, MayLoseItsPiecesOneByOneToWhateverFreesThem)
{
    const json_ptr tree = parse_in_arena(R"({"a":"b","c":"d"})");
    const json_ptr taken{cJSON_DetachItemFromObject(tree.get(), "a")};
    cJSON_SetValuestring(taken.get(), "longer than it was, so that the heap has it");
    EXPECT_STREQ(taken->valuestring, "longer than it was, so that the heap has it");
}

TEST_F(JsonArena, HasRoomForTheLongestBody)
{
    std::string text = "{";
    for (int i = 0; i < 1000; ++i) { // 8 bytes for each value, its name included
        text += (i == 0 ? "\"" : ",\"") + std::to_string(i % 10) + "\":\"\"";
    }
    text.resize(8191, ' ');
    const json_ptr tree = parse_in_arena(text + "}");
    EXPECT_EQ(cJSON_GetArraySize(tree.get()), 1000);
    EXPECT_GT(json_arena_used(), 1000 * sizeof(cJSON));
    EXPECT_LE(json_arena_used(), json_arena_size * 3 / 4);
}

TEST_F(JsonArena, LeavesToTheHeapWhatItHasNoRoomFor)
{
    const std::size_t more = json_arena_size / sizeof(cJSON) + 100;
    const json_ptr tree = parse_in_arena(list_of(more));
    EXPECT_EQ(cJSON_GetArraySize(tree.get()), static_cast<int>(more));
    EXPECT_LE(json_arena_used(), json_arena_size);
    EXPECT_GT(json_arena_used(), json_arena_size - sizeof(cJSON));
}

TEST_F(JsonArena, IsResidentAsFarAsItIsUsedAndOnlyItsFirstPagesStaySo)
{
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    if (json_arena_at_hand % page != 0) {
        GTEST_SKIP() << "pages are too large to be given back";
    }
    json_ptr tree = parse_in_arena(list_of(1000));
    void *const begin = tree.get();
    const std::size_t used = json_arena_used();
    EXPECT_EQ(resident_pages(begin, json_arena_size), (used + page - 1) / page);
    tree.reset();
    EXPECT_EQ(resident_pages(begin, json_arena_size), json_arena_at_hand / page);
    EXPECT_TRUE(all_zero(bytes_at(begin, json_arena_size)));
}

TEST_F(JsonArena, MayBeInstalledAgain)
{
    const json_ptr tree = parse_in_arena("[1]");
    json_arena_install();
    const json_ptr other = parse_in_arena("[2]");
    EXPECT_GE(json_arena_used(), 4 * sizeof(cJSON));
}

} // namespace
