#include "android_validation/verdict.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "fakes/app_attest_maker.h"
#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"

namespace {

using lines = std::vector<std::string>;

constexpr char package[] = "com.norvale.afc";
constexpr std::time_t now = 1'750'000'000;

/// Base64url of 32 bytes that need both of the alphabet's own characters.
constexpr char digest_text[] = "-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_8";

android_verify_assertion_input input_with_digest()
{
    android_verify_assertion_input input;
    for (int i = 0; i < 10; ++i) {
        input.message_digest_buf.insert(input.message_digest_buf.end(), {0xfb, 0xff, 0xbf});
    }
    input.message_digest_buf.insert(input.message_digest_buf.end(), {0xfb, 0xff});
    return input;
}

std::string milliseconds(std::time_t seconds, int rest = 0)
{
    return std::to_string(seconds * 1000LL + rest);
}

cJSON *member(cJSON *object, const char *name)
{
    return cJSON_GetObjectItemCaseSensitive(object, name);
}

void set(cJSON *object, const char *name, json_ptr value)
{
    cJSON_DeleteItemFromObjectCaseSensitive(object, name);
    cJSON_AddItemToObject(object, name, value.release());
}

void set(cJSON *object, const char *name, const std::string &text)
{
    set(object, name, json_ptr{cJSON_CreateString(text.c_str())});
}

/// A value of any kind, as JSON text.
void set_json(cJSON *object, const char *name, const char *json)
{
    json_ptr value{cJSON_Parse(json)};
    ASSERT_NE(value, nullptr) << json;
    set(object, name, std::move(value));
}

void drop(cJSON *object, const char *name)
{
    cJSON_DeleteItemFromObjectCaseSensitive(object, name);
}

json_ptr good_verdict()
{
    json_ptr verdict{cJSON_Parse(R"({
        "requestDetails": {"requestPackageName": "com.norvale.afc", "nonce": "", "timestampMillis": ""},
        "appIntegrity": {"appRecognitionVerdict": "PLAY_RECOGNIZED",
                         "packageName": "com.norvale.afc", "versionCode": "42"},
        "deviceIntegrity": {"deviceRecognitionVerdict": ["MEETS_BASIC_INTEGRITY",
                            "MEETS_DEVICE_INTEGRITY", "MEETS_STRONG_INTEGRITY"]},
        "accountDetails": {"appLicensingVerdict": "LICENSED"},
        "environmentDetails": {"playProtectVerdict": "NO_ISSUES"}})")};
    set(member(verdict.get(), "requestDetails"), "nonce", digest_text);
    set(member(verdict.get(), "requestDetails"), "timestampMillis", milliseconds(now));
    return verdict;
}

class AndroidVerdict : public testing::Test {
  protected:
    AndroidVerdict()
    {
        fake_clock_set(now);
    }
    ~AndroidVerdict() override
    {
        fake_clock_reset();
    }

    cJSON *root()
    {
        return verdict.get();
    }
    cJSON *request()
    {
        return member(root(), "requestDetails");
    }
    cJSON *app()
    {
        return member(root(), "appIntegrity");
    }
    cJSON *device()
    {
        return member(root(), "deviceIntegrity");
    }
    cJSON *environment()
    {
        return member(root(), "environmentDetails");
    }
    /// "requestHash" alone binds the token.
    void use_request_hash()
    {
        drop(request(), "nonce");
        set(request(), "requestHash", digest_text);
    }
    bool passes()
    {
        log.clear();
        return android_interpret_verdict(input, root(), package);
    }
    /// Refused, with exactly this ERROR line.
    void expect_refused(const std::string &text)
    {
        EXPECT_FALSE(passes());
        EXPECT_EQ(log.count("ERROR"), 1);
        EXPECT_TRUE(log.has("ERROR velm_attestation_engine - android_interpret_verdict - " + text))
            << text;
        EXPECT_FALSE(log.contains("- success"));
    }

