#include "velm_nvram_config.h"

#include <gtest/gtest.h>

#include <vector>

#include "config/settings.h"
#include "fakes/captured_log.h"
#include "fakes/fake_nvram.h"

namespace {

class NvramConfig : public testing::Test {
  protected:
    NvramConfig()
    {
        fake_nvram = {};
        velm_config_set_defaults(&config);
    }

    velm_config config{};
};

struct text_setting {
    const char *name;
    const char *(*field)(const velm_config &);
    std::size_t size;
};

template <auto Member>
text_setting setting(const char *name)
{
    return {name, [](const velm_config &config) -> const char * { return config.*Member; },
            sizeof(velm_config{}.*Member)};
}

class NvramText : public NvramConfig, public testing::WithParamInterface<text_setting> {};

TEST_P(NvramText, ReplacesItsField)
{
    fake_nvram.values[GetParam().name] = "from nvram";
    velm_nvram_config_load(&config);
    EXPECT_STREQ(GetParam().field(config), "from nvram");
}

TEST_P(NvramText, ThatIsEmptyOrMissingKeepsTheField)
{
    const std::string before = GetParam().field(config);
    velm_nvram_config_load(&config);
    EXPECT_EQ(GetParam().field(config), before);
    fake_nvram.values[GetParam().name] = "";
    velm_nvram_config_load(&config);
    EXPECT_EQ(GetParam().field(config), before);
}

TEST_P(NvramText, OfTheFieldsLengthIsTakenAndALongerOneRejected)
{
    captured_log log;
    const std::string longest(GetParam().size - 1, 'x');
    fake_nvram.values[GetParam().name] = longest;
    velm_nvram_config_load(&config);
    EXPECT_EQ(GetParam().field(config), longest);
    fake_nvram.values[GetParam().name] = std::string(GetParam().size, 'y');
    velm_nvram_config_load(&config);
    EXPECT_EQ(GetParam().field(config), longest);
    EXPECT_TRUE(log.has(std::string{"ERROR velm_nvram_config - nvram_get_parameter - invalid "
                                    "length for: "} +
                        GetParam().name));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Settings, NvramText, testing::Values(
    setting<&velm_config::http_client_ca_cert_path>("zelkad_http_client_trusted_ca"),
    setting<&velm_config::http_server_cert_path>("zelkad_http_server_cert"),
    setting<&velm_config::http_server_key_path>("zelkad_http_server_privatekey"),
    setting<&velm_config::app_android_package_name>("zelkad_app_android_app_name"),
    setting<&velm_config::app_android_integrity_d_key_path>("zelkad_app_android_integrity_decrytion_key"),
    setting<&velm_config::app_android_integrity_v_key_path>("zelkad_app_android_integrity_verification_key"),
    setting<&velm_config::app_android_integrity_privatekey_path>("zelkad_app_android_play_attestation_secret"),
    setting<&velm_config::app_ios_appid>("zelkad_app_ios_id"),
    setting<&velm_config::location_policy_ipc_sock>("zelkad_cmd_path"),
    setting<&velm_config::cloudmessaging_firebase_privatekey_path>("zelkad_cm_firebase_privkey"),
    setting<&velm_config::vendor_id>("ap_vendor")),
    [](const auto &row) { return std::string{row.param.name}; });
// clang-format on

TEST_F(NvramConfig, RemembersWhatItHasSet)
{
    const auto source_of = [this](config_field field) { return config_source_of(config, field); };
    fake_nvram.values["zelkad_http_server_port"] = "8443";
    fake_nvram.values["zelkad_pairing_maxnum"] = "many";
    fake_nvram.values["ap_vendor"] = "";
    velm_nvram_config_load(&config);
    EXPECT_EQ(source_of(&velm_config::http_server_port), config_source::nvram);
    EXPECT_EQ(source_of(&velm_config::pairings_limit), config_source::standard);
    EXPECT_EQ(source_of(&velm_config::vendor_id), config_source::standard);
}

struct number_setting {
    const char *name;
    std::uint16_t velm_config::*field;
};
class NvramNumber : public NvramConfig, public testing::WithParamInterface<number_setting> {};

TEST_P(NvramNumber, ReplacesItsFieldFrom1To65535)
{
    const std::uint16_t before = config.*GetParam().field;
    for (const char *refused : {"0", "65536"}) {
        fake_nvram.values[GetParam().name] = refused;
        velm_nvram_config_load(&config);
        EXPECT_EQ(config.*GetParam().field, before) << refused;
    }
    for (const std::uint16_t accepted : {1, 65535}) {
        fake_nvram.values[GetParam().name] = std::to_string(accepted);
        velm_nvram_config_load(&config);
        EXPECT_EQ(config.*GetParam().field, accepted);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Settings, NvramNumber,
    testing::Values(number_setting{"zelkad_http_server_port", &velm_config::http_server_port},
                    number_setting{"zelkad_discovery_ssdp_port", &velm_config::ssdp_server_port},
                    number_setting{"zelkad_pairing_maxnum", &velm_config::pairings_limit}),
    [](const auto &row) { return std::string{row.param.name}; });

struct number_case {
    const char *name, *value;
    std::uint16_t minimum, stored;
};
class NvramNumberText : public NvramConfig, public testing::WithParamInterface<number_case> {};

constexpr std::uint16_t kept = 777;

TEST_P(NvramNumberText, MustBeDigitsOnly)
{
    fake_nvram.values["n"] = GetParam().value;
    std::uint16_t field = kept;
    velm_nvram_config_read_number("n", &field, GetParam().minimum);
    EXPECT_EQ(field, GetParam().stored);
}

INSTANTIATE_TEST_SUITE_P(
    Values, NvramNumberText,
    testing::Values(
        number_case{"Digits", "8443", 1, 8443}, number_case{"PlusSign", "+8443", 1, kept},
        number_case{"MinusSign", "-1", 0, kept}, number_case{"BlankBefore", " 8443", 1, kept},
        number_case{"BlankBehind", "8443 ", 1, kept}, number_case{"ALetter", "84a3", 1, kept},
        number_case{"Empty", "", 0, kept}, number_case{"ZeroBelowTheMinimum", "0", 1, kept},
        number_case{"ZeroIsAcceptedAsTheMode", "0", 0, 0},
        number_case{"TwentyCharacters", "00000000000000000042", 1, 42},
        number_case{"TwentyOneCharacters", "000000000000000000042", 1, kept},
        number_case{"TwentyNines", "99999999999999999999", 1, kept}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(NvramConfig, AMissingSettingIsLogged)
{
    captured_log log;
    EXPECT_EQ(nvram_get_parameter("zelkad_mode", 10), std::nullopt);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{
                  "ERROR velm_nvram_config - nvram_get_parameter - cannot get zelkad_mode"});
}

TEST_F(NvramConfig, AParameterMustBeShorterThanTheMaximum)
{
    fake_nvram.values["n"] = "1234";
    EXPECT_EQ(nvram_get_parameter("n", 5), "1234");
    EXPECT_EQ(nvram_get_parameter("n", 4), std::nullopt);
}

TEST_F(NvramConfig, AnEmptyParameterIsAValue)
{
    fake_nvram.values["n"] = "";
    EXPECT_EQ(nvram_get_parameter("n", 1), "");
}

TEST_F(NvramConfig, SettingsAreReadInTheirOrder)
{
    captured_log log;
    velm_nvram_config_load(&config);
    std::vector<std::string> names;
    for (const std::string &line : log.lines()) {
        names.push_back(line.substr(line.rfind(' ') + 1));
    }
    EXPECT_EQ(names,
              (std::vector<std::string>{
                  "zelkad_http_client_trusted_ca", "zelkad_http_server_cert",
                  "zelkad_http_server_privatekey", "zelkad_http_server_port",
                  "zelkad_discovery_ssdp_port", "zelkad_pairing_maxnum",
                  "zelkad_app_android_app_name", "zelkad_app_android_integrity_decrytion_key",
                  "zelkad_app_android_integrity_verification_key",
                  "zelkad_app_android_play_attestation_secret", "zelkad_app_ios_id",
                  "zelkad_cmd_path", "zelkad_cm_firebase_privkey", "ap_vendor"}));
}

TEST_F(NvramConfig, WithoutARecordTheProcessEnds)
{
    const captured_log log;
    EXPECT_DEATH(
        velm_nvram_config_load(nullptr),
        "ERROR velm_nvram_config - velm_nvram_config_load: config is null: not enough memory");
}

TEST(NvramFit, SaysWhatTheReadersMakeOfASetting)
{
    fake_nvram = {};
    EXPECT_EQ(velm_nvram_config_fit_text("t", 4), nvram_fit::absent);
    EXPECT_EQ(velm_nvram_config_fit_number("n", 1), nvram_fit::absent);
    fake_nvram.values = {{"t", ""}, {"n", ""}};
    EXPECT_EQ(velm_nvram_config_fit_text("t", 4), nvram_fit::absent);
    EXPECT_EQ(velm_nvram_config_fit_number("n", 1), nvram_fit::absent);
    fake_nvram.values = {{"t", "abc"}, {"n", "65535"}};
    EXPECT_EQ(velm_nvram_config_fit_text("t", 4), nvram_fit::fits);
    EXPECT_EQ(velm_nvram_config_fit_text("t", 3), nvram_fit::too_long);
    EXPECT_EQ(velm_nvram_config_fit_number("n", 1), nvram_fit::fits);
    for (const char *number : {"0", "65536", "x"}) {
        fake_nvram.values["n"] = number;
        EXPECT_EQ(velm_nvram_config_fit_number("n", 1), nvram_fit::no_number) << number;
    }
    fake_nvram.values["n"] = std::string(21, '0');
    EXPECT_EQ(velm_nvram_config_fit_number("n", 0), nvram_fit::too_long);
}

} // namespace
