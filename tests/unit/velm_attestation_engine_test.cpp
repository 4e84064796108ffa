#include "velm_attestation_engine.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>
#include <string>

#include "async/common_async.h"
#include "config/file_notes.h"
#include "crypto/common_crypto.h"
#include "fakes/app_attest_maker.h"
#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "fakes/no_google_integrity.h"
#include "fakes/temporary_directory.h"
#include "logger/fatal.h"
#include "velm_nvram_pairings.h"

namespace {
/// The pairing store holds this one record, or nothing.
struct pairing_stand_in {
    std::string dev_id;
    json_ptr pairing;
};
pairing_stand_in store;
} // namespace

json_ptr velm_nvram_pairings_select_pairing(const char *dev_id)
{
    if (store.pairing == nullptr || store.dev_id != dev_id) {
        return nullptr;
    }
    return json_ptr{cJSON_Duplicate(store.pairing.get(), 1)};
}

namespace {

using lines = std::vector<std::string>;

constexpr char app_id[] = "0123456789.org.example.app";
constexpr char device[] = "a device";

template <std::size_t Size>
void set_text(char (&field)[Size], const std::string &text)
{
    ASSERT_LT(text.size(), Size);
    std::strcpy(field, text.c_str());
}

/// An engine with good key files and the test's own root; each test bends a part.
class AttestationEngine : public testing::Test {
  protected:
    AttestationEngine()
    {
        fake_clock_set(app_attest_maker_now);
        set_text(config.app_ios_appid, app_id);
        set_text(config.app_android_integrity_d_key_path, files.write("d.jwk", R"({"k":"d"})"));
        set_text(config.app_android_integrity_v_key_path, files.write("v.jwk", R"({"k":"v"})"));
        trust(phone.root);
        velm_attestation_engine_init(&config);
        store = {};
        log.clear();
    }
    ~AttestationEngine() override
    {
        fake_clock_reset();
    }

    void trust(const app_attest_authority &root)
    {
        set_text(config.app_ios_attest_root_ca_path,
                 files.write("root.pem", certificate_pem(root.certificate.get())));
    }
    void pair(const std::string &key)
    {
        store.dev_id = device;
        store.pairing.reset(cJSON_CreateObject());
        cJSON_AddStringToObject(store.pairing.get(), "attestation_key", key.c_str());
    }
    void pair_with_key_of_the_phone()
    {
        pair(*common_crypto_base64_encode(public_key_der(phone.key.get())));
    }
    velm_attestation_result attest(const auth_data_wish &wish)
    {
        log.clear();
        const test_bytes object = phone.attest(wish, hash).encode();
        return velm_attestation_engine_ios_verify_attestation(device, object, hash);
    }
    bool assert_with_counter(std::uint32_t counter)
    {
        log.clear();
        auth_data_wish wish = phone.auth_data();
        wish.counter = counter;
        const test_bytes object = phone.assert_request(wish, hash);
        return velm_attestation_engine_ios_verify_assertion(device, object, hash);
    }
    /// The root of the phone is trusted, so it is what was loaded last.
    void expect_root_in_force(const app_attest_phone &owner)
    {
        const test_bytes object = owner.attest(owner.auth_data(), hash).encode();
        EXPECT_TRUE(velm_attestation_engine_ios_verify_attestation(device, object, hash).success);
    }

    static inline const app_attest_phone phone{app_id};
    static inline const app_attest_phone other_phone{app_id};
    temporary_directory files;
    velm_config config{};
    test_bytes hash = sha256_of(bytes_of("challenge"));
    captured_log log;
};

TEST_F(AttestationEngine, GivesTheKeyOfAnAttestationAsBase64)
{
    const velm_attestation_result result = attest(phone.auth_data());
    EXPECT_TRUE(result.success);
    EXPECT_EQ(common_crypto_base64_decode(result.attestation_key), public_key_der(phone.key.get()));
    EXPECT_EQ(log.lines(), (lines{"TRACE IAV - Attestation success",
                                  "TRACE velm_attestation_engine - "
                                  "velm_attestation_engine_ios_verify_attestation - success"}));
}

TEST_F(AttestationEngine, AcceptsAnAttestationOfTheDevelopmentEnvironment)
{
    auth_data_wish wish = phone.auth_data();
    wish.aaguid = aaguid_develop;
    EXPECT_TRUE(attest(wish).success);
}

TEST_F(AttestationEngine, RefusesABadAttestation)
{
    auth_data_wish wish = phone.auth_data();
    wish.counter = 1;
    const velm_attestation_result result = attest(wish);
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.attestation_key, "");
    EXPECT_EQ(log.lines(), (lines{"DEBUG IAV - Invalid counter", "ERROR IAV - Attestation failed",
                                  "ERROR velm_attestation_engine - "
                                  "velm_attestation_engine_ios_verify_attestation - failure"}));
}

