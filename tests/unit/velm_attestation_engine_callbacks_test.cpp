#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/no_google_integrity.h"
#include "ios_validation/ios_app_validate.h"
#include "velm_attestation_engine.h"
#include "velm_nvram_pairings.h"

/// The engine over a validator that the test plays, to see what it asks of it and how its callbacks
/// answer.

struct ios_app_validator {
    const ios_app_validator_callbacks *callbacks = nullptr;
    void *user_data = nullptr;
};

namespace {

using lines = std::vector<std::string>;

struct validator_stand_in {
    ios_app_validator validator;
    bool no_memory = false;
    std::string app_id;
    int develop = -1;
    int freed = 0;
    unsigned (*validate)(ios_app_validator *iav) = nullptr;
};
validator_stand_in played;

} // namespace

ios_app_validator_ptr ios_app_validator_new(const char *app_id,
                                            const ios_app_validator_callbacks *callbacks,
                                            void *user_data)
{
    if (played.no_memory) {
        return nullptr;
    }
    played.app_id = app_id;
    played.validator = {callbacks, user_data};
    return ios_app_validator_ptr{&played.validator};
}

void ios_app_validator_free(ios_app_validator *)
{
    ++played.freed;
}

void ios_app_validator_set_develop(ios_app_validator *, std::uint8_t allow)
{
    played.develop = allow;
}

int ios_app_validator_set_root_ca(ios_app_validator *, const char *)
{
    return 0;
}

void *ios_app_validator_get_user_data(const ios_app_validator *validator)
{
    return validator->user_data;
}

unsigned ios_app_validate_attestation(ios_app_validator *validator, std::span<const std::uint8_t>,
                                      std::span<const std::uint8_t>)
{
    return played.validate(validator);
}

unsigned ios_app_validate_assertion(ios_app_validator *validator, std::span<const std::uint8_t>,
                                    std::span<const std::uint8_t>)
{
    return played.validate(validator);
}

json_ptr velm_nvram_pairings_select_pairing(const char *)
{
    json_ptr pairing{cJSON_CreateObject()};
    cJSON_AddStringToObject(pairing.get(), "attestation_key", "AQID");
    return pairing;
}

bool common_file_exists(const char *)
{
    return true;
}

std::optional<std::string> read_binary_file(const char *path)
{
    return std::string{path} == "root" ? "a root" : "{}";
}

bool common_file_save_to_file(const char *, std::string_view)
{
    return false;
}

namespace {

class EngineCallbacks : public testing::Test {
  protected:
    EngineCallbacks()
    {
        played = {};
        std::string{"app"}.copy(config.app_ios_appid, 3);
        velm_attestation_engine_init(&config);
        log.clear();
    }

    static velm_attestation_result attest(unsigned (*validate)(ios_app_validator *iav))
    {
        played.validate = validate;
        return velm_attestation_engine_ios_verify_attestation("d", {}, {});
    }
    static bool assert_request(unsigned (*validate)(ios_app_validator *iav))
    {
        played.validate = validate;
        return velm_attestation_engine_ios_verify_assertion("d", {}, {});
    }
    /// Kept by the engine until the next test loads another.
    void load_custom_root()
    {
        std::string{"key"}.copy(config.app_android_integrity_d_key_path, 3);
        std::string{"key"}.copy(config.app_android_integrity_v_key_path, 3);
        std::string{"root"}.copy(config.app_ios_attest_root_ca_path, 4);
        velm_attestation_engine_init(&config);
    }
    void drop_custom_root()
    {
        config.app_ios_attest_root_ca_path[0] = '\0';
        velm_attestation_engine_init(&config);
    }

