#include "google/push_answer.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct answer_case {
    const char *name;
    bool about_the_token;
    const char *body;
    const char *content_type = nullptr;
};

class FcmAnswer : public testing::TestWithParam<answer_case> {};

TEST_P(FcmAnswer, IsAboutTheTokenOrAboutAnotherThing)
{
    const std::string &body = GetParam().body;
    EXPECT_EQ(
        velm_fcm_answer_is_about_the_token(body.c_str(), body.size(), GetParam().content_type),
        GetParam().about_the_token);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Json, FcmAnswer, testing::Values(
    answer_case{"Unregistered", true,
                R"({"error":{"code":404,"status":"NOT_FOUND","details":[{"@type":"x","errorCode":"UNREGISTERED"}]}})"},
    answer_case{"UnregisteredUnderAnyType", true,
                R"({"error":{"details":[{"errorCode":"UNREGISTERED"}]}})", "text/html"},
    answer_case{"AnotherCode", false, R"({"error":{"details":[{"errorCode":"SENDER_ID_MISMATCH"}]}})"},
    answer_case{"AnotherCodeAfterOthers", false,
                R"({"error":{"details":[{},{"a":1},{"errorCode":"UNREGISTERED"},{"errorCode":"QUOTA_EXCEEDED"}]}})"},
    answer_case{"CodeInOtherCase", false, R"({"error":{"details":[{"errorCode":"unregistered"}]}})"},
    answer_case{"EmptyCode", false, R"({"error":{"details":[{"errorCode":""}]}})"},
    answer_case{"CodeThatIsANumber", false, R"({"error":{"details":[{"errorCode":404}]}})"},
    answer_case{"NoCodeInTheDetails", true, R"({"error":{"details":[{"reason":"X"}]}})"},
    answer_case{"EmptyDetails", true, R"({"error":{"details":[]}})"},
    answer_case{"NoDetails", true, R"({"error":{"code":404,"status":"NOT_FOUND"}})"},
    answer_case{"CodeOutsideTheDetails", true, R"({"error":{"errorCode":"X"},"errorCode":"Y"})"},
    answer_case{"ErrorThatIsText", true, R"({"error":"not_found"})"},
    answer_case{"DetailsOfOtherKinds", true, R"({"error":{"details":[1,"x",null,[]]}})"},
    answer_case{"EmptyObject", true, "{}"},
    answer_case{"List", true, "[]"},
    answer_case{"Null", true, "null"}),
    [](const auto &row) { return std::string{row.param.name}; });

INSTANTIATE_TEST_SUITE_P(Texts, FcmAnswer, testing::Values(
    answer_case{"Empty", true, ""},
    answer_case{"EmptyPage", true, "", "text/html"},
    answer_case{"PlainText", true, "Not Found", "text/plain"},
    answer_case{"CutJson", true, R"({"error":{"details":[{"errorCode":"X")"},
    answer_case{"Doctype", false, "<!DOCTYPE html>\n<html lang=en>"},
    answer_case{"UpperCase", false, "<HTML>"},
    answer_case{"AfterBlanks", false, "\r\n\t <html>"},
    answer_case{"AfterAByteOrderMark", false, "\xef\xbb\xbf<html>"},
    answer_case{"AfterAComment", false, "<!-- x --><html>"},
    answer_case{"CutPage", false, "<"},
    answer_case{"PageAsJson", false, "<html>", "application/json; charset=UTF-8"},
    answer_case{"PageByItsTypeOnly", false, "Not Found", "Text/HTML; charset=UTF-8"},
    answer_case{"XhtmlPage", false, "Not Found", "application/xhtml+xml"},
    answer_case{"BlanksAsAPage", true, " \n", "text/html"}),
    [](const auto &row) { return std::string{row.param.name}; });
// clang-format on

TEST(FcmAnswerWithoutBody, IsAboutTheToken)
{
    EXPECT_TRUE(velm_fcm_answer_is_about_the_token(nullptr, 0, nullptr));
    EXPECT_TRUE(velm_fcm_answer_is_about_the_token(nullptr, 0, "text/html"));
}

TEST(FcmAnswerNestedTooDeep, IsAboutTheToken)
{
    const std::string body(64 * 1024, '[');
    EXPECT_TRUE(velm_fcm_answer_is_about_the_token(body.c_str(), body.size(), nullptr));
}

struct words_case {
    const char *name;
    int code;
    std::string body;
    const char *words;
};

class FcmAnswerWords : public testing::TestWithParam<words_case> {};

TEST_P(FcmAnswerWords, AreShortAndNotOfTheSendersMaking)
{
    const std::string &body = GetParam().body;
    const std::string words =
        velm_fcm_answer_words(GetParam().code, body.c_str(), body.size(), nullptr);
    EXPECT_EQ(words, GetParam().words);
    EXPECT_LT(words.size(), 48U) << "they are cut";
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Codes, FcmAnswerWords, testing::Values(
    words_case{"NoConnection", 0, "", "cannot connect to the push service"},
    words_case{"NoAnswer", -1, "", "no answer in time"},
    words_case{"EndWithoutAnswer", -2, "", "the connection ended without an answer"},
    words_case{"NoHttp", -3, "", "the answer is no HTTP"},
    words_case{"BrokenConnection", -4, "", "the connection or its certificate failed"},
    words_case{"TooLong", -6, "", "the answer is too long"},
    words_case{"UnknownToken", 404, "", "the push token is not registered any more"},
    words_case{"Page", 404, "<html>", "the answer is not about the push token"},
    words_case{"Status", 403, R"({"error":{"status":"PERMISSION_DENIED"}})", "refused: PERMISSION_DENIED"},
    words_case{"StatusOfOtherLetters", 400, R"({"error":{"status":"a b"}})", "refused"},
    words_case{"StatusThatIsTooLong", 400, R"({"error":{"status":"AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA"}})", "refused"},
    words_case{"StatusInALongAnswer", 500, R"({"error":{"status":"INTERNAL"}})" + std::string(5000, ' '), "refused"},
    words_case{"NoStatus", 500, "oops", "refused"}),
    [](const auto &row) { return std::string{row.param.name}; });
// clang-format on

} // namespace
