#include "ssdp/message.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "fakes/app_attest_samples.h"
#include "fakes/captured_log.h"

namespace {

const std::string request_line = "M-SEARCH * HTTP/1.1\r\n";
const std::string device_type = "urn:schemas-upnp-org:device:velmd:1";

/// The bytes as a datagram leaves them in the buffer: with a terminator behind the last.
bool is_search(const std::string &datagram)
{
    std::vector<char> buffer(datagram.begin(), datagram.end());
    buffer.push_back('\0');
    return velm_ssdp_message_is_search(buffer.data());
}

struct message_case {
    const char *name;
    std::string datagram;
};

void PrintTo(const message_case &row, std::ostream *out)
{
    *out << row.name;
}

std::string case_name(const testing::TestParamInfo<message_case> &row)
{
    return row.param.name;
}

class Search : public testing::TestWithParam<message_case> {};

TEST_P(Search, IsForUs)
{
    EXPECT_TRUE(is_search(GetParam().datagram));
}

const std::string wanted = "ST: " + device_type + "\r\n";

INSTANTIATE_TEST_SUITE_P(
    Messages, Search,
    testing::Values(
        message_case{"WithTheTargetAlone", request_line + wanted},
        message_case{"WithAnEmptyLineAtTheEnd", request_line + wanted + "\r\n"},
        message_case{"InWhichTheTargetIsInUpperCase",
                     request_line + "ST: URN:SCHEMAS-UPNP-ORG:DEVICE:VELMD:1\r\n\r\n"},
        message_case{"InWhichTheNameIsInLowerCase", request_line + "st: " + device_type + "\r\n"},
        message_case{"InWhichTheNameIsInMixedCase", request_line + "sT: " + device_type + "\r\n"},
        message_case{"WithoutABlankBeforeTheValue", request_line + "ST:" + device_type + "\r\n"},
        message_case{"WithBlanksAndTabsBeforeTheValue",
                     request_line + "ST: \t \t" + device_type + "\r\n"},
        message_case{"WhoseLastLineEndsWithTheText", request_line + "ST: " + device_type},
        message_case{"WithATerminatorBehindTheTarget",
                     request_line + "ST: " + device_type + std::string{"\0rest", 5}},
        message_case{"WithTheTargetBehindOtherHeaders",
                     request_line +
                         "HOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nMX: "
                         "1\r\n" +
                         wanted + "\r\n"},
        message_case{"WithTheTargetBehindALineWithoutAColon",
                     request_line + "nothing\r\n" + wanted},
        message_case{"WithTheTargetBehindAnEmptyLine", request_line + "\r\n" + wanted},
        message_case{"WithTheTargetBehindAnEmptyTarget", request_line + "ST:\r\n" + wanted},
        message_case{"WithTheTargetBehindATargetOfBlanks", request_line + "ST: \t\r\n" + wanted},
        message_case{"WithTheTargetBehindAnotherOne", request_line + "ST: ssdp:all\r\n" + wanted},
        message_case{"WithTheTargetBeforeAnotherOne", request_line + wanted + "ST: ssdp:all\r\n"},
        message_case{"WithoutMan", request_line + "MX: 1\r\n" + wanted},
        message_case{"WithTheTargetAtTheEndOfTheLongestDatagram",
                     request_line + "X: " + std::string(65507 - 21 - 3 - 2 - 41, 'x') + "\r\n" +
                         wanted},
        message_case{"WithALoneCarriageReturnInAnotherValue",
                     request_line + "X: a\rb\r\n" + wanted}),
    case_name);

class OtherMessage : public testing::TestWithParam<message_case> {};

TEST_P(OtherMessage, IsNotForUs)
{
    EXPECT_FALSE(is_search(GetParam().datagram));
}

INSTANTIATE_TEST_SUITE_P(
    Messages, OtherMessage,
    testing::Values(
        message_case{"Empty", ""}, message_case{"OnlyATerminator", std::string(1, '\0')},
        message_case{"OnlyALineEnd", "\r\n"}, message_case{"RequestLineAlone", request_line},
        message_case{"RequestLineWithoutALineEnd", "M-SEARCH * HTTP/1.1"},
        message_case{"RequestLineInLowerCase", "m-search * http/1.1\r\n" + wanted},
        message_case{"RequestLineWithALetterInLowerCase", "M-SEARCH * HTTp/1.1\r\n" + wanted},
        message_case{"RequestLineWithABlankBehind", "M-SEARCH * HTTP/1.1 \r\n" + wanted},
        message_case{"RequestLineWithABlankBefore", " M-SEARCH * HTTP/1.1\r\n" + wanted},
        message_case{"RequestLineCutShort", "M-SEARCH * HTTP/1.\r\n" + wanted},
        message_case{"OtherVersion", "M-SEARCH * HTTP/1.0\r\n" + wanted},
        message_case{"Notify", "NOTIFY * HTTP/1.1\r\nNT: " + device_type + "\r\n"},
        message_case{"Answer", "HTTP/1.1 200 OK\r\n" + wanted},
        message_case{"EmptyFirstLine", "\r\n" + request_line + wanted},
        message_case{"BareLineFeedBehindTheRequestLine", "M-SEARCH * HTTP/1.1\n" + wanted},
        message_case{"BareLineFeedsOnly", "M-SEARCH * HTTP/1.1\nST: " + device_type + "\n\n"},
        message_case{"BareLineFeedBeforeTheTarget", request_line + "MX: 1\n" + wanted},
        message_case{"BareLineFeedBehindTheTarget",
                     request_line + "ST: " + device_type + "\nMX: 1\r\n"},
        message_case{"BareCarriageReturnBehindTheTarget",
                     request_line + "ST: " + device_type + "\rMX: 1\r\n"},
        message_case{"TerminatorInTheRequestLine",
                     std::string{"M-SEARCH *\0", 11} + " HTTP/1.1\r\n" + wanted},
        message_case{"TerminatorBeforeTheTarget",
                     request_line + std::string(1, '\0') + wanted + "\r\n"},
        message_case{"TerminatorInTheTarget", request_line + "ST: urn:schemas-upnp-org:device" +
                                                  std::string(1, '\0') + ":velmd:1\r\n"},
        message_case{"Everything", request_line + "ST: ssdp:all\r\n\r\n"},
        message_case{"RootDevices", request_line + "ST: upnp:rootdevice\r\n\r\n"},
        message_case{"TargetOf34Characters",
                     request_line + "ST: urn:schemas-upnp-org:device:velmd:\r\n"},
        message_case{"TargetOf36Characters",
                     request_line + "ST: urn:schemas-upnp-org:device:velmd:10\r\n"},
        message_case{"OtherVersionOfTheDevice",
                     request_line + "ST: urn:schemas-upnp-org:device:velmd:2\r\n"},
        message_case{"BlankBehindTheTarget", request_line + "ST: " + device_type + " \r\n"},
        message_case{"BlankBeforeTheColon", request_line + "ST : " + device_type + "\r\n"},
        message_case{"BlankBeforeTheName", request_line + " ST: " + device_type + "\r\n"},
        message_case{"LongerName", request_line + "STX: " + device_type + "\r\n"},
        message_case{"ShorterName", request_line + "S: " + device_type + "\r\n"},
        message_case{"NoName", request_line + ": " + device_type + "\r\n"},
        message_case{"NoColon", request_line + "ST " + "urn\r\n"},
        message_case{"TargetInAnotherHeader", request_line + "NT: " + device_type + "\r\n"},
        message_case{"NoTarget", request_line + "MX: 1\r\n\r\n"},
        message_case{"EmptyTarget", request_line + "ST:\r\n\r\n"},
        message_case{"OtherBlankBeforeTheTarget", request_line + "ST: \v" + device_type + "\r\n"},
        message_case{"LongestDatagramOfLineEnds",
                     request_line + std::string(65507 - 21, '\r') + "\n"},
        message_case{"LongestDatagramOfOneLetter", std::string(65507, 'M')}),
    case_name);

TEST(SearchLog, EachLineAndEachHeaderIsTraced)
{
    const captured_log log;
    is_search(request_line + "MX:  1\r\nno colon\r\nempty:\r\n\r\nST:\tssdp:all");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "TRACE velm_ssdp_server - processing line: M-SEARCH * HTTP/1.1 (state 0)",
                  "TRACE velm_ssdp_server - processing line: MX:  1 (state 1)",
                  "TRACE velm_ssdp_server - processing header name='MX', value='1')",
                  "TRACE velm_ssdp_server - processing line: no colon (state 1)",
                  "TRACE velm_ssdp_server - processing line: empty: (state 1)",
                  "TRACE velm_ssdp_server - processing line:  (state 1)",
                  "TRACE velm_ssdp_server - processing line: ST: ssdp:all (state 1)",
                  "TRACE velm_ssdp_server - processing header name='ST', value='ssdp:all')"}));
}