TEST_F(AttestationEngine, TheDeviceIdTakesNoPartInAnAttestation)
{
    const test_bytes object = phone.attest(phone.auth_data(), hash).encode();
    EXPECT_TRUE(velm_attestation_engine_ios_verify_attestation(nullptr, object, hash).success);
}

TEST_F(AttestationEngine, WithoutAnAppIdFailsEveryIosCallBeforeAnyParsing)
{
    config.app_ios_appid[0] = '\0';
    pair_with_key_of_the_phone();
    const test_bytes garbage{0xff};
    EXPECT_FALSE(velm_attestation_engine_ios_verify_attestation(device, garbage, hash).success);
    EXPECT_FALSE(velm_attestation_engine_ios_verify_assertion(device, garbage, hash));
    EXPECT_EQ(log.lines(), (lines{"ERROR velm_attestation_engine - "
                                  "velm_attestation_engine_ios_verify_attestation - no app id",
                                  "ERROR velm_attestation_engine - "
                                  "velm_attestation_engine_ios_verify_assertion - no app id"}));
}

TEST_F(AttestationEngine, AcceptsAnAssertionByTheKeyOfThePairing)
{
    pair(attest(phone.auth_data()).attestation_key);
    EXPECT_TRUE(assert_with_counter(1));
    EXPECT_EQ(log.lines(), (lines{"TRACE IAV - Assertion success",
                                  "TRACE velm_attestation_engine - "
                                  "velm_attestation_engine_ios_verify_assertion - success"}));
}

TEST_F(AttestationEngine, AcceptsTheSameCounterTwiceButNeverZero)
{
    pair_with_key_of_the_phone();
    EXPECT_TRUE(assert_with_counter(5));
    EXPECT_TRUE(assert_with_counter(5));
    EXPECT_TRUE(assert_with_counter(1));
    EXPECT_FALSE(assert_with_counter(0));
    EXPECT_TRUE(log.has("DEBUG IAV - Invalid counter"));
    EXPECT_TRUE(log.has("ERROR velm_attestation_engine - "
                        "velm_attestation_engine_ios_verify_assertion - failure"));
}

TEST_F(AttestationEngine, RefusesAnAssertionByAnotherKey)
{
    pair(*common_crypto_base64_encode(public_key_der(other_phone.key.get())));
    EXPECT_FALSE(assert_with_counter(1));
    EXPECT_TRUE(log.has("DEBUG IAV - Invalid signature"));
}

TEST_F(AttestationEngine, RefusesAnAssertionOfAPhoneThatIsNotPaired)
{
    EXPECT_FALSE(assert_with_counter(1));
    EXPECT_EQ(log.lines(), lines{"ERROR velm_attestation_engine - "
                                 "velm_attestation_engine_ios_verify_assertion - no pairing"});
}

TEST_F(AttestationEngine, RefusesAnAssertionWhenThePairingsKeyIsEmptyOrMissing)
{
    const lines refused{"ERROR velm_attestation_engine - "
                        "velm_attestation_engine_ios_verify_assertion - no assertion key"};
    pair("");
    EXPECT_FALSE(assert_with_counter(1));
    EXPECT_EQ(log.lines(), refused);
    store.pairing.reset(cJSON_CreateObject());
    EXPECT_FALSE(assert_with_counter(1));
    EXPECT_EQ(log.lines(), refused);
}

