#include <dlfcn.h>
#include <event2/buffer.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/paused_request.h"
#include "handles/cjson.h"
#include "http_server/intake.h"
#include "logger/common_logger.h"
#include "velm_request_preprocessor.h"

namespace {
bool copyout_fails = false;
int prints = 0;
} // namespace

/// Stands in for cJSON's function, to see when it is asked.
extern "C" char *cJSON_Print(const cJSON *item)
{
    ++prints;
    return cJSON_PrintBuffered(item, 256, 1);
}

/// Stands in for libevent's function, which cannot fail on a buffer in memory.
extern "C" ev_ssize_t evbuffer_copyout(evbuffer *buffer, void *data, size_t length)
{
    if (copyout_fails) {
        return -1;
    }
    static const auto real =
        reinterpret_cast<decltype(&evbuffer_copyout)>(dlsym(RTLD_NEXT, "evbuffer_copyout"));
    return real(buffer, data, length);
}

namespace {

using namespace std::string_literals;

class Body : public testing::Test {
  protected:
    velm_request_body parse(const std::string &body)
    {
        request_.replace_body(body);
        return velm_request_parse_request_body(request_.get());
    }
    int status(const std::string &body)
    {
        const velm_request_body parsed = parse(body);
        EXPECT_EQ(parsed.body != nullptr, parsed.status == 200);
        return parsed.status;
    }
    captured_log log_;

  private:
    paused_request request_{""};
};

TEST_F(Body, WithAnAuthObjectIsGivenToTheCaller)
{
    const velm_request_body parsed = parse(R"({"auth":{"deviceId":"a"}})");
    EXPECT_EQ(parsed.status, 200);
    const cJSON *const auth = cJSON_GetObjectItemCaseSensitive(parsed.body.get(), "auth");
    EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(auth, "deviceId")), "a");
}

TEST_F(Body, IsTracedAsReceivedAndAsParsed)
{
    EXPECT_EQ(status(R"({"auth":{}})"), 200);
    EXPECT_TRUE(log_.has("TRACE velm_request_preprocessor - velm_request_parse_request_body - "
                         "received data (11):"));
    EXPECT_TRUE(log_.has("TRACE velm_request_preprocessor - velm_request_parse_request_body - "
                         R"({"auth":{}})"));
    EXPECT_TRUE(log_.has("TRACE velm_request_preprocessor - velm_request_parse_request_body - "
                         "received:"));
}

TEST_F(Body, IsPrintedForTheLogAtLevelTraceOnly)
{
    prints = 0;
    for (const char *level : {"debug", "info", "warn", "error", "mute"}) {
        common_logger_set("level", level);
        EXPECT_EQ(status(R"({"auth":{}})"), 200);
    }
    common_logger_set("level", "trace");
    common_logger_set("category.velm_request_preprocessor", "error");
    EXPECT_EQ(status(R"({"auth":{}})"), 200);
    EXPECT_EQ(prints, 0);
    common_logger_set("category.velm_request_preprocessor", "trace");
    EXPECT_EQ(status(R"({"auth":{}})"), 200);
    EXPECT_EQ(prints, 1);
}

TEST_F(Body, ThatIsEmptyGives400)
{
    EXPECT_EQ(status(""), 400);
    EXPECT_TRUE(log_.has("ERROR velm_request_preprocessor - velm_request_parse_request_body - "
                         "no data"));
}

TEST_F(Body, ThatCannotBeCopiedGives500)
{
    copyout_fails = true;
    EXPECT_EQ(status(R"({"auth":{}})"), 500);
    copyout_fails = false;
    EXPECT_TRUE(log_.has("ERROR velm_request_preprocessor - velm_request_parse_request_body - "
                         "cannot copy data"));
}

TEST_F(Body, MayBeNestedAHundredDeepAndNoDeeper)
{
    const auto nested = [](std::size_t depth) {
        return R"({"auth":{},"x":)" + std::string(depth - 1, '[') + std::string(depth - 1, ']') +
               '}';
    };
    EXPECT_EQ(status(nested(100)), 200);
    EXPECT_EQ(status(nested(101)), 400);
    EXPECT_EQ(status(std::string(8192, '[')), 400);
}

