#include "tools/locations/velmctl_print.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <utility>

#include "handles/cjson.h"
#include "tools/locations/velmctl_client.h"
#include "tools/terminal/text.h"

namespace {

velm_location_report sample_report()
{
    velm_location_report report{};
    report.valid = 1;
    const std::uint8_t ip[] = {192, 168, 1, 23};
    std::copy(std::begin(ip), std::end(ip), report.phone_ip);
    std::strcpy(report.os_version, "17.4.1");
    std::strcpy(report.phone_model, "iPhone15,2");
    report.time = 1700000000;
    report.bssid_present = 1;
    const std::uint8_t bssid[] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0xff};
    std::copy(std::begin(bssid), std::end(bssid), report.bssid);
    report.rssi = -54;
    report.latitude = 52.2296756;
    report.longitude = -21.0122287;
    report.horizontal_uncertainty1 = 4.5;
    report.horizontal_uncertainty2 = 4.5;
    report.height = 113.25;
    report.height_kind = 2;
    report.vertical_uncertainty = 3.5;
    return report;
}

constexpr velm_frame_header report_header{0xa000, 224, 7, 1700000005, 0};

TEST(VelmctlText, ATimeIsRightToTheEndOf32UnsignedBits)
{
    EXPECT_EQ(velmctl_time_to_text(0), "1970-01-01T00:00:00Z");
    EXPECT_EQ(velmctl_time_to_text(2682374400), "2055-01-01T00:00:00Z");
    EXPECT_EQ(velmctl_time_to_text(4294967295), "2106-02-07T06:28:15Z");
}

TEST(VelmctlText, AReportIsAGroupOfLinesWithEveryValue)
{
    EXPECT_EQ(velmctl_report_to_text(report_header, sample_report()),
              "report: 7\n"
              "time: 2023-11-14T22:13:20Z\n"
              "position: 52.2296756, -21.0122287\n"
              "horizontal uncertainty: 4.5 m, 4.5 m, orientation 0\n"
              "height: 113.25 m, kind 2\n"
              "vertical uncertainty: 3.5 m\n"
              "rssi: -54 dBm\n"
              "bssid: 00:1a:2b:3c:4d:ff\n"
              "phone model: iPhone15,2\n"
              "phone os: 17.4.1\n"
              "phone ip: 192.168.1.23\n"
              "\n");
}

TEST(VelmctlText, TheLargestNumbersKeepTheirLine)
{
    velm_location_report report = sample_report();
    report.latitude = -std::numeric_limits<double>::max();
    report.longitude = -std::numeric_limits<double>::max();
    const std::string text = velmctl_report_to_text(report_header, report);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 12);
}

std::string latitude_in_json(double latitude)
{
    velm_location_report report = sample_report();
    report.latitude = latitude;
    const std::string line = velmctl_report_to_json(report_header, report);
    const std::size_t begin = line.find("\"latitude\":") + 11;
    return line.substr(begin, line.find(',', begin) - begin);
}

TEST(VelmctlJson, ANumberIsAsShortAsItCanBeWithoutLosingABit)
{
    const std::pair<double, const char *> numbers[] = {
        {0.0, "0"},
        {-0.0, "-0"},
        {0.1, "0.1"},
        {1.0 / 3, "0.3333333333333333"},
        {-21.0122287, "-21.0122287"},
        {90.0, "90"},
        {100000.0, "1e+05"},
        {120000.0, "120000"},
        {0.0001, "1e-04"},
        {0.00012, "0.00012"},
        {9007199254740993.0, "9007199254740992"},
        {123456789012345680000.0, "123456789012345683968"},
        {std::numeric_limits<double>::max(), "1.7976931348623157e+308"},
        {std::numeric_limits<double>::denorm_min(), "5e-324"},
        {std::nan(""), "null"}};
    for (const auto &[number, text] : numbers) {
        EXPECT_EQ(latitude_in_json(number), text);
    }
}

#ifdef __cpp_lib_to_chars
TEST(VelmctlJson, ANumberIsWrittenAsTheStandardLibraryWritesIt)
{
    std::mt19937_64 random{1};
    for (int i = 0; i < 5000; ++i) {
        const std::uint64_t bits = random();
        double number = static_cast<double>(bits >> 30U) / 1e8; // as in a position
        if (i % 2 == 0) {
            std::memcpy(&number, &bits, sizeof number);
        }
        if (std::isfinite(number)) {
            std::array<char, 32> text{};
            const auto end = std::to_chars(text.begin(), text.end(), number).ptr;
            EXPECT_EQ(latitude_in_json(number), std::string(text.begin(), end));
        }
    }
}
#endif

TEST(VelmctlJson, AReportIsOneLineWithEveryField)
{
    EXPECT_EQ(velmctl_report_to_json(report_header, sample_report()),
              "{\"kind\":\"report\",\"type\":40960,\"id\":7,\"sent\":1700000005,"
              "\"sent_iso\":\"2023-11-14T22:13:25Z\",\"status\":0,\"valid\":1,"
              "\"phone_ip\":\"192.168.1.23\",\"os_version\":\"17.4.1\","
              "\"phone_model\":\"iPhone15,2\",\"time\":1700000000,"
              "\"time_iso\":\"2023-11-14T22:13:20Z\",\"bssid_present\":1,"
              "\"bssid\":\"00:1a:2b:3c:4d:ff\",\"rssi\":-54,\"latitude\":52.2296756,"
              "\"longitude\":-21.0122287,\"horizontal_uncertainty1\":4.5,"
              "\"horizontal_uncertainty2\":4.5,\"orientation\":0,\"height\":113.25,"
              "\"height_kind\":2,\"vertical_uncertainty\":3.5}\n");
}