TEST(SearchLog, TheScanEndsWithTheFirstTargetThatMatches)
{
    const captured_log log;
    EXPECT_TRUE(is_search(request_line + wanted + "MX: 1\r\n"));
    EXPECT_FALSE(log.contains("MX"));
    EXPECT_EQ(log.count("processing line"), 2);
}

TEST(SearchLog, TheScanEndsWithAFirstLineThatIsNoSearch)
{
    const captured_log log;
    EXPECT_FALSE(is_search("NOTIFY * HTTP/1.1\r\n" + wanted));
    EXPECT_EQ(log.lines(), std::vector<std::string>{
                               "TRACE velm_ssdp_server - processing line: NOTIFY * HTTP/1.1 (state "
                               "0)"});
}

TEST(SearchLog, AnEmptyDatagramLeavesNoLine)
{
    const captured_log log;
    EXPECT_FALSE(is_search(""));
    EXPECT_TRUE(log.lines().empty());
}

/// The value of a line "name: value" of a sample, empty when there is none.
std::string sample_value(const std::string &text, const std::string &name)
{
    std::istringstream lines{text};
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(name + ": ")) {
            return line.substr(name.size() + 2);
        }
    }
    return "";
}

std::string sample_datagram(const std::string &text, const std::string &name)
{
    const test_bytes bytes = test_bytes_from_hex(sample_value(text, name));
    return {bytes.begin(), bytes.end()};
}

