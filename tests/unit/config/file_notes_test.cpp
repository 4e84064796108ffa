#include "config/file_notes.h"

#include <gtest/gtest.h>

namespace {

TEST(FileNotes, HaveNothingOfAFileThatNobodyHasRead)
{
    EXPECT_EQ(file_note_get("a.path"), nullptr);
}

TEST(FileNotes, HaveTheLastReadingOfEachSetting)
{
    const std::time_t before = std::time(nullptr);
    file_note_set("b.path", "/b", "it is no JSON");
    file_note_set("c.path", "/c", nullptr);
    ASSERT_NE(file_note_get("b.path"), nullptr);
    EXPECT_EQ(file_note_get("b.path")->path, "/b");
    EXPECT_EQ(file_note_get("b.path")->why, "it is no JSON");
    EXPECT_GE(file_note_get("b.path")->read, before);
    EXPECT_EQ(file_note_get("c.path")->why, "");
    file_note_set("b.path", "/other", nullptr);
    EXPECT_EQ(file_note_get("b.path")->path, "/other");
    EXPECT_EQ(file_note_get("b.path")->why, "");
}

TEST(FileNotes, HaveNoTimeOfAFileThatIsLeftOut)
{
    file_note_set("d.path", "/d", nullptr);
    file_note_set("d.path", "/d", "another one is missing", file_reading::left_out);
    EXPECT_EQ(file_note_get("d.path")->read, 0);
    EXPECT_EQ(file_note_get("d.path")->why, "another one is missing");
}

} // namespace