TEST_F(AttestationEngine, RefusesAnAssertionWhenThePairingsKeyIsNoBase64)
{
    pair("no base64!");
    EXPECT_FALSE(assert_with_counter(1));
    EXPECT_TRUE(log.has("ERROR IAV - Assertion failed"));
    EXPECT_FALSE(log.contains("Cannot load pub key"));
    EXPECT_TRUE(log.has("ERROR velm_attestation_engine - "
                        "velm_attestation_engine_ios_verify_assertion - failure"));
}

TEST_F(AttestationEngine, LooksForThePairingBeforeItsKeyAndForTheKeyBeforeTheAppId)
{
    config.app_ios_appid[0] = '\0';
    EXPECT_FALSE(assert_with_counter(1));
    EXPECT_TRUE(log.contains(" - no pairing"));
    pair("");
    EXPECT_FALSE(assert_with_counter(1));
    EXPECT_TRUE(log.contains(" - no assertion key"));
    pair_with_key_of_the_phone();
    EXPECT_FALSE(assert_with_counter(1));
    EXPECT_TRUE(log.contains(" - no app id"));
}

TEST_F(AttestationEngine, InitSaysItsName)
{
    velm_attestation_engine_init(&config);
    EXPECT_EQ(log.lines(), lines{"TRACE velm_attestation_engine - velm_attestation_engine_init"});
}

TEST_F(AttestationEngine, ANullConfigurationEndsTheProcess)
{
    EXPECT_DEATH(velm_attestation_engine_init(nullptr),
                 "velm_attestation_engine_init: config is null: null reference");
}

TEST_F(AttestationEngine, AReloadReplacesTheRoot)
{
    trust(other_phone.root);
    velm_attestation_engine_init(&config);
    expect_root_in_force(other_phone);
    EXPECT_FALSE(attest(phone.auth_data()).success);
}

TEST_F(AttestationEngine, AReloadWithAnEmptySettingDropsTheCustomRoot)
{
    config.app_ios_attest_root_ca_path[0] = '\0';
    velm_attestation_engine_init(&config);
    EXPECT_FALSE(attest(phone.auth_data()).success);
    EXPECT_TRUE(log.has("DEBUG IAV - Invalid ca chain"));
}

TEST_F(AttestationEngine, ARootThatIsNoCertificateRefusesEveryPhoneUntilAReloadBringsAGoodOne)
{
    files.write("root.pem", "no certificate");
    velm_attestation_engine_init(&config);
    EXPECT_FALSE(attest(phone.auth_data()).success);
    EXPECT_TRUE(log.has("DEBUG IAV - Invalid ca chain"));
    trust(phone.root);
    EXPECT_FALSE(attest(phone.auth_data()).success) << "nobody asked for a reload";
    velm_attestation_engine_init(&config);
    expect_root_in_force(phone);
}

TEST_F(AttestationEngine, AMissingDecryptionKeySettingLeavesAChangedRootUnloaded)
{
    trust(other_phone.root);
    config.app_android_integrity_d_key_path[0] = '\0';
    velm_attestation_engine_init(&config);
    EXPECT_TRUE(log.has("ERROR velm_attestation_engine - velm_attestation_engine_init - no "
                        "decryption key setting"));
    expect_root_in_force(phone);
}

TEST_F(AttestationEngine, AMissingDecryptionKeySettingKeepsTheRootWhoseSettingWasEmptied)
{
    config.app_ios_attest_root_ca_path[0] = '\0';
    config.app_android_integrity_d_key_path[0] = '\0';
    velm_attestation_engine_init(&config);
    expect_root_in_force(phone);
}

TEST_F(AttestationEngine, AKeyFileThatWasNotReadIsNotSaidToHaveBeenRead)
{
    const file_note &decryption = *file_note_get("app.android.integrity.d.key.path");
    const file_note &verification = *file_note_get("app.android.integrity.v.key.path");
    EXPECT_NE(decryption.read, 0);
    EXPECT_NE(verification.read, 0);
    set_text(config.app_android_integrity_d_key_path, files.path("none"));
    velm_attestation_engine_init(&config);
    EXPECT_NE(decryption.read, 0);
    EXPECT_EQ(decryption.why, "the file is missing");
    EXPECT_EQ(verification.read, 0);
    EXPECT_EQ(verification.why, "it is not used without a decryption key");
    set_text(config.app_android_integrity_d_key_path, files.write("d.jwk", R"({"k":"d"})"));
    set_text(config.app_android_integrity_v_key_path, files.path("none"));
    velm_attestation_engine_init(&config);
    EXPECT_EQ(decryption.read, 0);
    EXPECT_EQ(verification.why, "the file is missing");
}