    android_verify_assertion_input input = input_with_digest();
    json_ptr verdict = good_verdict();
    captured_log log;
};

TEST_F(AndroidVerdict, PassesWhenAllRulesHold)
{
    EXPECT_TRUE(passes());
    EXPECT_EQ(
        log.lines(),
        (lines{std::string{"TRACE velm_attestation_engine - android_interpret_verdict - nonce: "} +
                   digest_text,
               "TRACE velm_attestation_engine - android_interpret_verdict - success"}));
}

TEST_F(AndroidVerdict, NoneAtAllIsRefused)
{
    verdict.reset();
    expect_refused("no requestDetails");
}

TEST_F(AndroidVerdict, ANullPackageNameEndsTheProcess)
{
    EXPECT_DEATH((void)android_interpret_verdict(input, root(), nullptr),
                 "android_interpret_verdict: package_name is null: null reference");
}

/// A verdict with one thing bent, and what the log says to it.
struct refused_case {
    const char *name;
    const char *message;
    void (*bend)(cJSON *verdict);
};

class RefusedVerdict : public AndroidVerdict, public testing::WithParamInterface<refused_case> {};

TEST_P(RefusedVerdict, HasItsOwnLine)
{
    GetParam().bend(root());
    expect_refused(GetParam().message);
}

cJSON *request_of(cJSON *verdict)
{
    return member(verdict, "requestDetails");
}
cJSON *app_of(cJSON *verdict)
{
    return member(verdict, "appIntegrity");
}
cJSON *device_of(cJSON *verdict)
{
    return member(verdict, "deviceIntegrity");
}
cJSON *environment_of(cJSON *verdict)
{
    return member(verdict, "environmentDetails");
}

std::string row_name(const testing::TestParamInfo<refused_case> &row)
{
    return row.param.name;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Parts, RefusedVerdict, testing::Values(
    refused_case{"NoRequestDetails", "no requestDetails",
        [](cJSON *v) { drop(v, "requestDetails"); drop(v, "appIntegrity"); }},
    refused_case{"RequestDetailsAsText", "no requestDetails",
        [](cJSON *v) { set(v, "requestDetails", "text"); }},
    refused_case{"RequestDetailsAsArray", "no requestDetails",
        [](cJSON *v) { set_json(v, "requestDetails", R"([{"nonce":"x"}])"); }},
    refused_case{"RequestDetailsInAnotherCase", "no requestDetails",
        [](cJSON *v) {
            json_ptr details{cJSON_DetachItemFromObjectCaseSensitive(v, "requestDetails")};
            set(v, "RequestDetails", std::move(details));
        }},
    refused_case{"FirstRequestDetailsOfTwoIsEmpty", "no requestPackageName",
        [](cJSON *v) {
            json_ptr details{cJSON_DetachItemFromObjectCaseSensitive(v, "requestDetails")};
            cJSON_AddItemToObject(v, "requestDetails", cJSON_CreateObject());
            cJSON_AddItemToObject(v, "requestDetails", details.release());
        }},
    refused_case{"NoAppIntegrity", "no appIntegrity",
        [](cJSON *v) { drop(v, "appIntegrity"); drop(v, "deviceIntegrity"); }},
    refused_case{"AppIntegrityAsNull", "no appIntegrity",
        [](cJSON *v) { set_json(v, "appIntegrity", "null"); }},
    refused_case{"NoDeviceIntegrity", "no deviceIntegrity",
        [](cJSON *v) { drop(v, "deviceIntegrity"); drop(request_of(v), "requestPackageName"); }},
    refused_case{"DeviceIntegrityAsArray", "no deviceIntegrity",
        [](cJSON *v) { set_json(v, "deviceIntegrity", R"(["MEETS_STRONG_INTEGRITY"])"); }}),
    row_name);

INSTANTIATE_TEST_SUITE_P(Package, RefusedVerdict, testing::Values(
    refused_case{"Absent", "no requestPackageName",
        [](cJSON *v) { drop(request_of(v), "requestPackageName"); drop(request_of(v), "nonce"); }},
    refused_case{"Empty", "no requestPackageName",
        [](cJSON *v) { set(request_of(v), "requestPackageName", ""); }},
    refused_case{"Number", "no requestPackageName",
        [](cJSON *v) { set_json(request_of(v), "requestPackageName", "5"); }},
    refused_case{"Another", "invalid requestPackageName ('com.example.other' vs 'com.norvale.afc')",
        [](cJSON *v) {
            set(request_of(v), "requestPackageName", "com.example.other");
            drop(request_of(v), "nonce");
        }},
    refused_case{"APrefixOfTheConfiguredOne",
        "invalid requestPackageName ('com.norvale.af' vs 'com.norvale.afc')",
        [](cJSON *v) { set(request_of(v), "requestPackageName", "com.norvale.af"); }},
    refused_case{"LongerThanTheConfiguredOne",
        "invalid requestPackageName ('com.norvale.afc2' vs 'com.norvale.afc')",
        [](cJSON *v) { set(request_of(v), "requestPackageName", "com.norvale.afc2"); }},
    refused_case{"InAnotherCase",
        "invalid requestPackageName ('com.norvale.AFC' vs 'com.norvale.afc')",
        [](cJSON *v) { set(request_of(v), "requestPackageName", "com.norvale.AFC"); }},
    refused_case{"ForgesNoLogLine", "invalid requestPackageName ('x y' vs 'com.norvale.afc')",
        [](cJSON *v) { set(request_of(v), "requestPackageName", "x\ny"); }}),
    row_name);

INSTANTIATE_TEST_SUITE_P(Nonce, RefusedVerdict, testing::Values(
    refused_case{"NeitherNonceNorRequestHash", "no nonce",
        [](cJSON *v) { drop(request_of(v), "nonce"); drop(request_of(v), "timestampMillis"); }},
    refused_case{"BothEmpty", "no nonce",
        [](cJSON *v) { set(request_of(v), "nonce", ""); set(request_of(v), "requestHash", ""); }},
    refused_case{"NonceAsNumber", "no nonce",
        [](cJSON *v) { set_json(request_of(v), "nonce", "7"); }},
    refused_case{"RequestHashAsArray", "no nonce",
        [](cJSON *v) {
            drop(request_of(v), "nonce");
            set_json(request_of(v), "requestHash", "[1]");
        }},
    refused_case{"OneByteShort", "invalid nonce (len)",
        [](cJSON *v) { set(request_of(v), "nonce", "-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-w"); }},
    refused_case{"OneByteLong", "invalid nonce (len)",
        [](cJSON *v) { set(request_of(v), "nonce", std::string{digest_text} + "8"); }},
    refused_case{"PaddingOnly", "invalid nonce (len)",
        [](cJSON *v) { set(request_of(v), "nonce", "="); }},
    refused_case{"CutByPadding", "invalid nonce (len)",
        [](cJSON *v) { set(request_of(v), "nonce", std::string{"-_-_="} + digest_text); }},
    refused_case{"LastBitsDiffer", "invalid nonce (cmp)",
        [](cJSON *v) { set(request_of(v), "nonce", "-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_4"); }},
    refused_case{"FirstByteDiffers", "invalid nonce (cmp)",
        [](cJSON *v) {
            set(request_of(v), "nonce", "A_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_8");
            drop(request_of(v), "timestampMillis");
        }},
    refused_case{"ABadNonceIsNotMadeGoodByTheRequestHash", "invalid nonce (cmp)",
        [](cJSON *v) {
            set(request_of(v), "nonce", "A_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_-_8");
            set(request_of(v), "requestHash", digest_text);
        }}),
    row_name);

INSTANTIATE_TEST_SUITE_P(Timestamp, RefusedVerdict, testing::Values(
    refused_case{"Absent", "no timestampMillis",
        [](cJSON *v) {
            drop(request_of(v), "timestampMillis");
            drop(app_of(v), "appRecognitionVerdict");
        }},
    refused_case{"Number", "invalid timestamp",
        [](cJSON *v) { set_json(request_of(v), "timestampMillis", "1750000000000"); }},
    refused_case{"Null", "invalid timestamp",
        [](cJSON *v) { set_json(request_of(v), "timestampMillis", "null"); }},
    refused_case{"Empty", "invalid timestamp",
        [](cJSON *v) { set(request_of(v), "timestampMillis", ""); }},
    refused_case{"Plus", "invalid timestamp",
        [](cJSON *v) { set(request_of(v), "timestampMillis", "+1750000000000"); }},
    refused_case{"Minus", "invalid timestamp",
        [](cJSON *v) { set(request_of(v), "timestampMillis", "-1"); }},
    refused_case{"BlankBefore", "invalid timestamp",
        [](cJSON *v) { set(request_of(v), "timestampMillis", " 1750000000000"); }},
    refused_case{"BlankBehind", "invalid timestamp",
        [](cJSON *v) { set(request_of(v), "timestampMillis", "1750000000000 "); }},
    refused_case{"Fraction", "invalid timestamp",
        [](cJSON *v) { set(request_of(v), "timestampMillis", "1750000000000.5"); }},
    refused_case{"Exponent", "invalid timestamp",
        [](cJSON *v) { set(request_of(v), "timestampMillis", "175e10"); }},
    refused_case{"Hexadecimal", "invalid timestamp",
        [](cJSON *v) { set(request_of(v), "timestampMillis", "0x1975"); }},
    refused_case{"OneAbove64Bits", "invalid timestamp",
        [](cJSON *v) { set(request_of(v), "timestampMillis", "18446744073709551616"); }},
    refused_case{"OfTheEpoch", "token expired",
        [](cJSON *v) {
            set(request_of(v), "timestampMillis", "0");
            drop(app_of(v), "appRecognitionVerdict");
        }}),
    row_name);

INSTANTIATE_TEST_SUITE_P(App, RefusedVerdict, testing::Values(
    refused_case{"Absent", "no appRecognitionVerdict",
        [](cJSON *v) {
            drop(app_of(v), "appRecognitionVerdict");
            drop(device_of(v), "deviceRecognitionVerdict");
        }},
    refused_case{"Array", "no appRecognitionVerdict",
        [](cJSON *v) { set_json(app_of(v), "appRecognitionVerdict", R"(["PLAY_RECOGNIZED"])"); }},
    refused_case{"Empty", "appRecognitionVerdict is: ",
        [](cJSON *v) { set(app_of(v), "appRecognitionVerdict", ""); }},
    refused_case{"Unrecognized", "appRecognitionVerdict is: UNRECOGNIZED_VERSION",
        [](cJSON *v) {
            set(app_of(v), "appRecognitionVerdict", "UNRECOGNIZED_VERSION");
            drop(device_of(v), "deviceRecognitionVerdict");
        }},
    refused_case{"Unevaluated", "appRecognitionVerdict is: UNEVALUATED",
        [](cJSON *v) { set(app_of(v), "appRecognitionVerdict", "UNEVALUATED"); }},
    refused_case{"InAnotherCase", "appRecognitionVerdict is: play_recognized",
        [](cJSON *v) { set(app_of(v), "appRecognitionVerdict", "play_recognized"); }},
    refused_case{"Longer", "appRecognitionVerdict is: PLAY_RECOGNIZED_NOT",
        [](cJSON *v) { set(app_of(v), "appRecognitionVerdict", "PLAY_RECOGNIZED_NOT"); }}),
    row_name);

void set_labels(cJSON *verdict, const char *json)
{
    set_json(device_of(verdict), "deviceRecognitionVerdict", json);
}

INSTANTIATE_TEST_SUITE_P(Device, RefusedVerdict, testing::Values(
    refused_case{"Absent", "no deviceRecognitionVerdict",
        [](cJSON *v) {
            drop(device_of(v), "deviceRecognitionVerdict");
            set(environment_of(v), "playProtectVerdict", "HIGH_RISK");
        }},
    refused_case{"EmptyArray", "no deviceRecognitionVerdict", [](cJSON *v) { set_labels(v, "[]"); }},
    refused_case{"EmptyText", "no deviceRecognitionVerdict", [](cJSON *v) { set_labels(v, R"("")"); }},
    refused_case{"EmptyObject", "no deviceRecognitionVerdict", [](cJSON *v) { set_labels(v, "{}"); }},
    refused_case{"Text", "invalid deviceRecognitionVerdict",
        [](cJSON *v) { set_labels(v, R"("MEETS_STRONG_INTEGRITY")"); }},
    refused_case{"Number", "invalid deviceRecognitionVerdict", [](cJSON *v) { set_labels(v, "3"); }},
    refused_case{"Object", "invalid deviceRecognitionVerdict",
        [](cJSON *v) {
            set_labels(v, R"({"a":"MEETS_BASIC_INTEGRITY","b":"MEETS_DEVICE_INTEGRITY",)"
                          R"("c":"MEETS_STRONG_INTEGRITY"})");
        }},
    refused_case{"BasicAndDeviceOnly",
        "deviceRecognitionVerdict is: basic=true device=true strong=false",
        [](cJSON *v) { set_labels(v, R"(["MEETS_BASIC_INTEGRITY","MEETS_DEVICE_INTEGRITY"])"); }},
    refused_case{"BasicAndStrongOnly",
        "deviceRecognitionVerdict is: basic=true device=false strong=true",
        [](cJSON *v) { set_labels(v, R"(["MEETS_BASIC_INTEGRITY","MEETS_STRONG_INTEGRITY"])"); }},
    refused_case{"DeviceAndStrongOnly",
        "deviceRecognitionVerdict is: basic=false device=true strong=true",
        [](cJSON *v) { set_labels(v, R"(["MEETS_DEVICE_INTEGRITY","MEETS_STRONG_INTEGRITY"])"); }},
    refused_case{"OthersOnly",
        "deviceRecognitionVerdict is: basic=false device=false strong=false",
        [](cJSON *v) { set_labels(v, R"(["MEETS_VIRTUAL_INTEGRITY",5,null,["x"],{"a":"b"}])"); }},
    refused_case{"LabelsInsideAnotherArray",
        "deviceRecognitionVerdict is: basic=false device=false strong=false",
        [](cJSON *v) {
            set_labels(v, R"([["MEETS_BASIC_INTEGRITY","MEETS_DEVICE_INTEGRITY",)"
                          R"("MEETS_STRONG_INTEGRITY"]])");
        }},
    refused_case{"NearlyTheLabels",
        "deviceRecognitionVerdict is: basic=false device=false strong=false",
        [](cJSON *v) {
            set_labels(v, R"(["meets_basic_integrity","MEETS_DEVICE_INTEGRITY ",)"
                          R"("MEETS_STRONG_INTEGRIT"])");
            set(environment_of(v), "playProtectVerdict", "HIGH_RISK");
        }}),
    row_name);

INSTANTIATE_TEST_SUITE_P(PlayProtect, RefusedVerdict, testing::Values(
    refused_case{"HighRisk", "playProtectVerdict is: HIGH_RISK",
        [](cJSON *v) { set(environment_of(v), "playProtectVerdict", "HIGH_RISK"); }},
    refused_case{"NoData", "playProtectVerdict is: NO_DATA",
        [](cJSON *v) { set(environment_of(v), "playProtectVerdict", "NO_DATA"); }},
    refused_case{"InAnotherCase", "playProtectVerdict is: no_issues",
        [](cJSON *v) { set(environment_of(v), "playProtectVerdict", "no_issues"); }},
    refused_case{"Longer", "playProtectVerdict is: NO_ISSUES2",
        [](cJSON *v) { set(environment_of(v), "playProtectVerdict", "NO_ISSUES2"); }},
    refused_case{"Number", "playProtectVerdict is: no text",
        [](cJSON *v) { set_json(environment_of(v), "playProtectVerdict", "1"); }},
    refused_case{"Array", "playProtectVerdict is: no text",
        [](cJSON *v) { set_json(environment_of(v), "playProtectVerdict", R"(["NO_ISSUES"])"); }}),
    row_name);
// clang-format on

TEST_F(AndroidVerdict, TheClockIsAskedOnlyWhenTheTimestampIsGood)
{
    fake_clock_break();
    expect_refused("cannot get time");
    set(request(), "timestampMillis", "x");
    expect_refused("invalid timestamp");
}

TEST_F(AndroidVerdict, WithNonceAloneSixtySecondsPassAndSixtyOneAreTooOld)
{
    set(request(), "timestampMillis", milliseconds(now - 60));
    EXPECT_TRUE(passes());
    set(request(), "timestampMillis", milliseconds(now - 61, 999));
    expect_refused("token expired");
}

TEST_F(AndroidVerdict, WithoutNonceTheRequestHashIsTheNonceAndAnHourPasses)
{
    use_request_hash();
    set(request(), "timestampMillis", milliseconds(now - 3600));
    EXPECT_TRUE(passes());
    set(request(), "timestampMillis", milliseconds(now - 3601, 999));
    expect_refused("token expired");
    set(request(), "requestHash", "AAAA");
    expect_refused("invalid nonce (len)");
}

TEST_F(AndroidVerdict, ARequestHashBesideTheNonceWidensTheWindowToo)
{
    set(request(), "requestHash", "anything");
    set(request(), "timestampMillis", milliseconds(now - 3600));
    EXPECT_TRUE(passes());
    set(request(), "timestampMillis", milliseconds(now - 3601));
    expect_refused("token expired");
}

TEST_F(AndroidVerdict, AnEmptyRequestHashOrOneOfAnotherKindDoesNotWidenTheWindow)
{
    set(request(), "timestampMillis", milliseconds(now - 61));
    set(request(), "requestHash", "");
    expect_refused("token expired");
    set_json(request(), "requestHash", "5");
    expect_refused("token expired");
}

TEST_F(AndroidVerdict, ATimestampInTheFuturePasses)
{
    set(request(), "timestampMillis", milliseconds(now + 86400));
    EXPECT_TRUE(passes());
    set(request(), "timestampMillis", "18446744073709551615");
    EXPECT_TRUE(passes());
}

TEST_F(AndroidVerdict, LeadingZerosAreDigits)
{
    set(request(), "timestampMillis", "000" + milliseconds(now));
    EXPECT_TRUE(passes());
}

TEST_F(AndroidVerdict, ANonceMayBePaddedAndItsPaddingEscaped)
{
    for (const char *padding : {"=", "==", "\\u003d", "\\u003D\\u003d"}) {
        set(request(), "nonce", std::string{digest_text} + padding);
        EXPECT_TRUE(passes()) << padding;
    }
}

TEST_F(AndroidVerdict, TheNonceIsLoggedUnescaped)
{
    set(request(), "nonce", std::string{digest_text} + "\\u003d");
    EXPECT_TRUE(passes());
    EXPECT_TRUE(
        log.has(std::string{"TRACE velm_attestation_engine - android_interpret_verdict - nonce: "} +
                digest_text + "="));
}

TEST_F(AndroidVerdict, WhatFollowsThePaddingNeitherHelpsNorHarms)
{
    set(request(), "nonce", std::string{digest_text} + "=" + digest_text);
    EXPECT_TRUE(passes());
}

class UndecodableNonce : public AndroidVerdict, public testing::WithParamInterface<const char *> {};

TEST_P(UndecodableNonce, IsRefusedWithTheLibrarysOwnWords)
{
    set(request(), "nonce", GetParam());
    EXPECT_FALSE(passes());
    EXPECT_EQ(log.count("ERROR"), 2);
    EXPECT_TRUE(log.contains("ERROR velm_attestation_engine - android_interpret_verdict - "
                             "cjose_base64url_decode failed: invalid argument, file: "));
    EXPECT_TRUE(log.contains(", function: "));
    EXPECT_TRUE(log.contains(", line: "));
    EXPECT_TRUE(
        log.has("ERROR velm_attestation_engine - android_interpret_verdict - cannot decode nonce"));
}

INSTANTIATE_TEST_SUITE_P(Texts, UndecodableNonce,
                         testing::Values("+_-_", "/_-_", "\\u002b_-_", "\\u002F_-_", "A A", "A\nA",
                                         "\\", "\\u0041", "A=", "A=AA", "AAAAA=", "AAAAA===",
                                         "A\\u003dAA", "\xff\x80\xc3\xa9", "%3D"),
                         [](const auto &row) { return std::to_string(row.index); });

TEST_F(AndroidVerdict, TheLabelsMayComeInAnyOrderAmongOthers)
{
    set_labels(root(),
               R"([7,"MEETS_STRONG_INTEGRITY",null,"MEETS_WEAK_INTEGRITY",)"
               R"("MEETS_BASIC_INTEGRITY","MEETS_DEVICE_INTEGRITY","MEETS_BASIC_INTEGRITY"])");
    EXPECT_TRUE(passes());
}

TEST_F(AndroidVerdict, NoEnvironmentDetailsPass)
{
    drop(root(), "environmentDetails");
    EXPECT_TRUE(passes());
}

TEST_F(AndroidVerdict, EnvironmentDetailsThatAreNoObjectSayNothing)
{
    for (const char *value : {"null", "5", R"("HIGH_RISK")", R"(["HIGH_RISK"])"}) {
        set_json(root(), "environmentDetails", value);
        EXPECT_TRUE(passes()) << value;
    }
}

TEST_F(AndroidVerdict, AnAbsentOrEmptyPlayProtectVerdictPasses)
{
    set(environment(), "playProtectVerdict", "");
    EXPECT_TRUE(passes());
    drop(environment(), "playProtectVerdict");
    EXPECT_TRUE(passes());
}

TEST_F(AndroidVerdict, TheFirstOfDoubledMembersCounts)
{
    cJSON_AddStringToObject(request(), "requestPackageName", "com.example.other");
    cJSON_AddStringToObject(request(), "nonce", "AAAA");
    cJSON_AddStringToObject(request(), "timestampMillis", "0");
    cJSON_AddStringToObject(app(), "appRecognitionVerdict", "UNEVALUATED");
    cJSON_AddStringToObject(device(), "deviceRecognitionVerdict", "");
    EXPECT_TRUE(passes());
}

TEST_F(AndroidVerdict, NamesInAnotherCaseDoNotCount)
{
    drop(request(), "nonce");
    set(request(), "NONCE", digest_text);
    expect_refused("no nonce");
}

TEST_F(AndroidVerdict, ThatIsNoObjectIsRefused)
{
    for (const char *value :
         {"null", "true", "5", R"("text")", "[]", R"([{"requestDetails":{}}])"}) {
        verdict.reset(cJSON_Parse(value));
        expect_refused("no requestDetails");
    }
}

} // namespace