std::string repeated(std::size_t count, const std::string &text)
{
    std::string all;
    for (std::size_t i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

std::string list_of(std::size_t count, const std::string &element)
{
    return '[' + element + repeated(count - 1, "," + element) + ']';
}

/// "auth" and "x" are two of the values.
std::string beside_auth(const std::string &text)
{
    return R"({"auth":{},"x":)" + text + '}';
}

TEST_F(Body, MayHoldAThousandValuesAndNoMore)
{
    EXPECT_EQ(status(beside_auth(list_of(998, "1"))), 200);
    EXPECT_EQ(status(beside_auth(list_of(999, "1"))), 400);
    EXPECT_EQ(log_.count("velm_request_parse_request_body - too many json values"), 1);
    EXPECT_EQ(status(beside_auth(list_of(499, R"({"a":1})"))), 200);
    EXPECT_EQ(status(beside_auth(list_of(499, R"({"a":1})") + R"(,"b":0)")), 400);
    EXPECT_EQ(log_.count("too many json values"), 2);
}

TEST_F(Body, HoldsNoMoreValuesForWhatIsTextOrEmptyOrBehindTheValue)
{
    EXPECT_EQ(status(beside_auth(list_of(998, "[ ]"))), 200);
    EXPECT_EQ(status(beside_auth(list_of(998, "{\n}"))), 200);
    EXPECT_EQ(status(beside_auth("\"" + repeated(2000, ",") + "\"")), 200);
    EXPECT_EQ(status(beside_auth(R"(["\\",",\\\",,[","\\\\"])")), 200);
    EXPECT_EQ(status(beside_auth("1") + repeated(2000, ",")), 200);
}

TEST_F(Body, MayHoldAsManyWholeLocationsAsItsBytes)
{
    const std::string place = R"({"latitude":1,"longitude":2,"accuracy":3,"altitude":4,)"
                              R"("verticalAccuracy":5,"rssi":-6,"timestamp":"7"})";
    const std::string before = R"({"auth":{"deviceId":"a"},"location":)";
    const std::size_t bytes =
        http_server_max_body_size - before.size() - std::string_view{"[]}"}.size();
    const std::size_t most = (bytes + 1) / (place.size() + 1);
    EXPECT_EQ(status(before + list_of(most, place) + '}'), 200);
}

TEST_F(Body, OfNoRequestEndsTheProcess)
{
    EXPECT_DEATH((void)velm_request_parse_request_body(nullptr),
                 "velm_request_parse_request_body: req is null: null reference");
}

struct body_case {
    const char *name;
    std::string body;
    const char *error; // none: accepted
};

constexpr char unparseable[] = "cannot parse json data";

class BodyText : public Body, public testing::WithParamInterface<body_case> {};

TEST_P(BodyText, IsAcceptedOrGives400WithItsReason)
{
    const body_case &row = GetParam();
    EXPECT_EQ(status(row.body), row.error == nullptr ? 200 : 400);
    if (row.error != nullptr) {
        EXPECT_TRUE(log_.has("ERROR velm_request_preprocessor - velm_request_parse_request_body"
                             " - "s +
                             row.error));
    }
}

std::string in_auth(const std::string &text)
{
    return R"({"auth":{"username":")" + text + R"("}})";
}

const body_case bodies[] = {
    {"NoJson", "deviceId=a", unparseable},
    {"CutShort", R"({"auth":{})", unparseable},
    {"WithoutAuth", R"({"pair":{}})", "no auth data"},
    {"Array", R"([{"auth":{}}])", "no auth data"},
    {"Number", "1", "no auth data"},
    {"AuthIsAString", R"({"auth":"x"})", "invalid auth data"},
    {"AuthIsAnArray", R"({"auth":[]})", "invalid auth data"},
    {"AuthIsNull", R"({"auth":null})", "invalid auth data"},
    {"NamesAreCaseSensitive", R"({"Auth":{}})", "no auth data"},
    {"FirstOfTwoAuthsIsAnObject", R"({"auth":{},"auth":"x"})", nullptr},
    {"FirstOfTwoAuthsIsAString", R"({"auth":"x","auth":{}})", "invalid auth data"},
    {"TextBehindTheValueIsIgnored", R"({"auth":{}} {"auth)", nullptr},
    {"NulBehindTheValueIsIgnored", "{\"auth\":{}}\0"s, nullptr},
    {"OtherBytesBehindTheValueAreIgnored", "{\"auth\":{}}\xff"s, nullptr},
    {"ByteOrderMark", "\xef\xbb\xbf{\"auth\":{}}", nullptr},
};

INSTANTIATE_TEST_SUITE_P(Shapes, BodyText, testing::ValuesIn(bodies),
                         [](const auto &row) { return std::string{row.param.name}; });

const body_case encodings[] = {
    {"TwoBytes", in_auth("\xc3\xa9"), nullptr},
    {"ThreeBytes", in_auth("\xe2\x82\xac"), nullptr},
    {"FourBytes", in_auth("\xf0\x9f\x98\x80"), nullptr},
    {"LastBeforeTheSurrogates", in_auth("\xed\x9f\xbf"), nullptr},
    {"FirstBehindTheSurrogates", in_auth("\xee\x80\x80"), nullptr},
    {"LastCodePoint", in_auth("\xf4\x8f\xbf\xbf"), nullptr},
    {"BehindTheLastCodePoint", in_auth("\xf4\x90\x80\x80"), unparseable},
    {"Surrogate", in_auth("\xed\xa0\x80"), unparseable},
    {"OverlongSlash", in_auth("\xc0\xaf"), unparseable},
    {"OverlongThree", in_auth("\xe0\x9f\xbf"), unparseable},
    {"OverlongFour", in_auth("\xf0\x8f\xbf\xbf"), unparseable},
    {"LoneContinuation", in_auth("\x80"), unparseable},
    {"TooFewContinuations", in_auth("\xe2\x82"), unparseable},
    {"ContinuationMissingInside", in_auth("\xf0\x9f\x98 "), unparseable},
    {"NeverAByteOfUtf8", in_auth("\xff"), unparseable},
    {"InAMemberName", "{\"auth\":{\"\xff\":1}}", unparseable},
    {"LoneEscapedSurrogate", in_auth("\\ud800"), unparseable},
};

INSTANTIATE_TEST_SUITE_P(Utf8, BodyText, testing::ValuesIn(encodings),
                         [](const auto &row) { return std::string{row.param.name}; });

const body_case nuls[] = {
    {"Escaped", in_auth("root\\u0000x"), unparseable},
    {"EscapedInAMemberName", R"({"auth":{"deviceId\u0000":"a"}})", unparseable},
    {"EscapedBehindAnEscapedQuote", in_auth("\\\"\\u0000"), unparseable},
    {"Raw", in_auth("root\0x"s), unparseable},
    {"EscapedBackslashBeforeU0000", in_auth("\\\\u0000"), nullptr},
    {"OtherEscapedControlCharacter", in_auth("\\u0001"), nullptr},
};

INSTANTIATE_TEST_SUITE_P(Nul, BodyText, testing::ValuesIn(nuls),
                         [](const auto &row) { return std::string{row.param.name}; });

std::vector<std::filesystem::path> json_files()
{
    std::vector<std::filesystem::path> files;
    for (const auto &entry :
         std::filesystem::recursive_directory_iterator{VELM_TEST_DATA "/json"}) {
        if (entry.path().extension() == ".json") {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string read_file(const std::filesystem::path &path)
{
    std::ifstream in{path, std::ios::binary};
    return {std::istreambuf_iterator<char>{in}, {}};
}

TEST_F(Body, OfEveryKnownTrickyDocumentGives400SinceNoneHasAuth)
{
    const auto files = json_files();
    ASSERT_GT(files.size(), 300U);
    for (const auto &file : files) {
        EXPECT_EQ(status(read_file(file)), 400) << file;
    }
}

TEST_F(Body, MayHoldEveryValidDocumentBesideAuthUnlessAStringHoldsANul)
{
    for (const auto &file : json_files()) {
        const std::string name = file.filename().string();
        const std::string text = read_file(file);
        if (name.starts_with("y_")) {
            const bool nul = text.find("\\u0000") != std::string::npos &&
                             text.find("\\\\u0000") == std::string::npos;
            // Older versions of cJSON take no number of more than 63 characters.
            const bool taken = !nul && json_ptr{cJSON_Parse(text.c_str())} != nullptr;
            EXPECT_TRUE(taken || nul || name == "y_number_double_close_to_zero.json") << file;
            EXPECT_EQ(status("{\"x\":" + text + ",\"auth\":{}}"), taken ? 200 : 400) << file;
        }
    }
}

TEST_F(Body, SurvivesEveryOtherDocumentBesideAuth)
{
    for (const auto &file : json_files()) {
        const int given = status("{\"auth\":{},\"x\":" + read_file(file) + "}");
        EXPECT_TRUE(given == 200 || given == 400) << file << " gave " << given;
    }
}

} // namespace