/// A configuration with one thing wrong, and all that is looked at later wrong too.
struct bad_configuration {
    const char *name;
    const char *message;
    void (*bend)(velm_config &config, const temporary_directory &files);
};

class BadConfiguration : public AttestationEngine,
                         public testing::WithParamInterface<bad_configuration> {};

TEST_P(BadConfiguration, IsLoggedAndLeavesTheRootInForce)
{
    trust(other_phone.root);
    GetParam().bend(config, files);
    velm_attestation_engine_init(&config);
    EXPECT_EQ(log.count("ERROR"), 1);
    EXPECT_TRUE(log.has(std::string{"ERROR velm_attestation_engine - "
                                    "velm_attestation_engine_init - "} +
                        GetParam().message));
    expect_root_in_force(phone);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Reasons, BadConfiguration, testing::Values(
    bad_configuration{"NoDecryptionKeyFile", "no decryption key file",
        [](velm_config &config, const temporary_directory &files) {
            set_text(config.app_android_integrity_d_key_path, files.path("none"));
            set_text(config.app_android_integrity_v_key_path, files.path("none"));
        }},
    bad_configuration{"NoVerificationKeySetting", "no verification key file",
        [](velm_config &config, const temporary_directory &files) {
            set_text(config.app_android_integrity_d_key_path, files.path(""));
            set_text(config.app_android_integrity_v_key_path, "");
        }},
    bad_configuration{"NoVerificationKeyFile", "no verification key file",
        [](velm_config &config, const temporary_directory &files) {
            set_text(config.app_android_integrity_v_key_path, files.path("none"));
        }},
    bad_configuration{"DecryptionKeyIsADirectory", "cannot read decryption key file",
        [](velm_config &config, const temporary_directory &files) {
            set_text(config.app_android_integrity_d_key_path, files.path(""));
            set_text(config.app_android_integrity_v_key_path, files.path(""));
        }},
    bad_configuration{"VerificationKeyIsADirectory", "cannot read verification key file",
        [](velm_config &config, const temporary_directory &files) {
            files.write("d.jwk", "{");
            set_text(config.app_android_integrity_v_key_path, files.path(""));
        }},
    bad_configuration{"DecryptionKeyIsNoJson", "invalid format of decryption key file",
        [](velm_config &, const temporary_directory &files) {
            files.write("d.jwk", "{");
            files.write("v.jwk", "{");
        }},
    bad_configuration{"DecryptionKeyIsEmpty", "invalid format of decryption key file",
        [](velm_config &, const temporary_directory &files) { files.write("d.jwk", ""); }},
    bad_configuration{"VerificationKeyIsNoJson", "invalid format of verification key file",
        [](velm_config &, const temporary_directory &files) { files.write("v.jwk", "key"); }},
    bad_configuration{"NoRootFile", "no iOS attestation root cert file",
        [](velm_config &config, const temporary_directory &files) {
            set_text(config.app_ios_attest_root_ca_path, files.path("none"));
        }},
    bad_configuration{"RootIsADirectory", "cannot read iOS attestation root cert file",
        [](velm_config &config, const temporary_directory &files) {
            set_text(config.app_ios_attest_root_ca_path, files.path(""));
        }},
    bad_configuration{"RootIsEmpty", "iOS attestation root cert file is empty",
        [](velm_config &, const temporary_directory &files) { files.write("root.pem", ""); }}),
    [](const auto &row) { return std::string{row.param.name}; });
// clang-format on

struct android_report {
    int calls = 0;
    bool success = true;
    void *user_data = nullptr;
};

/// The Android half, over a real loop.
class AndroidAssertion : public testing::Test {
  protected:
    AndroidAssertion()
    {
        common_async_set_event_base(base);
        common_async_init();
        reported = {};
    }

    static void note(bool success, void *user_data)
    {
        ++reported.calls;
        reported.success = success;
        reported.user_data = user_data;
    }
    static void turn_the_loop()
    {
        for (int turn = 0; turn < 5; ++turn) {
            event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
        }
    }

