#include "tools/control/fields.h"

#include <gtest/gtest.h>

#include "handles/cjson.h"
#include "tools/control/document.h"

namespace {

struct moment_case {
    const char *name, *text;
    bool accepted;
};
class ControlMoment : public testing::TestWithParam<moment_case> {};

TEST_P(ControlMoment, HasOneForm)
{
    EXPECT_EQ(control_moment_parse(GetParam().text).has_value(), GetParam().accepted);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ControlMoment,
    testing::Values(moment_case{"Moment", "2026-11-22T12:03:10.123Z", true},
                    moment_case{"LeapSecond", "2026-12-31T23:59:60.000Z", true},
                    moment_case{"NoMilliseconds", "2026-11-22T12:03:10Z", false},
                    moment_case{"OtherZone", "2026-11-22T12:03:10.123+", false},
                    moment_case{"Month13", "2026-13-22T12:03:10.123Z", false},
                    moment_case{"Month0", "2026-00-22T12:03:10.123Z", false},
                    moment_case{"Day32", "2026-11-32T12:03:10.123Z", false},
                    moment_case{"Hour24", "2026-11-22T24:03:10.123Z", false},
                    moment_case{"Letter", "2026-11-22T12:0a:10.123Z", false},
                    moment_case{"Sign", "2026-11-22T12:03:-1.123Z", false},
                    moment_case{"Empty", "", false}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST(ControlMoment, IsCountedFromTheEpoch)
{
    EXPECT_EQ(control_moment_parse("1970-01-02T00:00:01.007Z")->time_since_epoch().count(),
              86401007);
    EXPECT_EQ(control_moment_parse("2055-01-01T00:00:00.000Z")->time_since_epoch().count(),
              2682374400000);
}

class ControlFields : public testing::Test {
  protected:
    control_fields read(const char *text)
    {
        document.reset(cJSON_Parse(text));
        return {document.get(), "", problem};
    }

    json_ptr document;
    std::string problem;
};

TEST_F(ControlFields, GiveWhatIsThere)
{
    const control_fields in = read(R"({"t":"x","n":-7,"m":0.5,"f":true,"o":{"t":"y"},"z":null})");
    EXPECT_EQ(in.text("t"), "x");
    EXPECT_EQ(in.number("n"), -7);
    EXPECT_EQ(in.maybe_measure("m"), 0.5);
    EXPECT_TRUE(in.flag("f"));
    EXPECT_EQ(in.object("o").text("t"), "y");
    EXPECT_FALSE(in.maybe_text("z") || in.maybe_number("z") || in.maybe_flag("z") ||
                 in.maybe_moment("z") || in.maybe_object("z").has_value());
    EXPECT_EQ(problem, "");
}

TEST_F(ControlFields, TheFirstProblemStays)
{
    const control_fields in = read(R"({"o":{"n":"7"}})");
    EXPECT_EQ(in.object("o").number("n"), 0);
    EXPECT_EQ(in.text("gone"), "");
    EXPECT_EQ(problem, "o.n is no number");
}

struct problem_case {
    const char *name, *text, *problem;
};
class ControlFieldsProblem : public ControlFields,
                             public testing::WithParamInterface<problem_case> {};

TEST_P(ControlFieldsProblem, NamesItsPlace)
{
    const control_fields in = read(GetParam().text);
    struct element {
        std::string text;
    };
    const auto list =
        in.list<element>("list", [](const control_fields &one) { return element{one.text("t")}; });
    static_cast<void>(list);
    EXPECT_EQ(problem, GetParam().problem);
}

INSTANTIATE_TEST_SUITE_P(
    Documents, ControlFieldsProblem,
    testing::Values(problem_case{"None", R"({"list":[]})", ""},
                    problem_case{"Two", R"({"list":[{"t":"a"},{"t":"b"}]})", ""},
                    problem_case{"NoDocument", "7", "the document is no object"},
                    problem_case{"NoList", R"({"list":{}})", "list is no list"},
                    problem_case{"Missing", "{}", "list is missing"},
                    problem_case{"NoObject", R"({"list":[{"t":"a"},7]})", "list[1] is no object"},
                    problem_case{"NoText", R"({"list":[{"t":7}]})", "list[0].t is no text"},
                    problem_case{"Null", R"({"list":[{"t":null}]})", "list[0].t is null"}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(ControlFields, AWholeNumberIsWholeAndNotTooLarge)
{
    EXPECT_EQ(read(R"({"n":9007199254740991})").number("n"), 9007199254740991);
    EXPECT_EQ(problem, "");
    EXPECT_EQ(read(R"({"n":1.5})").number("n"), 0);
    EXPECT_EQ(problem, "n is no whole number");
    problem.clear();
    EXPECT_EQ(read(R"({"n":1e300})").number("n"), 0);
    EXPECT_EQ(problem, "n is no whole number");
}

TEST(ControlDocument, HasOurVersion)
{
    std::string problem;
    EXPECT_NE(control_document_parse(R"({"version":1})", problem), nullptr);
    EXPECT_EQ(problem, "");
    EXPECT_EQ(control_document_parse(R"({"version":2})", problem), nullptr);
    EXPECT_EQ(problem, "the document has version 2, and this velmctl knows version 1");
}

TEST(ControlDocument, IsPrintedInOneLineFitForAnyOutput)
{
    std::string problem;
    const json_ptr document =
        control_document_parse("{\"version\":1,\"a\":\"\u009b\\n\"}", problem);
    EXPECT_EQ(control_document_print(document.get()), "{\"version\":1,\"a\":\"\\u009b\\n\"}\n");
}

} // namespace