    velm_config config{};
    captured_log log;
};

TEST_F(EngineCallbacks, EveryCallAllowsDevelopmentAndFreesItsValidator)
{
    (void)attest([](ios_app_validator *) { return 0U; });
    EXPECT_EQ(played.app_id, "app");
    EXPECT_EQ(played.develop, 1);
    EXPECT_EQ(played.freed, 1);
    played = {};
    (void)assert_request([](ios_app_validator *) { return 1U; });
    EXPECT_EQ(played.develop, 1);
    EXPECT_EQ(played.freed, 1);
}

TEST_F(EngineCallbacks, ASuccessWithoutAKeyIsInvalid)
{
    EXPECT_FALSE(attest([](ios_app_validator *) { return 1U; }).success);
    EXPECT_EQ(log.lines(), lines{"ERROR velm_attestation_engine - "
                                 "velm_attestation_engine_ios_verify_attestation - invalid"});
}

TEST_F(EngineCallbacks, WritePubKeyKeepsTheKeyAsBase64)
{
    const velm_attestation_result result = attest([](ios_app_validator *iav) {
        const std::vector<std::uint8_t> der{1, 2, 3};
        return iav->callbacks->write_pub_key(iav, der);
    });
    EXPECT_TRUE(result.success);
    EXPECT_EQ(result.attestation_key, "AQID");
}

TEST_F(EngineCallbacks, WritePubKeyAnswersZeroWhenTheKeyCannotBeEncoded)
{
    EXPECT_FALSE(attest([](ios_app_validator *iav) {
                     const unsigned result = iav->callbacks->write_pub_key(iav, {});
                     EXPECT_EQ(result, 0U);
                     return result;
                 }).success);
    EXPECT_TRUE(log.contains("velm_attestation_engine_ios_verify_attestation - failure"));
}

TEST_F(EngineCallbacks, AnAssertionReadsTheKeyOfThePairing)
{
    EXPECT_TRUE(assert_request([](ios_app_validator *iav) {
        EXPECT_EQ(iav->callbacks->read_pub_key(iav), (std::vector<std::uint8_t>{1, 2, 3}));
        return 1U;
    }));
}

TEST_F(EngineCallbacks, AnAttestationStartsWithoutAKey)
{
    (void)attest([](ios_app_validator *iav) {
        EXPECT_EQ(iav->callbacks->read_pub_key(iav), std::nullopt);
        return 0U;
    });
}

TEST_F(EngineCallbacks, CountersAreNotKept)
{
    EXPECT_TRUE(assert_request([](ios_app_validator *iav) {
        for (const std::uint32_t counter : {5U, 5U, 1U, 0U, 0xffffffffU}) {
            EXPECT_EQ(iav->callbacks->get_counter(iav), 0U);
            EXPECT_EQ(iav->callbacks->set_counter(iav, counter), 1U);
        }
        return 1U;
    }));
}

TEST_F(EngineCallbacks, WithoutAValidatorOrItsUserDataEndTheProcess)
{
    (void)assert_request([](ios_app_validator *) { return 1U; });
    const ios_app_validator_callbacks &callbacks = *played.validator.callbacks;
    ios_app_validator no_data{&callbacks, nullptr};
    for (ios_app_validator *iav : {static_cast<ios_app_validator *>(nullptr), &no_data}) {
        EXPECT_DEATH((void)callbacks.write_pub_key(iav, {}),
                     "write_pub_key: iav is null: null reference");
        EXPECT_DEATH((void)callbacks.read_pub_key(iav),
                     "read_pub_key: iav is null: null reference");
        EXPECT_DEATH((void)callbacks.set_counter(iav, 1),
                     "set_counter: iav is null: null reference");
        EXPECT_DEATH((void)callbacks.get_counter(iav), "get_counter: iav is null: null reference");
    }
}

TEST_F(EngineCallbacks, AValidatorThatCannotBeMadeEndsTheProcess)
{
    played.no_memory = true;
    EXPECT_DEATH((void)attest(nullptr), "velm_attestation_engine_ios_verify_attestation: iav is "
                                        "null: not enough memory");
    EXPECT_DEATH((void)assert_request(nullptr), "velm_attestation_engine_ios_verify_assertion: iav "
                                                "is null: not enough memory");
}

TEST_F(EngineCallbacks, ARootThatCannotBeSetFailsTheCall)
{
    load_custom_root();
    log.clear();
    EXPECT_FALSE(attest(nullptr).success);
    EXPECT_FALSE(assert_request(nullptr));
    EXPECT_EQ(log.lines(),
              (lines{"ERROR velm_attestation_engine - "
                     "velm_attestation_engine_ios_verify_attestation - cannot set custom root ca",
                     "ERROR velm_attestation_engine - "
                     "velm_attestation_engine_ios_verify_assertion - cannot set custom root ca"}));
    EXPECT_EQ(played.freed, 2);
    drop_custom_root();
}

} // namespace