class RealClient : public testing::TestWithParam<const char *> {};

TEST_P(RealClient, IsAnsweredOnlyWhenItAsksForUs)
{
    const std::string text = test_data_text(std::string{"ssdp/"} + GetParam() + ".txt");
    const std::string captured = sample_datagram(text, "hex");
    ASSERT_EQ(std::to_string(captured.size()), sample_value(text, "# length"));
    EXPECT_FALSE(is_search(captured));
    const std::string variant = sample_datagram(text, "velmd_hex");
    if (!variant.empty()) {
        EXPECT_TRUE(sample_value(text, "velmd_reply").starts_with("yes"));
        EXPECT_TRUE(is_search(variant));
    }
}

INSTANTIATE_TEST_SUITE_P(Captures, RealClient,
                         testing::Values("01-dial-trailing-nul", "02-chrome-macos",
                                         "03-edge-windows", "04-chrome99-macos",
                                         "05-windows-ssdpsrv-igd", "06-windows-ssdpsrv-rootdevice",
                                         "07-windows-ssdpsrv-ipv6-host", "08-gtk-gnutella",
                                         "09-netflix-app", "10-dial-plain",
                                         "11-phone-igd-st-second", "12-plex-request-line-only"),
                         [](const auto &row) {
                             std::string name = row.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST(RealClients, AreAllTested)
{
    const std::filesystem::directory_iterator files{VELM_TEST_DATA "/ssdp"};
    EXPECT_EQ(std::count_if(begin(files), end(files),
                            [](const auto &entry) { return entry.path().extension() == ".txt"; }),
              12);
}

class Reply : public testing::Test {
  protected:
    Reply()
    {
        setenv("TZ", "UTC", 1);
    }
    ~Reply() override
    {
        unsetenv("TZ");
    }

    static std::string write(const velm_ssdp_reply_fields &fields)
    {
        std::array<char, velm_ssdp_reply_size> text{};
        const std::size_t length = velm_ssdp_message_write_reply(text, fields);
        return {text.data(), length};
    }

    static constexpr char uuid[] = "5c085b95-b4a7-45fa-b6f3-001a2b3c4d50";
};

TEST_F(Reply, NamesTimeAddressAndDevice)
{
    EXPECT_EQ(write({1700000000, "192.168.1.1", 8080, uuid}),
              "HTTP/1.1 200 OK\r\n"
              "DATE: 2023-11-14.22:13:20\r\n"
              "LOCATION: https://192.168.1.1:8080/info\r\n"
              "SERVER: VELMD\r\n"
              "ST: urn:schemas-upnp-org:device:velmd:1\r\n"
              "USN: uuid:5c085b95-b4a7-45fa-b6f3-001a2b3c4d50::urn:schemas-upnp-org:device:velmd:1"
              "\r\n\r\n");
}

TEST_F(Reply, GivesTheLocalTime)
{
    setenv("TZ", "XXX-05:30", 1);
    EXPECT_NE(write({1700000000, "192.168.1.1", 8080, uuid}).find("DATE: 2023-11-15.03:43:20\r\n"),
              std::string::npos);
}

TEST_F(Reply, HasRoomForTheLongestFields)
{
    const std::string address(49, '9');
    const std::string text = write({1700000000, address.c_str(), 65535, uuid});
    EXPECT_TRUE(text.ends_with("::urn:schemas-upnp-org:device:velmd:1\r\n\r\n"));
    EXPECT_NE(text.find("https://" + address + ":65535/info\r\n"), std::string::npos);
}

TEST_F(Reply, IsCutToItsBufferRatherThanWrittenBeyondIt)
{
    const std::string address(2000, '9');
    EXPECT_EQ(write({1700000000, address.c_str(), 1, uuid}).size(), velm_ssdp_reply_size - 1);
}

TEST_F(Reply, ATimeBeyondAllCalendarsIsLeftOut)
{
    if (sizeof(std::time_t) == 4) {
        GTEST_SKIP() << "every time of 32 bits is in the calendar";
    }
    const auto never = std::numeric_limits<std::time_t>::max();
    EXPECT_NE(write({never, "192.168.1.1", 1, uuid}).find("DATE: \r\n"), std::string::npos);
}

} // namespace
