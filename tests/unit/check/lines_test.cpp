#include "check/lines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/temporary_directory.h"
#include "found.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Lines : public testing::Test {
  protected:
    void read(std::string_view content)
    {
        const std::string path = directory_.write("velmd.conf", content);
        ASSERT_NE(conffile_account_for(path.c_str(), &account_), nullptr);
    }

    std::vector<std::string> found_in(std::string_view content)
    {
        read(content);
        check_findings findings;
        check_lines("F", account_, &findings);
        return found(std::move(findings));
    }

    temporary_directory directory_;
    conffile_account account_;
};

TEST_F(Lines, ThatAreGoodAreNotMentioned)
{
    EXPECT_THAT(found_in(""), IsEmpty());
    EXPECT_THAT(found_in("# a comment\n\n  # another\r\nhttp.server.port = 8443 # ours\n"
                         "vendor.id=\"TWO WORDS\"\nlogger.category.IPC=TRACE\nlogger.file=no\n"
                         "accounts.shadow=1\n"),
                IsEmpty());
}

TEST_F(Lines, ThatAreNoPairsAreAllNamed)
{
    EXPECT_THAT(found_in("one\n# two\n\n   \nvendor.id=V\nsix\n"),
                ElementsAre("F:1: no key=value pair: the whole file is left out",
                            "F:4: no key=value pair: the whole file is left out",
                            "F:6: no key=value pair: the whole file is left out"));
}

TEST_F(Lines, AreCountedByTheirNewlinesWhateverElseEndsThem)
{
    EXPECT_THAT(found_in("# 1\r\n\r\n# 3\rtwo more\n"),
                ElementsAre("F:3: no key=value pair: the whole file is left out"));
}

TEST_F(Lines, WithoutAKey)
{
    EXPECT_THAT(found_in("=V\n"), ElementsAre("F:1: no key before \"=\""));
}

TEST_F(Lines, WithBlanksInAKeyOrAValue)
{
    EXPECT_THAT(
        found_in("vendor.id of us=\"V\" and more\n"),
        ElementsAre("F:1: a key has no blanks: only \"vendor.id\" is read",
                    "F:1: vendor.id: \"and more\" is left out: a value with blanks must be in "
                    "quotes"));
}

TEST_F(Lines, WithAQuoteThatIsNeverClosed)
{
    EXPECT_THAT(found_in("vendor.id=\"V\\\"\n"),
                ElementsAre("F:1: warning: vendor.id: a quote is not closed"));
}

TEST_F(Lines, WithAKeyThatNobodyKnows)
{
    EXPECT_THAT(found_in("logger.fil=no\nlan.ip.address=1.2.3.4\nbssids.list=[]\n"),
                ElementsAre("F:1: unknown key \"logger.fil\": did you mean \"logger.file\"?",
                            "F:2: lan.ip.address is not read from the file: the platform has it",
                            "F:3: bssids.list is not read from the file: the platform has it"));
}

TEST_F(Lines, ThatSetAKeyAgain)
{
    EXPECT_THAT(found_in("vendor.id=A\nlogger.level=info\nvendor.id=B\nlogger.level=warn\n"),
                ElementsAre("F:3: warning: vendor.id is in line 1 too: line 3 counts",
                            "F:4: warning: logger.level is in line 2 too: line 2 counts"));
}

TEST_F(Lines, WithoutANewlineAtTheEnd)
{
    EXPECT_THAT(found_in("vendor.id=VW"),
                ElementsAre("F:1: no newline at the end: the last character \"W\" is left out"));
    EXPECT_THAT(found_in("vendor.id=V\n# remark"), IsEmpty());
    EXPECT_THAT(found_in("vendor.id=V\r"), IsEmpty());
}

TEST_F(Lines, BehindWhatIsRead)
{
    const std::string full = "vendor.id=V\n" + std::string(4096 - 12, '\n');
    EXPECT_THAT(found_in(full), IsEmpty());
    EXPECT_THAT(found_in(full + "\n"),
                ElementsAre(testing::HasSubstr(
                    ": the file is longer than 4096 bytes: nothing behind this line is read")));
    const std::string line = std::string(4000, '\n') + "# " + std::string(200, 'x') + "\n";
    EXPECT_THAT(found_in(line), ElementsAre("F:4001: the file is longer than 4096 bytes: nothing "
                                            "behind this line is read"));
}

TEST_F(Lines, BehindANul)
{
    using namespace std::string_view_literals;
    EXPECT_THAT(found_in("vendor.id=V\n# a\0b\nno pair\n"sv),
                ElementsAre("F:2: a NUL character: nothing behind it is read"));
}

TEST_F(Lines, OfAKeyAreThePlaceOfItsValue)
{
    read("vendor.id=A\nlogger.level=info\nvendor.id=B\nlogger.level=warn\n");
    EXPECT_EQ(check_place_of_key("F", account_, "vendor.id").line, 3U);
    EXPECT_EQ(check_place_of_key("F", account_, "logger.level").line, 2U);
    const check_place none = check_place_of_key("F", account_, "process.pidfile");
    EXPECT_EQ(none.name, "F");
    EXPECT_EQ(none.line, 0U);
}

} // namespace
