#include "config/setting_text.h"

#include <gtest/gtest.h>

#include <cstring>

#include "handles/cjson.h"

namespace {

const config_setting &setting_of(std::string_view key)
{
    for (const config_setting &row : config_file_settings()) {
        if (key == row.key) {
            return row;
        }
    }
    ADD_FAILURE() << "no setting " << key;
    return config_file_settings().front();
}

TEST(SettingText, IsAsInTheFile)
{
    velm_config config{};
    config.daemonize = true;
    config.http_server_port = 8443;
    std::strcpy(config.http_server_cert_path, "/etc/certificate.pem");
    EXPECT_EQ(config_setting_text(config, setting_of("process.daemonize")), "yes");
    EXPECT_EQ(config_setting_text(config, setting_of("accounts.shadow")), "no");
    EXPECT_EQ(config_setting_text(config, setting_of("http.server.port")), "8443");
    EXPECT_EQ(config_setting_text(config, setting_of("http.server.cert.path")),
              "/etc/certificate.pem");
}

struct bssids_case {
    const char *name, *list, *text;
};
class BssidsText : public testing::TestWithParam<bssids_case> {};

TEST_P(BssidsText, IsJoinedByCommas)
{
    const json_ptr list{cJSON_Parse(GetParam().list)};
    EXPECT_EQ(config_bssids_text(list.get()), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Lists, BssidsText,
                         testing::Values(bssids_case{"None", "", ""},
                                         bssids_case{"Empty", "[]", ""},
                                         bssids_case{"One", R"(["a"])", "a"},
                                         bssids_case{"Two", R"(["a","b"])", "a,b"},
                                         bssids_case{"NoText", R"(["a",7])", "a,"}),
                         [](const auto &row) { return std::string{row.param.name}; });

} // namespace
