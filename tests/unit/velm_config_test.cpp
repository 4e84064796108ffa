#include "velm_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "config/settings.h"
#include "fakes/captured_log.h"
#include "fakes/temporary_directory.h"
#include "logger/common_logger.h"

namespace {

/// A record and how it got its content; lines are those of velm_config_print_to_log.
class Config : public testing::Test {
  protected:
    Config()
    {
        velm_config_set_defaults(&config);
    }

    void load(std::string_view content)
    {
        velm_config_load_from_file(&config, directory.write("velmd.conf", content).c_str());
    }

    [[nodiscard]] std::vector<std::string> printed() const
    {
        const captured_log log;
        velm_config_print_to_log(&config);
        return log.lines();
    }

    const temporary_directory directory;
    velm_config config{};
};

const std::vector<std::string> default_lines{
    "TRACE velm_config - process.daemonize: yes",
    "TRACE velm_config - process.pidfile: /var/run/velmd.pid",
    "TRACE velm_config - http.client.ca_cert.path: /etc/afc/velmd/cacert.pem",
    "TRACE velm_config - http.server.cert.path: /etc/afc/velmd/velm_server_cert.pem",
    "TRACE velm_config - http.server.key.path: /etc/afc/velmd/velm_server_key.pem",
    "TRACE velm_config - http.server.port: 8080",
    "TRACE velm_config - ssdp.server.port: 1900",
    "TRACE velm_config - pairings.limit: 10",
    "TRACE velm_config - app.android.package_name: com.norvale.afc",
    "TRACE velm_config - app.android.integrity.d.key.path: "
    "/etc/afc/velmd/android_integrity_decryption.jwk",
    "TRACE velm_config - app.android.integrity.v.key.path: "
    "/etc/afc/velmd/android_integrity_verification.jwk",
    "TRACE velm_config - app.android.integrity.privatekey.path: "
    "/etc/afc/velmd/android_integrity_adminsdk_key.json",
    "TRACE velm_config - app.android.integrity.method: remote",
    "TRACE velm_config - app.android.integrity.enabled: yes",
    "TRACE velm_config - app.ios.appid: Q4TZ8KM2W7.com.norvale.afc",
    "TRACE velm_config - app.ios.attest.root.ca.path: ",
    "TRACE velm_config - location.policy.ipc.sock: /var/afc/zelka_daemon",
    "TRACE velm_config - cloudmessaging.firebase.privatekey.path: "
    "/etc/afc/velmd/firebase_adminsdk_key.json",
    "TRACE velm_config - vendor.id: NORVALE",
    "TRACE velm_config - lan.ip.address: 192.168.1.1",
    "TRACE velm_config - lan.name: br0",
    "TRACE velm_config - serial.number: 1234",
    "TRACE velm_config - mac.address: 01:02:03:04:05:06",
    "TRACE velm_config - bssids.list: []",
};

TEST_F(Config, DefaultsAreLoggedFieldByFieldInOrder)
{
    EXPECT_EQ(printed(), default_lines);
}

TEST_F(Config, SettingDefaultsReplacesEveryField)
{
    std::memset(config.pid_file_path, 'x', sizeof config.pid_file_path);
    config.http_server_port = 1;
    config.daemonize = false;
    config.bssids_list.reset(cJSON_Parse(R"(["aa"])"));
    velm_config_set_defaults(&config);
    EXPECT_EQ(printed(), default_lines);
}

/// Where each value that did not come from the defaults came from.
std::vector<std::pair<std::string, config_source>> sources_of(const velm_config &config)
{
    std::vector<std::pair<std::string, config_source>> found;
    for (const config_setting &row : config_file_settings()) {
        if (config_source_of(config, row) != config_source::standard) {
            found.emplace_back(row.key, config_source_of(config, row));
        }
    }
    return found;
}

TEST_F(Config, RemembersWhatTheFileHasSet)
{
    EXPECT_TRUE(sources_of(config).empty());
    load("vendor.id=V\nprocess.daemonize=no\nhttp.server.port=1\n\n");
    EXPECT_EQ(sources_of(config), (std::vector<std::pair<std::string, config_source>>{
                                      {"process.daemonize", config_source::file},
                                      {"http.server.port", config_source::file},
                                      {"vendor.id", config_source::file},
                                  }));
    velm_config_set_defaults(&config);
    EXPECT_TRUE(sources_of(config).empty());
}

/// A field as the file would have it.
std::string text_of(const velm_config &config, const config_field &field)
{
    return std::visit(
        [&config](const auto member) -> std::string {
            const auto &value = config.*member;
            using type = std::remove_cvref_t<decltype(value)>;
            if constexpr (std::is_same_v<type, bool>) {
                return value ? config_yes : config_no;
            } else if constexpr (std::is_integral_v<type>) {
                return std::to_string(value);
            } else {
                return value;
            }
        },
        field);
}

/// Another value than the default.
std::string other_value(const config_setting &row)
{
    if (std::holds_alternative<bool velm_config::*>(row.field)) {
        return row.standard == std::string_view{config_yes} ? config_no : config_yes;
    }
    return std::holds_alternative<std::uint16_t velm_config::*>(row.field) ? "65432" : "/other";
}

class ConfigKey : public Config, public testing::WithParamInterface<config_setting> {};

/// Also a key that has no line in the log.
TEST_P(ConfigKey, OfTheFileSetsItsFieldAndNoOther)
{
    const config_setting &key = GetParam();
    load(std::string{key.key} + '=' + other_value(key) + "\n\n");
    EXPECT_EQ(text_of(config, key.field), other_value(key));
    EXPECT_EQ(sources_of(config),
              (std::vector<std::pair<std::string, config_source>>{{key.key, config_source::file}}));
    for (const config_setting &row : config_file_settings()) {
        // By default the control socket lies beside the pid file.
        const bool follows = key.key == std::string_view{"process.pidfile"} &&
                             row.key == std::string_view{"control.sock"};
        if (row.field != key.field && !follows) {
            EXPECT_EQ(text_of(config, row.field), row.standard) << row.key;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Table, ConfigKey,
                         testing::ValuesIn(config_file_settings().begin(),
                                           config_file_settings().end()),
                         [](const auto &row) {
                             std::string name = row.param.key;
                             std::replace(name.begin(), name.end(), '.', '_');
                             return name;
                         });

struct control_case {
    const char *name, *file, *path;
};
class ControlSocket : public Config, public testing::WithParamInterface<control_case> {};

TEST_P(ControlSocket, LiesAt)
{
    load(GetParam().file);
    EXPECT_STREQ(config.control_sock, GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(
    Files, ControlSocket,
    testing::Values(
        control_case{"BesideTheDefaultPidFile", "vendor.id=V\n\n", "/var/run/velmd.control.sock"},
        control_case{"BesideThePidFile", "process.pidfile=/run/afc/pid\n\n",
                     "/run/afc/velmd.control.sock"},
        control_case{"WhereARelativePidFileLies", "process.pidfile=pid\n\n", "/velmd.control.sock"},
        control_case{"NowhereWithoutAPidFile", "process.pidfile=\"\"\n\n", ""},
        control_case{"WhereTheFileSays", "process.pidfile=/run/pid\ncontrol.sock=/tmp/c\n\n",
                     "/tmp/c"},
        control_case{"NowhereWhenTheFileSaysSo", "control.sock=\nprocess.pidfile=/run/pid\n\n",
                     ""}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(Config, SettingDefaultsTurnsTheLoggerOff)
{
    common_logger_configure_from_string("enabled=yes:level=trace");
    velm_config_set_defaults(&config);
    EXPECT_FALSE(common_logger_is_enabled());
}

TEST_F(Config, TheFieldsOfTheFileAreLoggedInOrder)
{
    load("process.daemonize=no\nprocess.pidfile=/1\nhttp.client.ca_cert.path=/2\n"
         "http.server.cert.path=/3\nhttp.server.key.path=/4\nhttp.server.port=5\n"
         "ssdp.server.port=6\npairings.limit=7\napp.android.package_name=p8\n"
         "app.android.integrity.d.key.path=/9\napp.android.integrity.v.key.path=/10\n"
         "app.android.integrity.privatekey.path=/11\napp.android.integrity.method=local\n"
         "app.android.integrity.enabled=no\napp.ios.appid=T.id\n"
         "app.ios.attest.root.ca.path=/14\nlocation.policy.ipc.sock=/15\n"
         "cloudmessaging.firebase.privatekey.path=/16\nvendor.id=V17\n");
    EXPECT_EQ(printed(), (std::vector<std::string>{
                             "TRACE velm_config - process.daemonize: no",
                             "TRACE velm_config - process.pidfile: /1",
                             "TRACE velm_config - http.client.ca_cert.path: /2",
                             "TRACE velm_config - http.server.cert.path: /3",
                             "TRACE velm_config - http.server.key.path: /4",
                             "TRACE velm_config - http.server.port: 5",
                             "TRACE velm_config - ssdp.server.port: 6",
                             "TRACE velm_config - pairings.limit: 7",
                             "TRACE velm_config - app.android.package_name: p8",
                             "TRACE velm_config - app.android.integrity.d.key.path: /9",
                             "TRACE velm_config - app.android.integrity.v.key.path: /10",
                             "TRACE velm_config - app.android.integrity.privatekey.path: /11",
                             "TRACE velm_config - app.android.integrity.method: local",
                             "TRACE velm_config - app.android.integrity.enabled: no",
                             "TRACE velm_config - app.ios.appid: T.id",
                             "TRACE velm_config - app.ios.attest.root.ca.path: /14",
                             "TRACE velm_config - location.policy.ipc.sock: /15",
                             "TRACE velm_config - cloudmessaging.firebase.privatekey.path: /16",
                             "TRACE velm_config - vendor.id: V17",
                             "TRACE velm_config - lan.ip.address: 192.168.1.1",
                             "TRACE velm_config - lan.name: br0",
                             "TRACE velm_config - serial.number: 1234",
                             "TRACE velm_config - mac.address: 01:02:03:04:05:06",
                             "TRACE velm_config - bssids.list: []",
                         }));
}

TEST_F(Config, TheFileDoesNotSetWhatThePlatformKnows)
{
    load("lan.ip.address=1.2.3.4\nlan.name=x\nserial.number=x\nmac.address=x\nbssids.list=x\n");
    EXPECT_EQ(printed(), default_lines);
}

TEST_F(Config, OfAPortGivenTwiceTheLaterLineCounts)
{
    load("http.server.port=8443\nprocess.pidfile=/p\nhttp.server.port=9443\n");
    EXPECT_EQ(config.http_server_port, 9443);
}

TEST_F(Config, ACommentBehindBlanksIsSkippedAndAHashInAValueStays)
{
    load("  \t# http.server.port=1\nvendor.id=A#B\n");
    EXPECT_EQ(config.http_server_port, 8080);
    EXPECT_STREQ(config.vendor_id, "A#B");
}

TEST_F(Config, ALineOfBlanksRejectsTheFileAndAllFieldsKeepTheirDefaults)
{
    load("http.server.port=1\n  \nlogger.enabled=yes\n");
    EXPECT_FALSE(common_logger_is_enabled());
    EXPECT_EQ(printed(), default_lines);
}

TEST_F(Config, ALineWithoutEqualsSignRejectsTheFileAndAllFieldsKeepTheirDefaults)
{
    load("http.server.port=1\nvendor.id\n");
    EXPECT_EQ(printed(), default_lines);
}

TEST_F(Config, OnlyAQuotedValueKeepsBothWords)
{
    load("vendor.id=\"two words\"\napp.ios.appid=two words\n");
    EXPECT_STREQ(config.vendor_id, "two words");
    EXPECT_STREQ(config.app_ios_appid, "two");
}

TEST_F(Config, OfA5000ByteFileTheFirst4095CharactersCount)
{
    std::string content = "vendor.id=first\n#";
    content.resize(4095 - std::strlen("\npairings.limit=42"), 'x');
    content += "\npairings.limit=42";
    ASSERT_EQ(content.size(), 4095u);
    content += "7\nvendor.id=late\n";
    content.resize(5000, '\n');
    load(content);
    EXPECT_EQ(config.pairings_limit, 42);
    EXPECT_STREQ(config.vendor_id, "first");
}

TEST_F(Config, AMissingFileChangesNothing)
{
    velm_config_load_from_file(&config, directory.path("missing").c_str());
    EXPECT_EQ(printed(), default_lines);
}

TEST_F(Config, TheSampleFileFitsHoldsTheDefaultsAndTurnsTheLogOn)
{
    const auto root = std::filesystem::path{VELM_TEST_DATA}.parent_path().parent_path();
    const std::string sample = root / "etc/velmd.conf";
    EXPECT_LT(std::filesystem::file_size(sample), 4096u);
    velm_config_load_from_file(&config, sample.c_str());
    EXPECT_TRUE(common_logger_is_enabled());
    EXPECT_EQ(printed(), default_lines);
}

TEST_F(Config, TheLoggersKeysAreAppliedBeforeTheFields)
{
    load("logger.enabled=yes\nlogger.level=warn\nvendor.id=x\n");
    EXPECT_TRUE(common_logger_is_enabled());
    EXPECT_STREQ(config.vendor_id, "x");
    common_logger_configure_from_string("enabled=no:level=debug");
}

struct boolean_case {
    const char *name, *value;
    bool stored;
};
class ConfigBoolean : public Config, public testing::WithParamInterface<boolean_case> {};

TEST_P(ConfigBoolean, IsTrueForThreeTextsOnly)
{
    config.daemonize = !GetParam().stored;
    load(std::string{"process.daemonize="} + GetParam().value + '\n');
    EXPECT_EQ(config.daemonize, GetParam().stored);
}

INSTANTIATE_TEST_SUITE_P(
    Values, ConfigBoolean,
    testing::Values(boolean_case{"One", "1", true}, boolean_case{"Yes", "yes", true},
                    boolean_case{"True", "true", true},
                    boolean_case{"UpperCaseTrue", "TRUE", false}, boolean_case{"On", "on", false},
                    boolean_case{"Eleven", "11", false}, boolean_case{"Longer", "yess", false},
                    boolean_case{"Empty", "", false}),
    [](const auto &row) { return std::string{row.param.name}; });

struct number_case {
    const char *name, *value;
    std::uint16_t stored;
};
class ConfigNumber : public Config, public testing::WithParamInterface<number_case> {};

TEST_P(ConfigNumber, IsCutTo16Bits)
{
    errno = 0;
    load(std::string{"http.server.port="} + GetParam().value + '\n');
    EXPECT_EQ(config.http_server_port, GetParam().stored);
    errno = 0;
}

INSTANTIATE_TEST_SUITE_P(
    Values, ConfigNumber,
    testing::Values(number_case{"Ordinary", "8443", 8443}, number_case{"Largest", "65535", 65535},
                    number_case{"OneMore", "65536", 0},
                    number_case{"Seventythousand", "70000", 4464},
                    number_case{"MinusOne", "-1", 65535}, number_case{"LeadingDigits", "12ab", 12},
                    number_case{"NoNumber", "abc", 0}, number_case{"Empty", "", 0},
                    number_case{"OutOfRange", "99999999999999999999", 8080}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(Config, AStaleRangeErrorSuppressesTheNumber)
{
    const conffile_ptr file = conffile_parse(directory.write("f", "n=5\n").c_str());
    std::uint16_t number = 1;
    errno = ERANGE;
    set_config_value_uint16(file.get(), "n", &number);
    EXPECT_EQ(number, 1);
    errno = 0;
    set_config_value_uint16(file.get(), "n", &number);
    EXPECT_EQ(number, 5);
}

TEST_F(Config, AMissingKeyLeavesTheField)
{
    const conffile_ptr file = conffile_parse(directory.write("f", "a=1\n").c_str());
    char text[] = "old";
    std::uint16_t number = 7;
    bool flag = true;
    set_config_value_str(file.get(), "b", text, sizeof text);
    set_config_value_uint16(file.get(), "b", &number);
    set_config_value_bool(file.get(), "b", &flag);
    EXPECT_STREQ(text, "old");
    EXPECT_EQ(number, 7);
    EXPECT_TRUE(flag);
}

TEST_F(Config, AnEmptyTextInTheFileClearsTheField)
{
    load("vendor.id=\n");
    EXPECT_STREQ(config.vendor_id, "");
}

TEST_F(Config, ATextIsCutToItsField)
{
    load("vendor.id=" + std::string(49, 'v') + "\n");
    EXPECT_EQ(config.vendor_id, std::string(49, 'v'));
    load("vendor.id=" + std::string(48, 'v') + "wx\n");
    EXPECT_EQ(config.vendor_id, std::string(48, 'v') + 'w');
}

TEST_F(Config, CopyingATextFillsTheRestWithZeros)
{
    char field[6] = {'x', 'x', 'x', 'x', 'x', 'x'};
    velm_config_copy_text(field, 5, "ab");
    EXPECT_EQ((std::string{field, sizeof field}), (std::string{"ab\0\0\0x", 6}));
    velm_config_copy_text(field, 0, "c");
    EXPECT_EQ(field[0], 'a');
}

TEST_F(Config, BssidsAreLoggedAsJsonAndNoListAsNull)
{
    config.bssids_list.reset(cJSON_Parse(R"([ "aa", "bb" ])"));
    EXPECT_EQ(printed().back(), R"(TRACE velm_config - bssids.list: ["aa","bb"])");
    config.bssids_list.reset();
    EXPECT_EQ(printed().back(), "TRACE velm_config - bssids.list: (null)");
}

TEST_F(Config, OfSeveralLanAddressesTheFirstIsUsedAndAllAreLogged)
{
    velm_config_copy_text(config.lan_ip_address, sizeof config.lan_ip_address,
                          "192.168.1.1\n10.0.0.1");
    EXPECT_EQ(velm_config_lan_ip_address(&config), "192.168.1.1");
    EXPECT_THAT(printed(),
                testing::Contains("TRACE velm_config - lan.ip.address: 192.168.1.1 10.0.0.1"));
}

TEST_F(Config, ASingleLanAddressIsUsedWhole)
{
    EXPECT_EQ(velm_config_lan_ip_address(&config), "192.168.1.1");
    config.lan_ip_address[0] = '\0';
    EXPECT_EQ(velm_config_lan_ip_address(&config), "");
}

struct null_case {
    const char *name;
    void (*call)(velm_config &config, const ConfigFile *file);
    const char *line;
};
class ConfigNull : public Config, public testing::WithParamInterface<null_case> {};

TEST_P(ConfigNull, EndsTheProcess)
{
    const captured_log log;
    const conffile_ptr file = conffile_parse(directory.write("f", "a=1\n").c_str());
    EXPECT_DEATH(GetParam().call(config, file.get()), GetParam().line);
}

char text[4];
std::uint16_t number;
bool flag;

// clang-format off
INSTANTIATE_TEST_SUITE_P(Functions, ConfigNull, testing::Values(
    null_case{"Defaults", [](velm_config &, const ConfigFile *) { velm_config_set_defaults(nullptr); },
              "ERROR velm_config - velm_config_set_defaults: config is null: null reference"},
    null_case{"LoadWithoutRecord", [](velm_config &, const ConfigFile *) { velm_config_load_from_file(nullptr, "f"); },
              "ERROR velm_config - velm_config_load_from_file: config is null: null reference"},
    null_case{"LoadWithoutPath", [](velm_config &config, const ConfigFile *) { velm_config_load_from_file(&config, nullptr); },
              "ERROR velm_config - velm_config_load_from_file: file is null: null reference"},
    null_case{"Print", [](velm_config &, const ConfigFile *) { velm_config_print_to_log(nullptr); },
              "ERROR velm_config - velm_config_print_to_log: config is null: null reference"},
    null_case{"TextWithoutFile", [](velm_config &, const ConfigFile *) { set_config_value_str(nullptr, "a", text, sizeof text); },
              "ERROR velm_config - set_config_value_str: cfile is null: null reference"},
    null_case{"TextWithoutKey", [](velm_config &, const ConfigFile *file) { set_config_value_str(file, nullptr, text, sizeof text); },
              "ERROR velm_config - set_config_value_str: key is null: null reference"},
    null_case{"NumberWithoutFile", [](velm_config &, const ConfigFile *) { set_config_value_uint16(nullptr, "a", &number); },
              "ERROR velm_config - set_config_value_uint16: cfile is null: null reference"},
    null_case{"NumberWithoutKey", [](velm_config &, const ConfigFile *file) { set_config_value_uint16(file, nullptr, &number); },
              "ERROR velm_config - set_config_value_uint16: key is null: null reference"},
    null_case{"FlagWithoutFile", [](velm_config &, const ConfigFile *) { set_config_value_bool(nullptr, "a", &flag); },
              "ERROR velm_config - set_config_value_bool: cfile is null: null reference"},
    null_case{"FlagWithoutKey", [](velm_config &, const ConfigFile *file) { set_config_value_bool(file, nullptr, &flag); },
              "ERROR velm_config - set_config_value_bool: key is null: null reference"}),
    [](const auto &row) { return std::string{row.param.name}; });
// clang-format on

TEST_F(Config, TheShadowDatabaseIsUsedOnlyIfTheFileSaysSo)
{
    EXPECT_FALSE(config.accounts_shadow);
    load("accounts.shadow=yes\n");
    EXPECT_TRUE(config.accounts_shadow);
    EXPECT_EQ(printed(), default_lines) << "tools in the field compare these lines";
    velm_config_set_defaults(&config);
    EXPECT_FALSE(config.accounts_shadow);
}

TEST_F(Config, PairsCanBeLoadedWithoutTheLogger)
{
    const std::string path = directory.write("velmd.conf", "logger.stdout=yes\nvendor.id=V\n");
    velm_config_load_pairs(&config, conffile_parse(path.c_str()));
    EXPECT_STREQ(config.vendor_id, "V");
    EXPECT_FALSE(common_logger_is_enabled());
}

} // namespace
