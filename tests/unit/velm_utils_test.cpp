#include "velm_utils.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <vector>

#include "fakes/captured_log.h"
#include "handles/malloc.h"

namespace {

json_ptr parse(const char *text)
{
    return json_ptr{cJSON_Parse(text)};
}

std::string printed(const json_ptr &json)
{
    return json_text{cJSON_PrintUnformatted(json.get())}.get();
}

struct field_case {
    const char *name, *object, *text;
    double number;
};
class JsonField : public testing::TestWithParam<field_case> {};

TEST_P(JsonField, IsReadByItsKind)
{
    const json_ptr object = parse(GetParam().object);
    EXPECT_STREQ(velm_utils_get_field_value_from_json_object(object.get(), "f"), GetParam().text);
    EXPECT_EQ(velm_utils_get_number_value_from_json_object(object.get(), "f"), GetParam().number);
}

INSTANTIATE_TEST_SUITE_P(Members, JsonField,
                         testing::Values(field_case{"Text", R"({"f":"v"})", "v", 0},
                                         field_case{"EmptyText", R"({"f":""})", "", 0},
                                         field_case{"Number", R"({"f":-1.5})", nullptr, -1.5},
                                         field_case{"NumberInText", R"({"f":"7"})", "7", 0},
                                         field_case{"Null", R"({"f":null})", nullptr, 0},
                                         field_case{"True", R"({"f":true})", nullptr, 0},
                                         field_case{"Object", R"({"f":{"f":"v"}})", nullptr, 0},
                                         field_case{"Missing", R"({"g":"v"})", nullptr, 0},
                                         field_case{"OtherCase", R"({"F":"v"})", nullptr, 0},
                                         field_case{"FirstOfTwoCounts", R"({"f":"a","f":"b"})", "a",
                                                    0},
                                         field_case{"NoObjectAtAll", R"(["f"])", nullptr, 0}),
                         [](const auto &row) { return std::string{row.param.name}; });

struct unescape_case {
    const char *name, *escaped, *plain;
};
class Unescape : public testing::TestWithParam<unescape_case> {};

TEST_P(Unescape, GivesBackTheThreeCharacters)
{
    EXPECT_EQ(velm_utils_unescape_html_encoded_base64_chars(GetParam().escaped), GetParam().plain);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Unescape,
    testing::Values(unescape_case{"IgnoresCaseInTheMatch", R"(abc\u003D\u002b)", "abc=+"},
                    unescape_case{"UpperCaseU", R"(\U003d)", "="},
                    unescape_case{"Slash", R"(a\u002Fb)", "a/b"},
                    unescape_case{"ALoneBackslashStays", R"(a\b)", R"(a\b)"},
                    unescape_case{"ABackslashAtTheEndStays", R"(a\)", R"(a\)"},
                    unescape_case{"ABackslashBeforeASequence", R"(\\u003d)", R"(\=)"},
                    unescape_case{"ACutSequenceStays", R"(a\u003)", R"(a\u003)"},
                    unescape_case{"AnotherSequenceStays", R"(\u003c)", R"(\u003c)"},
                    unescape_case{"WhatASequenceMakesIsNotReadAgain", R"(\u002bu003d)", "+u003d"},
                    unescape_case{"Plain", "QUJD+/==", "QUJD+/=="}, unescape_case{"Empty", "", ""}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST(Timestamp, IsPrintedInDecimal)
{
    EXPECT_EQ(velm_utils_timestamp_to_string(0), "0");
    EXPECT_EQ(velm_utils_timestamp_to_string(ULONG_MAX), std::to_string(ULONG_MAX));
}

TEST(Timestamp, ParsesLeadingDecimalDigits)
{
    unsigned long value = 0;
    EXPECT_TRUE(velm_utils_parse_timestamp("1700000000", &value));
    EXPECT_EQ(value, 1700000000UL);
    EXPECT_TRUE(velm_utils_parse_timestamp("12ab", &value));
    EXPECT_EQ(value, 12UL);
}

TEST(Timestamp, IsNotDisturbedByAnOlderErrno)
{
    unsigned long value = 0;
    errno = ERANGE;
    EXPECT_TRUE(velm_utils_parse_timestamp("5", &value));
    EXPECT_EQ(value, 5UL);
}

TEST(Timestamp, TheLargestFitsAndOneMoreLeavesTheDestination)
{
    unsigned long value = 0;
    EXPECT_TRUE(velm_utils_parse_timestamp(std::to_string(ULONG_MAX).c_str(), &value));
    EXPECT_EQ(value, ULONG_MAX);
    value = 7;
    EXPECT_FALSE(velm_utils_parse_timestamp("18446744073709551616", &value));
    EXPECT_EQ(value, 7UL);
}

struct mac_case {
    const char *name, *text;
    bool accepted;
    velm_mac_address mac;
};
class ParseMac : public testing::TestWithParam<mac_case> {};

constexpr velm_mac_address untouched{9, 9, 9, 9, 9, 9};

TEST_P(ParseMac, NeedsSixHexFieldsAndElseLeavesTheDestination)
{
    velm_mac_address mac = untouched;
    EXPECT_EQ(velm_utils_parse_mac_address(GetParam().text, mac.data()), GetParam().accepted);
    EXPECT_EQ(mac, GetParam().mac);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ParseMac,
    testing::Values(
        mac_case{"Six", "00:1a:2B:3c:4d:ff", true, {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0xff}},
        mac_case{"OneDigitFields", "1:2:3:4:5:6", true, {1, 2, 3, 4, 5, 6}},
        mac_case{"TrailingTextIsIgnored", "1:2:3:4:5:6:7", true, {1, 2, 3, 4, 5, 6}},
        mac_case{"ASixthFieldOfThreeDigitsGivesItsFirstTwo",
                 "01:02:03:04:05:abc",
                 true,
                 {1, 2, 3, 4, 5, 0xab}},
        mac_case{"Five", "00:1a:2b:3c:4d", false, untouched},
        mac_case{"ThreeDigitsInTheMiddle", "00:1ab:2b:3c:4d:5e", false, untouched},
        mac_case{"Dashes", "00-1a-2b-3c-4d-5e", false, untouched},
        mac_case{"NoHex", "00:1g:2b:3c:4d:5e", false, untouched},
        mac_case{"Empty", "", false, untouched}),
    [](const auto &row) { return std::string{row.param.name}; });

struct ip_case {
    const char *name, *text;
    bool accepted;
};
class ParseIp : public testing::TestWithParam<ip_case> {};

TEST_P(ParseIp, TakesFourDecimalFieldsOnly)
{
    std::array<std::uint8_t, 4> address{};
    EXPECT_EQ(velm_utils_parse_ip_address(GetParam().text, address.data()), GetParam().accepted);
}

INSTANTIATE_TEST_SUITE_P(Texts, ParseIp,
                         testing::Values(ip_case{"Dotted", "192.168.1.255", true},
                                         ip_case{"TooLarge", "192.168.1.256", false},
                                         ip_case{"Three", "192.168.1", false},
                                         ip_case{"TrailingText", "192.168.1.1 ", false},
                                         ip_case{"V6", "::1", false}, ip_case{"Empty", "", false}),
                         [](const auto &row) { return std::string{row.param.name}; });

TEST(IpAddress, IsParsedToNetworkOrder)
{
    std::array<std::uint8_t, 4> address{};
    ASSERT_TRUE(velm_utils_parse_ip_address("192.168.1.2", address.data()));
    EXPECT_EQ(address, (std::array<std::uint8_t, 4>{192, 168, 1, 2}));
}

TEST(IpAddress, IsPrintedHoweverLongItsTextIs)
{
    constexpr std::uint8_t seven[] = {1, 2, 3, 4};
    constexpr std::uint8_t fourteen[] = {192, 168, 10, 100};
    constexpr std::uint8_t fifteen[] = {192, 168, 100, 100};
    constexpr std::uint8_t last[] = {255, 255, 255, 255};
    EXPECT_EQ(velm_utils_print_ip_address(seven), "1.2.3.4");
    EXPECT_EQ(velm_utils_print_ip_address(fourteen), "192.168.10.100");
    EXPECT_EQ(velm_utils_print_ip_address(fifteen), "192.168.100.100");
    EXPECT_EQ(velm_utils_print_ip_address(last), "255.255.255.255");
}

struct device_case {
    const char *name, *text;
    velm_device_type type;
};
class DeviceType : public testing::TestWithParam<device_case> {};

TEST_P(DeviceType, IsKnownByItsPrefixInAnyCase)
{
    EXPECT_EQ(velm_utils_device_type_from_string(GetParam().text), GetParam().type);
}

INSTANTIATE_TEST_SUITE_P(
    Words, DeviceType,
    testing::Values(device_case{"UpperAndroidWithVersion", "ANDROID-12", velm_device_type::android},
                    device_case{"LowerIos", "ios", velm_device_type::ios},
                    device_case{"IosWithVersion", "iOS 17", velm_device_type::ios},
                    device_case{"CutIos", "iO", velm_device_type::unknown},
                    device_case{"CutAndroid", "Androi", velm_device_type::unknown},
                    device_case{"NotAtTheStart", " iOS", velm_device_type::unknown},
                    device_case{"Empty", "", velm_device_type::unknown}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST(DeviceTypeCode, IsZeroForIosOneForAndroidTwoElse)
{
    EXPECT_EQ(static_cast<int>(velm_device_type::ios), 0);
    EXPECT_EQ(static_cast<int>(velm_device_type::android), 1);
    EXPECT_EQ(static_cast<int>(velm_device_type::unknown), 2);
}

struct split_case {
    const char *name, *text, *separator, *json;
};
class Split : public testing::TestWithParam<split_case> {};

TEST_P(Split, GivesTheTrimmedPieces)
{
    EXPECT_EQ(printed(velm_split_string(GetParam().text, GetParam().separator)), GetParam().json);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Split,
    testing::Values(split_case{"BlankPiecesVanish", " aa:bb , ,cc:dd", ",", R"(["aa:bb","cc:dd"])"},
                    split_case{"RunsOfSeparators", ",,a,,,b,,", ",", R"(["a","b"])"},
                    split_case{"AnyCharacterOfTheSet", "a,b;c", ",;", R"(["a","b","c"])"},
                    split_case{"InnerBlanksStay", "a b,c", ",", R"(["a b","c"])"},
                    split_case{"TabsAndNewlinesAreTrimmed", "\ta\n,\r\vb", ",", R"(["a","b"])"},
                    split_case{"NoSeparatorInTheText", "abc", ",", R"(["abc"])"},
                    split_case{"EmptySet", "a,b", "", R"(["a,b"])"},
                    split_case{"OnlySeparators", ",,", ",", "[]"},
                    split_case{"OnlyBlanks", " \t", ",", "[]"}, split_case{"Empty", "", ",", "[]"}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST(HexDump, IsUpperCasePairsWithABlankBehindEach)
{
    captured_log log;
    velm_utils_log_hex("\x00\x1f\xab", 3);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"TRACE velm_utils - 00 1F AB "});
}

TEST(HexDump, OfNothingLogsNothing)
{
    captured_log log;
    velm_utils_log_hex(nullptr, 3);
    velm_utils_log_hex("a", 0);
    EXPECT_TRUE(log.lines().empty());
}

TEST(HexDump, Takes8192BytesAndRefusesOneMore)
{
    captured_log log;
    const std::vector<std::uint8_t> bytes(8193, 0xee);
    velm_utils_log_hex(bytes.data(), 8192);
    EXPECT_TRUE(log.contains("velm_utils - EE EE EE "));
    log.clear();
    velm_utils_log_hex(bytes.data(), 8193);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"TRACE velm_utils - (buffer too long)"});
}

struct null_case {
    const char *name;
    void (*call)();
    const char *line;
};
class NullArgument : public testing::TestWithParam<null_case> {};

TEST_P(NullArgument, EndsTheProcess)
{
    const captured_log log;
    EXPECT_DEATH(GetParam().call(), GetParam().line);
}

unsigned long number = 0;
std::uint8_t bytes[6];
const json_ptr empty_object{cJSON_CreateObject()};

INSTANTIATE_TEST_SUITE_P(
    Functions, NullArgument,
    testing::Values(
        null_case{"FieldOfNoObject",
                  [] { (void)velm_utils_get_field_value_from_json_object(nullptr, "f"); },
                  "ERROR velm_utils - velm_utils_get_field_value_from_json_object: object is null: "
                  "null reference"},
        null_case{
            "FieldWithoutName",
            [] { (void)velm_utils_get_field_value_from_json_object(empty_object.get(), nullptr); },
            "velm_utils_get_field_value_from_json_object: field is null: null reference"},
        null_case{"NumberOfNoObject",
                  [] { (void)velm_utils_get_number_value_from_json_object(nullptr, "f"); },
                  "velm_utils_get_number_value_from_json_object: object is null: null reference"},
        null_case{"Unescape", [] { (void)velm_utils_unescape_html_encoded_base64_chars(nullptr); },
                  "velm_utils_unescape_html_encoded_base64_chars: html_escaped_base64_string is "
                  "null: null reference"},
        null_case{"TimestampSource", [] { (void)velm_utils_parse_timestamp(nullptr, &number); },
                  "velm_utils_parse_timestamp: src is null: null reference"},
        null_case{"TimestampDestination", [] { (void)velm_utils_parse_timestamp("1", nullptr); },
                  "velm_utils_parse_timestamp: dest is null: null reference"},
        null_case{"MacSource", [] { (void)velm_utils_parse_mac_address(nullptr, bytes); },
                  "velm_utils_parse_mac_address: src is null: null reference"},
        null_case{"MacDestination",
                  [] { (void)velm_utils_parse_mac_address("1:2:3:4:5:6", nullptr); },
                  "velm_utils_parse_mac_address: dest is null: null reference"},
        null_case{"IpSource", [] { (void)velm_utils_parse_ip_address(nullptr, bytes); },
                  "velm_utils_parse_ip_address: src is null: null reference"},
        null_case{"IpDestination", [] { (void)velm_utils_parse_ip_address("1.2.3.4", nullptr); },
                  "velm_utils_parse_ip_address: dest is null: null reference"},
        null_case{"IpAddress", [] { (void)velm_utils_print_ip_address(nullptr); },
                  "velm_utils_print_ip_address: ip_addr is null: null reference"},
        null_case{"DeviceType", [] { (void)velm_utils_device_type_from_string(nullptr); },
                  "velm_utils_device_type_from_string: device_type is null: null reference"},
        null_case{"SplitText", [] { (void)velm_split_string(nullptr, ","); },
                  "velm_split_string: string is null: null reference"},
        null_case{"SplitSeparator", [] { (void)velm_split_string("a", nullptr); },
                  "velm_split_string: separator is null: null reference"}),
    [](const auto &row) { return std::string{row.param.name}; });

} // namespace
