#include "conffile/conffile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/temporary_directory.h"

namespace {

using pairs = std::vector<std::pair<std::string, std::string>>;

class Conffile : public testing::Test {
  protected:
    [[nodiscard]] conffile_ptr parse(std::string_view content) const
    {
        return conffile_parse(directory.write("velmd.conf", content).c_str());
    }

    const temporary_directory directory;
    captured_log log;
};

pairs pairs_of(const ConfigFile *file)
{
    pairs all;
    for (const ConfigPair *pair = conffile_next_pair(file, nullptr); pair != nullptr;
         pair = conffile_next_pair(file, pair)) {
        all.emplace_back(conffile_pair_key(pair), conffile_pair_value(pair));
    }
    return all;
}

struct text_case {
    const char *name, *content;
    pairs expected;
};
class ConffileText : public Conffile, public testing::WithParamInterface<text_case> {};

TEST_P(ConffileText, ParsesToItsPairsLastLineFirst)
{
    const conffile_ptr file = parse(GetParam().content);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(pairs_of(file.get()), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ConffileText,
    testing::Values(
        text_case{"OnePair", "key=value\n", {{"key", "value"}}},
        text_case{
            "TheLastLineStandsFirst", "a=1\nb=2\na=3\n", {{"a", "3"}, {"b", "2"}, {"a", "1"}}},
        text_case{"EmptyLinesVanish", "\n\na=1\r\n\r\nb=2\n", {{"b", "2"}, {"a", "1"}}},
        text_case{"ACommentBehindBlanks", " \t # x=y\na=1\n", {{"a", "1"}}},
        text_case{"AHashInsideAValueStays", "a=A#B\n", {{"a", "A#B"}}},
        text_case{"BlanksAroundKeyAndValue", " \t key \t=  value \t\n", {{"key", "value"}}},
        text_case{"AnUnquotedValueEndsAtABlank", "key = two words\n", {{"key", "two"}}},
        text_case{
            "AQuotedValueKeepsItsBlanks", "key = \" two words \"\n", {{"key", " two words "}}},
        text_case{"AQuotedKey", "\"two words\"=v\n", {{"two words", "v"}}},
        text_case{"WhatFollowsTheClosingQuoteIsDropped", "a=\"b\"c d\n", {{"a", "b"}}},
        text_case{"AnEscapedQuoteStays",
                  R"(a="say \"hi\" \n \\")"
                  "\n",
                  {{"a", R"(say "hi" \n \")"}}},
        text_case{"AnUnclosedQuoteRunsToTheEnd", "a=\"b c\nd=e\n", {{"d", "e"}, {"a", "b c"}}},
        text_case{"AQuoteInsideAWordStays", "a=b\"c\"\n", {{"a", "b\"c\""}}},
        text_case{"TheFirstEqualsSignSplits", "a=b=c\n", {{"a", "b=c"}}},
        text_case{"AnEmptyValue", "a=\nb=\"\"\n", {{"b", ""}, {"a", ""}}},
        text_case{"AnEmptyKey", "=a\n", {{"", "a"}}},
        text_case{"WithoutANewlineAtTheEndTheLastCharacterIsLost", "a=123", {{"a", "12"}}},
        text_case{"AnEmptyFile", "", {}}, text_case{"OneByte", "a", {}},
        text_case{"OnlyComments", "# a=b\n#\n", {}}),
    [](const auto &row) { return std::string{row.param.name}; });

struct rejected_case {
    const char *name, *content;
};
class ConffileRejected : public Conffile, public testing::WithParamInterface<rejected_case> {};

TEST_P(ConffileRejected, IsRejectedWhole)
{
    EXPECT_EQ(parse(GetParam().content), nullptr);
    EXPECT_TRUE(log.has("WARN conf_file - syntax error in configuration"));
}

INSTANTIATE_TEST_SUITE_P(Files, ConffileRejected,
                         testing::Values(rejected_case{"ALineOfBlanks", "a=1\n \t \nb=2\n"},
                                         rejected_case{"ALineWithoutEqualsSign", "a=1\nb 2\n"},
                                         rejected_case{"OnlyTheFirstLine", "b\na=1\n"},
                                         rejected_case{"OnlyTheLastLine", "a=1\nbc\n"}),
                         [](const auto &row) { return std::string{row.param.name}; });

struct bad_line_case {
    const char *name, *text;
    unsigned line;
};
class ConffileBadLine : public Conffile, public testing::WithParamInterface<bad_line_case> {};

TEST_P(ConffileBadLine, IsNamedByItsNumber)
{
    directory.write("conf", GetParam().text);
    static_cast<void>(conffile_parse(directory.path("conf").c_str()));
    EXPECT_EQ(conffile_bad_line(), GetParam().line);
}

INSTANTIATE_TEST_SUITE_P(Texts, ConffileBadLine,
                         testing::Values(bad_line_case{"First", "no pair\n", 1},
                                         bad_line_case{"None", "a=b\n", 0},
                                         bad_line_case{"Blanks", "a=b\n\n# c\n   \nd=e\n", 4},
                                         bad_line_case{"OfDos", "a=b\r\n\r\nno pair\r\n", 3},
                                         bad_line_case{"Last", "a=b\nno pair", 2}),
                         [](const auto &row) { return std::string{row.param.name}; });

TEST_F(Conffile, AGoodOneForgetsTheBadLineOfTheLast)
{
    directory.write("conf", "no pair\n");
    static_cast<void>(conffile_parse(directory.path("conf").c_str()));
    EXPECT_EQ(conffile_bad_line(), 1U);
    EXPECT_EQ(conffile_parse("/nowhere/conf"), nullptr);
    EXPECT_EQ(conffile_bad_line(), 0U);
}

TEST_F(Conffile, IsReadOnlyUpToItsFirst4095Characters)
{
    const std::string content = "key=" + std::string(4996, 'x');
    const conffile_ptr file = parse(content);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(conffile_get_value(file.get(), "key"), std::string(4091, 'x'));
}

TEST_F(Conffile, Of4096BytesLosesItsLastByteAndOf4095Too)
{
    const conffile_ptr full = parse("key=" + std::string(4091, 'x') + 'y');
    EXPECT_EQ(conffile_get_value(full.get(), "key"), std::string(4091, 'x'));
    const conffile_ptr shorter = parse("key=" + std::string(4090, 'x') + 'y');
    EXPECT_EQ(conffile_get_value(shorter.get(), "key"), std::string(4090, 'x'));
}

TEST_F(Conffile, EndsAtANul)
{
    const conffile_ptr file = parse({"a=1\n\0b=2\n", 9});
    EXPECT_EQ(pairs_of(file.get()), (pairs{{"a", "1"}}));
}

TEST_F(Conffile, AnnouncesThePath)
{
    const std::string path = directory.write("f", "a=1\n");
    const conffile_ptr file = conffile_parse(path.c_str());
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"INFO conf_file - parsing configuration file: " + path});
}