    // Outlives the module's events, as in the daemon.
    static inline event_base *const base = event_base_new();
    static inline android_report reported;
    test_bytes token = bytes_of("token");
    test_bytes digest = test_bytes(32, 7);
    captured_log log;
};

struct android_method {
    int method;
    lines logged;
};

class AndroidMethod : public AndroidAssertion,
                      public testing::WithParamInterface<android_method> {};

TEST_P(AndroidMethod, ReportsFalseOnceFromTheLoop)
{
    int user_data = 0;
    {
        std::string device_id = "an Android device";
        EXPECT_EQ(velm_attestation_engine_android_verify_assertion(
                      device_id.c_str(), token, digest, GetParam().method, note, &user_data),
                  0);
    }
    // The worker has its own copies.
    token = {};
    digest = {};
    EXPECT_EQ(reported.calls, 0);
    turn_the_loop();
    EXPECT_EQ(reported.calls, 1);
    EXPECT_FALSE(reported.success);
    EXPECT_EQ(reported.user_data, &user_data);
    EXPECT_EQ(log.lines(), GetParam().logged);
}

INSTANTIATE_TEST_SUITE_P(
    Methods, AndroidMethod,
    testing::Values(android_method{
        velm_android_method_remote,
        {"TRACE velm_attestation_engine - android_verify_assertion_remotely - start",
         "TRACE velm_attestation_engine - google_integrity_result - start",
         "TRACE velm_attestation_engine - google_integrity_result - finished"}}),
    [](const auto &) { return "Remote"; });

TEST_F(AndroidAssertion, AnswersEveryRequestOfSeveral)
{
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(velm_attestation_engine_android_verify_assertion("d", token, digest, i % 2, note,
                                                                   nullptr),
                  0);
    }
    turn_the_loop();
    EXPECT_EQ(reported.calls, 3);
}

TEST_F(AndroidAssertion, AMethodOtherThanZeroOrOneEndsTheProcess)
{
    for (const int method : {-1, 2, 3}) {
        EXPECT_DEATH(velm_attestation_engine_android_verify_assertion("d", token, digest, method,
                                                                      note, nullptr),
                     "velm_attestation_engine_android_verify_assertion: invalid method");
    }
}

TEST_F(AndroidAssertion, ExhaustedMemoryNamesTheCopyThatCouldNotBeMade)
{
#ifdef VELM_SANITIZED
    GTEST_SKIP() << "the sanitizer itself ends the process at such a size";
#endif
    if (sizeof(std::size_t) < 8) {
        GTEST_SKIP() << "every size that a vector may have may be free in 4 GiB";
    }
    const std::uint8_t byte = 0;
    const std::span<const std::uint8_t> huge{&byte, std::numeric_limits<std::size_t>::max() / 4};
    const auto verify = [](auto object, auto message_digest) {
        fatal_install_memory_handler();
        velm_attestation_engine_android_verify_assertion("d", object, message_digest, 0, note,
                                                         nullptr);
    };
    const std::string function = "clone_android_verify_assertion_input: ";
    EXPECT_DEATH(verify(huge, std::span<const std::uint8_t>{digest}),
                 function + "i->assertion_object_buf is null: not enough memory");
    EXPECT_DEATH(verify(std::span<const std::uint8_t>{token}, huge),
                 function + "i->message_digest_buf is null: not enough memory");
}

TEST_F(AndroidAssertion, AMissingArgumentEndsTheProcess)
{
    const std::string function = "velm_attestation_engine_android_verify_assertion: ";
    EXPECT_DEATH(
        velm_attestation_engine_android_verify_assertion(nullptr, token, digest, 0, note, nullptr),
        function + "input.device_id is null: null reference");
    EXPECT_DEATH(
        velm_attestation_engine_android_verify_assertion("d", {}, digest, 0, note, nullptr),
        function + "input.assertion_object_buf is null: null reference");
    EXPECT_DEATH(velm_attestation_engine_android_verify_assertion("d", token, {}, 0, note, nullptr),
                 function + "input.message_digest_buf is null: null reference");
    EXPECT_DEATH(
        velm_attestation_engine_android_verify_assertion("d", token, digest, 0, nullptr, nullptr),
        function + "input.result_cb is null: null reference");
}

} // namespace