TEST(VelmctlJson, AnAnswerNamesItsStatus)
{
    EXPECT_EQ(velmctl_answer_to_json({0x1000, 0, 1, 0, 3}),
              "{\"kind\":\"answer\",\"type\":4096,\"id\":1,\"sent\":0,"
              "\"sent_iso\":\"1970-01-01T00:00:00Z\",\"status\":3,"
              "\"status_text\":\"no paired devices\"}\n");
}

TEST(VelmctlJson, NumbersThatJsonDoesNotKnowAreNull)
{
    velm_location_report report = sample_report();
    report.latitude = std::nan("");
    report.longitude = std::numeric_limits<double>::infinity();
    const json_ptr json{cJSON_Parse(velmctl_report_to_json(report_header, report).c_str())};
    ASSERT_NE(json, nullptr);
    EXPECT_TRUE(cJSON_IsNull(cJSON_GetObjectItemCaseSensitive(json.get(), "latitude")));
    EXPECT_TRUE(cJSON_IsNull(cJSON_GetObjectItemCaseSensitive(json.get(), "longitude")));
}

TEST(VelmctlJson, AFieldOfEveryByteValueIsStillOneLineOfJson)
{
    for (int first = 0; first < 256; ++first) {
        velm_location_report report = sample_report();
        for (std::size_t i = 0; i < sizeof report.os_version; ++i) {
            report.os_version[i] = static_cast<char>(first + static_cast<int>(i));
            report.phone_model[i] = static_cast<char>(first);
        }
        const std::string text = velmctl_report_to_json(report_header, report);
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << first;
        const json_ptr json{cJSON_Parse(text.c_str())};
        ASSERT_NE(json, nullptr) << text;
        EXPECT_NE(cJSON_GetObjectItemCaseSensitive(json.get(), "phone_ip"), nullptr);
    }
}

TEST(VelmctlField, EndsAtItsTerminatorOrItsSize)
{
    const char terminated[4] = {'a', 'b', '\0', 'c'};
    EXPECT_EQ(velmctl_field(terminated), "ab");
    const char full[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(velmctl_field(full), "abcd");
}

struct text_case {
    const char *name, *raw, *terminal, *json;
};
class VelmctlEscape : public testing::TestWithParam<text_case> {};

TEST_P(VelmctlEscape, KeepsTextAndDisarmsTheRest)
{
    EXPECT_EQ(velmctl_text_for_terminal(GetParam().raw), GetParam().terminal);
    EXPECT_EQ(velmctl_text_for_json(GetParam().raw), GetParam().json);
}

#define BAD "\xef\xbf\xbd"
INSTANTIATE_TEST_SUITE_P(
    Texts, VelmctlEscape,
    testing::Values(text_case{"Ascii", "iPhone 15", "iPhone 15", "iPhone 15"},
                    text_case{"Utf8", "\xc5\xbc\xe2\x82\xac\xf0\x9f\x93\xb1",
                              "\xc5\xbc\xe2\x82\xac\xf0\x9f\x93\xb1",
                              "\xc5\xbc\xe2\x82\xac\xf0\x9f\x93\xb1"},
                    text_case{"Quotes", "a\"b\\c", "a\"b\\c", "a\\\"b\\\\c"},
                    text_case{"Escape", "\x1b[2J", "?[2J", "\\u001b[2J"},
                    text_case{"Newline", "a\nb", "a?b", "a\\u000ab"},
                    text_case{"Delete", "\x7f", "?", "\\u007f"},
                    text_case{"C1Control", "\xc2\x9b", "?", "\\u009b"},
                    text_case{"BareC1", "\x9b", BAD, BAD},
                    text_case{"CutOff", "a\xe2\x82", "a" BAD BAD, "a" BAD BAD},
                    text_case{"Overlong", "\xc0\xaf", BAD BAD, BAD BAD},
                    text_case{"Surrogate", "\xed\xa0\x80", BAD BAD BAD, BAD BAD BAD},
                    text_case{"TooLarge", "\xf4\x90\x80\x80", BAD BAD BAD BAD, BAD BAD BAD BAD},
                    text_case{"Never", "\xff", BAD, BAD}),
    [](const auto &row) { return std::string{row.param.name}; });
#undef BAD

TEST(VelmctlFrame, IsAsLongAsItsHeaderSays)
{
    std::vector<std::uint8_t> packet(16 + 224);
    std::memcpy(packet.data(), &report_header, sizeof report_header);
    EXPECT_TRUE(velmctl_frame_parse(packet).has_value());
    EXPECT_FALSE(velmctl_frame_parse(std::span{packet}.first(239)).has_value());
    EXPECT_FALSE(velmctl_frame_parse(std::span{packet}.first(15)).has_value());
    packet.push_back(0);
    EXPECT_FALSE(velmctl_frame_parse(packet).has_value());
}

TEST(VelmctlFrame, OnlyTwoHundredAndTwentyFourBytesAreAReport)
{
    for (const std::size_t size : {0U, 223U, 225U}) {
        EXPECT_FALSE(
            velmctl_report_parse({report_header, std::vector<std::uint8_t>(size)}).has_value());
    }
    EXPECT_TRUE(velmctl_report_parse({report_header, std::vector<std::uint8_t>(224)}).has_value());
}

} // namespace