TEST_F(Conffile, WithoutAPathIsRefusedQuietly)
{
    EXPECT_EQ(conffile_parse(nullptr), nullptr);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"DEBUG conf_file - path is null"});
}

TEST_F(Conffile, ThatIsMissingIsRefusedQuietly)
{
    const std::string path = directory.path("missing");
    EXPECT_EQ(conffile_parse(path.c_str()), nullptr);
    EXPECT_TRUE(log.has("DEBUG conf_file - cannot open file: " + path));
}

TEST_F(Conffile, ThatIsAFifoDoesNotBlock)
{
    const std::string path = directory.path("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(conffile_parse(path.c_str()), nullptr);
    EXPECT_TRUE(log.has("DEBUG conf_file - cannot open file: " + path));
}

class ConffileLookup : public Conffile {
  protected:
    const conffile_ptr file = parse("port=8443\nport=9443\nPort=1\n");
};

TEST_F(ConffileLookup, GivesTheLastOfTwoLines)
{
    EXPECT_STREQ(conffile_get_value(file.get(), "port"), "9443");
}

TEST_F(ConffileLookup, ComparesTheWholeKeyAndItsCase)
{
    EXPECT_STREQ(conffile_get_value(file.get(), "Port"), "1");
    EXPECT_EQ(conffile_get_value(file.get(), "por"), nullptr);
    EXPECT_EQ(conffile_get_value(file.get(), "ports"), nullptr);
    EXPECT_EQ(conffile_get_value(file.get(), "PORT"), nullptr);
}

TEST_F(ConffileLookup, WithoutKeyFileOrPairsWarns)
{
    const conffile_ptr empty = parse("");
    EXPECT_EQ(conffile_get_value(nullptr, nullptr), nullptr);
    EXPECT_TRUE(log.has("WARN conf_file - key is null"));
    EXPECT_EQ(conffile_get_value(nullptr, "port"), nullptr);
    EXPECT_TRUE(log.has("WARN conf_file - cfile is null"));
    EXPECT_EQ(conffile_get_value(empty.get(), "port"), nullptr);
    EXPECT_TRUE(log.has("WARN conf_file - cfile does not contain any key-value pairs"));
}

TEST_F(ConffileLookup, WithoutAFileThereIsNoFirstPair)
{
    EXPECT_EQ(conffile_next_pair(nullptr, nullptr), nullptr);
}

/// Lines as "number key=value[behind the key][behind the value]".
std::string told_of(const temporary_directory &directory, std::string_view content,
                    conffile_account *account)
{
    const std::string path = directory.write("told.conf", content);
    EXPECT_NE(conffile_account_for(path.c_str(), account), nullptr);
    std::string all;
    for (const conffile_line &line : account->lines) {
        all += std::to_string(line.number) + ' ';
        all += line.is_pair ? line.key + '=' + line.value + '[' + line.behind_key + "][" +
                                  line.behind_value + (line.is_open ? "]open " : "] ")
                            : "bad ";
    }
    return all;
}

TEST(ConffileAccount, HasEveryLineThatIsNoComment)
{
    const temporary_directory directory;
    conffile_account account;
    EXPECT_EQ(told_of(directory, "a=1\n# b\n\n x y = \"2 3\" 4\t5 \nbad\nc=\"6\n", &account),
              "1 a=1[][] 4 x=2 3[y][4\t5] 5 bad 6 c=6[][]open ");
    EXPECT_EQ(account.last_line, 6U);
    EXPECT_EQ(account.lost, '\0');
    EXPECT_FALSE(account.is_cut || account.has_nul);
    EXPECT_EQ(conffile_bad_line(), 5U);
}

TEST(ConffileAccount, HasThePairsOfTheGoodLines)
{
    const temporary_directory directory;
    const std::string path = directory.write("velmd.conf", "bad\na=1\n");
    conffile_account account;
    const conffile_ptr file = conffile_account_for(path.c_str(), &account);
    EXPECT_STREQ(conffile_get_value(file.get(), "a"), "1");
    EXPECT_EQ(conffile_parse(path.c_str()), nullptr);
}

TEST(ConffileAccount, SaysHowTheFileEnds)
{
    using namespace std::string_view_literals;
    const temporary_directory directory;
    conffile_account account;
    told_of(directory, "a=12", &account);
    EXPECT_EQ(account.lost, '2');
    EXPECT_FALSE(account.ends_in_comment);
    told_of(directory, "a=1\n# b", &account);
    EXPECT_TRUE(account.ends_in_comment);
    told_of(directory, "# b\na=1\n", &account);
    EXPECT_FALSE(account.ends_in_comment);
    told_of(directory, "a=1\nb\0=2\n"sv, &account);
    EXPECT_TRUE(account.has_nul);
    EXPECT_EQ(account.last_line, 2U);
    told_of(directory, "", &account);
    EXPECT_FALSE(account.has_nul);
    told_of(directory, std::string(4096, '\n'), &account);
    EXPECT_FALSE(account.is_cut);
    told_of(directory, std::string(4097, '\n'), &account);
    EXPECT_TRUE(account.is_cut);
}

TEST(ConffileAccount, SaysWhyAFileCannotBeOpened)
{
    const temporary_directory directory;
    conffile_account account;
    EXPECT_EQ(conffile_account_for(directory.path("none").c_str(), &account), nullptr);
    EXPECT_EQ(account.error, ENOENT);
    EXPECT_EQ(conffile_account_for(directory.path().c_str(), &account), nullptr);
    EXPECT_EQ(account.error, EISDIR);
}

} // namespace
