// Before libevhtp, whose regular-expression header clashes with the system's.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "crypto/common_crypto.h"
#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "fakes/fake_nvram.h"
#include "fakes/paused_request.h"
#include "http_server/routes.h"
#include "request/input.h"
#include "velm_attestation_engine.h"
#include "velm_challenge_engine.h"
#include "velm_nvram_pairings.h"
#include "velm_request_preprocessor.h"

namespace {

/// What the stand-ins for the server and the two engines are told, and what they saw.
struct seen {
    std::vector<int> statuses; // answered without a body
    std::vector<std::string> bodies;
    std::set<std::string> pending_challenges;
    std::string attested_body; // the body whose digest the engine accepts
    int attestations = 0;
    std::string device_id;
    std::string attestation;
    int copies_until_failure = -1;
};
seen server;
velm_config config;

} // namespace

/// Stands in for libevent's function, which cannot fail on a buffer in memory.
extern "C" ev_ssize_t evbuffer_copyout(evbuffer *buffer, void *data, size_t length)
{
    if (server.copies_until_failure == 0) {
        return -1;
    }
    --server.copies_until_failure;
    static const auto real =
        reinterpret_cast<decltype(&evbuffer_copyout)>(dlsym(RTLD_NEXT, "evbuffer_copyout"));
    return real(buffer, data, length);
}

http_status http_server_status_from_break_code(int break_code)
{
    return static_cast<http_status>(1000 +
                                    break_code); // what the table says is not the matter here
}

void http_server_reply_status(evhtp_request_t *, http_status status)
{
    server.statuses.push_back(status);
}

void http_server_reply_json(evhtp_request_t *, const cJSON *object)
{
    server.bodies.emplace_back(json_text{cJSON_PrintUnformatted(object)}.get());
}

void http_server_reply_text(evhtp_request_t *, const char *text)
{
    server.bodies.emplace_back(text);
}

const velm_config *http_server_config()
{
    return &config;
}

int velm_challenge_engine_consume_challenge(const char *challenge)
{
    return static_cast<int>(server.pending_challenges.erase(challenge));
}

velm_attestation_result
velm_attestation_engine_ios_verify_attestation(const char *device_id,
                                               std::span<const std::uint8_t> attestation_object,
                                               std::span<const std::uint8_t> client_data_hash)
{
    ++server.attestations;
    server.device_id = device_id;
    server.attestation.assign(attestation_object.begin(), attestation_object.end());
    const auto expected = common_crypto_sha256(request_bytes(server.attested_body));
    if (!std::equal(client_data_hash.begin(), client_data_hash.end(), expected->begin())) {
        return {};
    }
    return {true, "new-key"};
}

namespace {

constexpr char attestation[] = "YXR0ZXN0YXRpb24="; // "attestation"
const paused_request::headers attested{{"X-Attestation", attestation}};
const paused_request::headers asserted{{"X-Assertion", "YXNz"}};

using members = std::map<std::string, std::string>; // name, JSON text

std::string object_of(const members &texts)
{
    std::string object;
    for (const auto &[name, json] : texts) {
        object += std::string{object.empty() ? "{" : ","} + "\"" + name + "\":" + json;
    }
    return object + "}";
}

std::string quoted(std::size_t length)
{
    return "\"" + std::string(length, 'x') + "\"";
}

std::string auth_of(const std::string &device_id)
{
    return object_of({{"deviceId", "\"" + device_id + "\""},
                      {"deviceType", R"("iOS 17")"},
                      {"bssid", R"("aa:bb:cc:dd:ee:ff")"},
                      {"username", R"("admin")"},
                      {"password", R"("secret")"},
                      {"challenge", R"("c0ffee")"}});
}

const members usual_pair{{"friendlyName", R"("Ann's phone")"},
                         {"pushToken", R"("token")"},
                         {"deviceModel", R"("iPhone15,2")"},
                         {"osVersion", R"("17.1")"}};

std::string pair_body(const members &pair = usual_pair, const std::string &device_id = "dev-1")
{
    return object_of({{"auth", auth_of(device_id)}, {"pair", object_of(pair)}});
}

members pair_with(const std::string &name, const std::string &json)
{
    members pair = usual_pair;
    pair[name] = json;
    return pair;
}

members pair_without(const std::string &name)
{
    members pair = usual_pair;
    pair.erase(name);
    return pair;
}

class Pairing : public testing::Test {
  protected:
    Pairing()
    {
        server = {};
        server.pending_challenges = {"c0ffee"};
        fake_nvram = {};
        config.pairings_limit = 3;
        velm_nvram_pairings_init(&config);
        fake_clock_set(1678282320); // 2023-03-08T13:32:00Z
    }
    ~Pairing() override
    {
        fake_clock_reset();
    }

    /// The status that /pair answers with.
    static int pair(const std::string &body, const paused_request::headers &headers = attested,
                    int break_code = 0)
    {
        server.attested_body = body;
        const paused_request request{body, headers, "/pair"};
        return answer(http_method_pair_handle, request, break_code);
    }

    static int unpair(const std::string &unpair_json)
    {
        const paused_request request{
            object_of({{"auth", auth_of("dev-1")}, {"unpair", unpair_json}}), {}, "/unpair"};
        return answer(http_method_unpair_handle, request, 0);
    }

    static std::string list()
    {
        server.bodies.clear();
        const paused_request request{"{}", {}, "/pairings"};
        http_method_pairings_handle(request.get(), 0);
        return server.bodies.size() == 1 ? server.bodies[0] : "";
    }

    static int answer(velm_request_callback handle, const paused_request &request, int break_code)
    {
        server.statuses.clear();
        handle(request.get(), break_code);
        return server.statuses.size() == 1 ? server.statuses[0] : -1;
    }

    static std::string stored(int slot, const std::string &member)
    {
        return fake_nvram.values["zelkad_pairing_" + std::to_string(slot) + "_" + member];
    }

    static void expect_nothing_written()
    {
        EXPECT_EQ(fake_nvram.writes, 0);
        EXPECT_EQ(fake_nvram.commits, 0);
    }

    /// A phone paired long ago.
    static void store_phone(const std::string &device_id)
    {
        fake_clock_set(1600000000);
        const json_ptr pairing = velm_nvram_pairings_create_empty_pairing();
        const std::pair<const char *, const char *> fields[] = {
            {"dev_id", device_id.c_str()}, {"dev_type", "iOS"},  {"name", "old name"},
            {"push_token", "old token"},   {"dev_model", "old"}, {"os_version", "1"},
            {"attestation_key", "old-key"}};
        for (const auto &[field, value] : fields) {
            velm_nvram_pairings_update_pairing_field(pairing.get(), field, value);
        }
        velm_nvram_pairings_insert_pairing(pairing.get());
        fake_clock_set(1678282320);
        fake_nvram.writes = 0;
    }

    captured_log log_;
};

// /pair

TEST_F(Pairing, ANewIosPhoneWithAnAttestationAndAFreshChallengeBecomesALiveSlot)
{
    EXPECT_EQ(pair(pair_body()), 200);
    const std::pair<const char *, const char *> expected[] = {
        {"status", "Valid"},           {"dev_id", "dev-1"},
        {"dev_type", "iOS 17"},        {"name", "Ann's phone"},
        {"push_token", "token"},       {"date_added", "2023-03-08T13:32:00Z"},
        {"dev_model", "iPhone15,2"},   {"os_version", "17.1"},
        {"attestation_key", "new-key"}};
    for (const auto &[member, value] : expected) {
        EXPECT_EQ(stored(0, member), value) << member;
    }
    EXPECT_EQ(fake_nvram.commits, 1);
    EXPECT_EQ(server.device_id, "dev-1");
    EXPECT_EQ(server.attestation, "attestation");
    EXPECT_TRUE(log_.has("TRACE velm_http_server - verify_attestation - success"));
    EXPECT_TRUE(log_.has("TRACE velm_http_server - http_method_pair_handle - start"));
    EXPECT_TRUE(log_.has("TRACE velm_http_server - http_method_pair_handle - done"));
}

TEST_F(Pairing, RepeatingTheSamePairingRequestGives424SinceItsChallengeIsUsed)
{
    EXPECT_EQ(pair(pair_body()), 200);
    EXPECT_EQ(pair(pair_body()), 424);
    EXPECT_TRUE(log_.has("ERROR velm_http_server - verify_attestation - failure (challenge)"));
    EXPECT_EQ(fake_nvram.commits, 1);
}

TEST_F(Pairing, BothHeadersAtOnceGive424SinceTheAssertionUsedTheChallenge)
{
    (void)velm_challenge_engine_consume_challenge("c0ffee"); // as the assertion check did
    EXPECT_EQ(pair(pair_body(), {{"X-Assertion", "YXNz"}, {"X-Attestation", attestation}}), 424);
    expect_nothing_written();
}

TEST_F(Pairing, AFailedAttestationGives412AndLeavesTheChallenge)
{
    const std::string body = pair_body();
    const paused_request request{body, attested};
    server.attested_body = "another";
    EXPECT_EQ(answer(http_method_pair_handle, request, 0), 412);
    EXPECT_TRUE(log_.has("ERROR velm_http_server - verify_attestation - failure (attestation)"));
    EXPECT_TRUE(server.pending_challenges.contains("c0ffee"));
    expect_nothing_written();
}

TEST_F(Pairing, AnAttestationThatIsNoBase64Gives400)
{
    EXPECT_EQ(pair(pair_body(), {{"X-Attestation", "no base64!"}}), 400);
    EXPECT_EQ(server.attestations, 0);
    expect_nothing_written();
}

TEST_F(Pairing, TakesAnAttestationHeaderOfAtMost16384Bytes)
{
    // Base64 comes in fours: 16388 is the next length that could be decoded.
    const std::pair<std::size_t, int> lengths[] = {
        {0, 400}, {4, 200}, {16384, 200}, {16388, 400}, {16385, 400}};
    for (const auto &[length, status] : lengths) {
        server = {};
        server.pending_challenges = {"c0ffee"};
        server.attested_body = pair_body();
        paused_request request{pair_body()};
        request.add_header("X-Attestation", std::string(length, 'A'));
        EXPECT_EQ(answer(http_method_pair_handle, request, 0), status) << length;
        EXPECT_EQ(server.attestations, status == 200 ? 1 : 0) << length;
    }
}

struct auth_case {
    const char *name;
    std::size_t limit;
};

class AttestedAuth : public Pairing, public testing::WithParamInterface<auth_case> {
  protected:
    static int pair_with_auth(const std::string &json)
    {
        members auth{
            {"deviceId", R"("dev-1")"}, {"deviceType", R"("iOS")"}, {"challenge", R"("c0ffee")"}};
        auth[GetParam().name] = json;
        if (json.empty()) {
            auth.erase(GetParam().name);
        }
        server.pending_challenges.insert(std::string(GetParam().limit, 'x'));
        return pair(object_of({{"auth", object_of(auth)}, {"pair", object_of(usual_pair)}}));
    }
};

TEST_P(AttestedAuth, MustBePresentNotEmptyAndWithinItsLimit)
{
    EXPECT_EQ(pair_with_auth(""), 400);
    EXPECT_EQ(pair_with_auth("\"\""), 400);
    EXPECT_EQ(pair_with_auth("7"), 400);
    EXPECT_EQ(pair_with_auth(quoted(GetParam().limit + 1)), 400);
    expect_nothing_written();
    EXPECT_EQ(pair_with_auth(quoted(GetParam().limit)), 200);
}

INSTANTIATE_TEST_SUITE_P(Members, AttestedAuth,
                         testing::Values(auth_case{"deviceId", 1024}, auth_case{"challenge", 1024}),
                         [](const auto &row) { return std::string{row.param.name}; });

TEST_F(Pairing, ThatTheStoreDoesNotKeepGives500AndLeavesTheSlotFree)
{
    fake_nvram.lost_write = 3;
    EXPECT_EQ(pair(pair_body()), 500);
    EXPECT_EQ(stored(0, "status"), "Invalid");
    EXPECT_EQ(stored(0, "dev_id"), "");
    EXPECT_TRUE(log_.has("ERROR velm_http_server - http_method_pair_handle - not stored: dev-1"));
}

TEST_F(Pairing, ASlotThatIsLiveWithoutADeviceIsNotListed)
{
    store_phone("dev-1");
    fake_nvram.values["zelkad_pairing_1_status"] = "Valid";
    EXPECT_EQ(list(), R"({"pairings":[)"
                      R"({"deviceId":"dev-1","friendlyName":"old name","deviceType":"iOS",)"
                      R"("pairingDate":"2020-09-13T12:26:40Z"}]})");
}

TEST_F(Pairing, AgainWithAnAssertionKeepsSlotDateAndKeyAndReplacesTheRest)
{
    store_phone("other");
    store_phone("dev-1");
    EXPECT_EQ(pair(pair_body(), asserted), 200);
    const std::pair<const char *, const char *> expected[] = {
        {"status", "Valid"},           {"dev_id", "dev-1"},
        {"dev_type", "iOS 17"},        {"name", "Ann's phone"},
        {"push_token", "token"},       {"date_added", "2020-09-13T12:26:40Z"},
        {"dev_model", "iPhone15,2"},   {"os_version", "17.1"},
        {"attestation_key", "old-key"}};
    for (const auto &[member, value] : expected) {
        EXPECT_EQ(stored(1, member), value) << member;
    }
    EXPECT_EQ(stored(0, "name"), "old name");
    EXPECT_EQ(server.attestations, 0);
    EXPECT_TRUE(server.pending_challenges.contains("c0ffee"));
    EXPECT_EQ(fake_nvram.commits, 1);
}

TEST_F(Pairing, AgainWithAnAttestationReplacesTheKeyAndKeepsTheDate)
{
    store_phone("dev-1");
    EXPECT_EQ(pair(pair_body()), 200);
    EXPECT_EQ(stored(0, "attestation_key"), "new-key");
    EXPECT_EQ(stored(0, "date_added"), "2020-09-13T12:26:40Z");
}

TEST_F(Pairing, ANewPhoneWithAnAssertionKeepsAnEmptyKey)
{
    EXPECT_EQ(pair(pair_body(), asserted), 200);
    EXPECT_EQ(stored(0, "status"), "Valid");
    EXPECT_EQ(stored(0, "attestation_key"), "");
}

TEST_F(Pairing, AtTheLimitANewDeviceGets403WhileAPairedOneCanPairAgain)
{
    config.pairings_limit = 2;
    store_phone("dev-1");
    store_phone("dev-2");
    EXPECT_EQ(pair(pair_body(usual_pair, "dev-3"), asserted), 403);
    EXPECT_TRUE(log_.has("ERROR velm_http_server - http_method_pair_handle - "
                         "pairings limit reached"));
    expect_nothing_written();
    EXPECT_EQ(pair(pair_body(usual_pair, "dev-2"), asserted), 200);
    EXPECT_EQ(stored(1, "name"), "Ann's phone");
}

TEST_F(Pairing, BelowTheLimitANewDeviceIsTaken)
{
    config.pairings_limit = 2;
    store_phone("dev-1");
    EXPECT_EQ(pair(pair_body(usual_pair, "dev-2"), asserted), 200);
    EXPECT_EQ(stored(1, "dev_id"), "dev-2");
}

TEST_F(Pairing, TheLimitIsLookedAtBeforeTheMembersOfPair)
{
    config.pairings_limit = 0;
    EXPECT_EQ(pair(pair_body({{"x", "1"}}), asserted), 403);
}

TEST_F(Pairing, WithoutPairDataGives400)
{
    EXPECT_EQ(pair(object_of({{"auth", auth_of("dev-1")}}), asserted), 400);
    EXPECT_TRUE(log_.has("ERROR velm_http_server - http_method_pair_handle - no pair data"));
    expect_nothing_written();
}

TEST_F(Pairing, WithPairDataThatIsNoObjectGives400)
{
    for (const char *json : {"[]", "\"x\"", "null", "1"}) {
        log_.clear();
        EXPECT_EQ(pair(object_of({{"auth", auth_of("dev-1")}, {"pair", json}}), asserted), 400);
        EXPECT_TRUE(
            log_.has("ERROR velm_http_server - http_method_pair_handle - invalid pair data"));
    }
    expect_nothing_written();
}

struct pair_case {
    const char *name;
    std::size_t limit;
    bool required;
    const char *error;
    const char *stored_as;
};

class PairMember : public Pairing, public testing::WithParamInterface<pair_case> {
  protected:
    int refused_status(const members &pair_data)
    {
        log_.clear();
        const int status = pair(pair_body(pair_data), asserted);
        EXPECT_TRUE(log_.has(std::string{"ERROR velm_http_server - http_method_pair_handle - "} +
                             GetParam().error));
        expect_nothing_written();
        return status;
    }
};

TEST_P(PairMember, OfTheGreatestLengthIsStored)
{
    EXPECT_EQ(pair(pair_body(pair_with(GetParam().name, quoted(GetParam().limit))), asserted), 200);
    EXPECT_EQ(stored(0, GetParam().stored_as), std::string(GetParam().limit, 'x'));
}

TEST_P(PairMember, OneByteLongerGives400)
{
    EXPECT_EQ(refused_status(pair_with(GetParam().name, quoted(GetParam().limit + 1))), 400);
}

TEST_P(PairMember, MissingOrEmptyOrOfAnotherKindGives400WhenRequiredAndIsElseStoredAsEmpty)
{
    for (const members &pair_data :
         {pair_without(GetParam().name), pair_with(GetParam().name, "\"\""),
          pair_with(GetParam().name, "7"), pair_with(GetParam().name, "null"),
          pair_with(GetParam().name, "[]")}) {
        if (GetParam().required) {
            EXPECT_EQ(refused_status(pair_data), 400);
            continue;
        }
        EXPECT_EQ(pair(pair_body(pair_data), asserted), 200);
        EXPECT_EQ(stored(0, GetParam().stored_as), "");
        EXPECT_EQ(fake_nvram.values.count(std::string{"zelkad_pairing_0_"} + GetParam().stored_as),
                  1U);
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, PairMember,
    testing::Values(pair_case{"friendlyName", 1024, true, "no friendly name", "name"},
                    pair_case{"pushToken", 2048, true, "no push token", "push_token"},
                    pair_case{"deviceModel", 64, false, "invalid device model", "dev_model"},
                    pair_case{"osVersion", 64, false, "invalid os version", "os_version"}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(Pairing, ReportsTheFirstWrongMemberInTheirOrder)
{
    members wrong;
    const std::pair<const char *, const char *> in_order[] = {
        {"friendlyName", "no friendly name"},
        {"pushToken", "no push token"},
        {"deviceModel", "invalid device model"},
        {"osVersion", "invalid os version"}};
    for (const auto &[name, error] : in_order) {
        wrong[name] = quoted(2049);
    }
    for (const auto &[name, error] : in_order) {
        log_.clear();
        EXPECT_EQ(pair(pair_body(wrong), asserted), 400);
        EXPECT_EQ(log_.count("ERROR velm_http_server"), 1);
        EXPECT_TRUE(log_.contains(error));
        wrong[name] = R"("good")";
    }
    EXPECT_EQ(pair(pair_body(wrong), asserted), 200);
}

TEST_F(Pairing, AnAttestationThatCannotBeStoredStillUsesTheChallengeUp)
{
    EXPECT_EQ(pair(object_of({{"auth", auth_of("dev-1")}})), 400);
    EXPECT_TRUE(server.pending_challenges.empty());
    expect_nothing_written();
}

TEST_F(Pairing, ABodyThatCannotBeReadIsAnsweredAsTheParserSays)
{
    EXPECT_EQ(pair("{}", asserted), 400);
    server.copies_until_failure = 0;
    EXPECT_EQ(pair(pair_body(), asserted), 500);
    expect_nothing_written();
}

TEST_F(Pairing, ABodyThatCannotBeCopiedForItsDigestEndsTheProcess)
{
    server.copies_until_failure = 1;
    EXPECT_DEATH(pair(pair_body()), "verify_attestation: call failed: evbuffer_copyout.* "
                                    "result: -1 loc: src/request/input.cpp:");
}

// /pairings

TEST_F(Pairing, WithNoLivePairingsTheListIsEmpty)
{
    EXPECT_EQ(list(), R"({"pairings":[]})");
    EXPECT_TRUE(log_.has("TRACE velm_http_server - http_method_pairings_handle - start"));
    EXPECT_TRUE(log_.has("TRACE velm_http_server - http_method_pairings_handle - done"));
}

TEST_F(Pairing, TheListTellsFourMembersOfEveryLivePairingAndNothingElse)
{
    store_phone("dev-1");
    EXPECT_EQ(pair(pair_body(usual_pair, "dev-2"), asserted), 200);
    EXPECT_EQ(list(), R"({"pairings":[)"
                      R"({"deviceId":"dev-1","friendlyName":"old name","deviceType":"iOS",)"
                      R"("pairingDate":"2020-09-13T12:26:40Z"},)"
                      R"({"deviceId":"dev-2","friendlyName":"Ann's phone","deviceType":"iOS 17",)"
                      R"("pairingDate":"2023-03-08T13:32:00Z"}]})");
}

TEST_F(Pairing, TheListEndsAtTheLimit)
{
    store_phone("dev-1");
    store_phone("dev-2");
    config.pairings_limit = 1;
    EXPECT_TRUE(list().find("dev-1") != std::string::npos);
    EXPECT_TRUE(list().find("dev-2") == std::string::npos);
}

// /unpair

TEST_F(Pairing, AnUnpairedDeviceIsNoLongerListed)
{
    store_phone("dev-1");
    store_phone("dev-2");
    EXPECT_EQ(unpair(R"({"deviceId":"dev-2"})"), 200);
    EXPECT_TRUE(log_.has("TRACE velm_http_server - http_method_unpair_handle - dev-2"));
    EXPECT_EQ(fake_nvram.commits, 1);
    EXPECT_TRUE(list().find("dev-1") != std::string::npos);
    EXPECT_TRUE(list().find("dev-2") == std::string::npos);
}

TEST_F(Pairing, UnpairingAnUnknownDeviceGives404)
{
    store_phone("dev-1");
    EXPECT_EQ(unpair(R"({"deviceId":"dev-9"})"), 404);
    EXPECT_TRUE(log_.has("ERROR velm_http_server - http_method_unpair_handle - "
                         "no pairing: dev-9"));
    expect_nothing_written();
}

TEST_F(Pairing, UnpairingTwiceGives404TheSecondTime)
{
    store_phone("dev-2");
    EXPECT_EQ(unpair(R"({"deviceId":"dev-2"})"), 200);
    EXPECT_EQ(unpair(R"({"deviceId":"dev-2"})"), 404);
}

TEST_F(Pairing, UnpairTakesTheDeviceFromUnpairAndNotFromAuth)
{
    store_phone("dev-1"); // the caller's own
    store_phone("dev-2");
    EXPECT_EQ(unpair(R"({"deviceId":"dev-2"})"), 200);
    EXPECT_EQ(stored(0, "status"), "Valid");
    EXPECT_EQ(stored(1, "status"), "Invalid");
}

TEST_F(Pairing, WithoutUnpairDataGives400)
{
    const paused_request request{object_of({{"auth", auth_of("dev-1")}}), {}, "/unpair"};
    EXPECT_EQ(answer(http_method_unpair_handle, request, 0), 400);
    EXPECT_TRUE(log_.has("ERROR velm_http_server - http_method_unpair_handle - no unpair data"));
}

TEST_F(Pairing, WithUnpairDataThatIsNoObjectGives400)
{
    EXPECT_EQ(unpair("\"dev-1\""), 400);
    EXPECT_TRUE(
        log_.has("ERROR velm_http_server - http_method_unpair_handle - invalid unpair data"));
}

TEST_F(Pairing, UnpairWithoutADeviceIdGives400)
{
    // A deleted slot bears the empty id: it must not be found.
    store_phone("dev-1");
    EXPECT_EQ(unpair(R"({"deviceId":"dev-1"})"), 200);
    for (const char *json : {"{}", R"({"deviceId":""})", R"({"deviceId":1})"}) {
        log_.clear();
        EXPECT_EQ(unpair(json), 400);
        EXPECT_TRUE(log_.has("ERROR velm_http_server - http_method_unpair_handle - no deviceId"));
    }
    EXPECT_EQ(fake_nvram.commits, 1);
}

TEST_F(Pairing, AnUnpairBodyThatCannotBeReadIsAnsweredAsTheParserSays)
{
    const paused_request request{"{}", {}, "/unpair"};
    EXPECT_EQ(answer(http_method_unpair_handle, request, 0), 400);
}

// All three

constexpr velm_request_callback handlers[] = {http_method_pair_handle, http_method_pairings_handle,
                                              http_method_unpair_handle};

TEST_F(Pairing, AFailedCheckIsAnsweredWithItsStatusAndStoresNothing)
{
    const std::string body = object_of({{"auth", auth_of("dev-1")},
                                        {"pair", object_of(usual_pair)},
                                        {"unpair", R"({"deviceId":"dev-1"})"}});
    store_phone("dev-1");
    for (const velm_request_callback handle : handlers) {
        for (const int code : {1, 2, 3, 4, 5, 6, 7}) {
            const paused_request request{body, attested};
            EXPECT_EQ(answer(handle, request, code), 1000 + code);
        }
    }
    EXPECT_TRUE(server.bodies.empty());
    EXPECT_EQ(server.attestations, 0);
    expect_nothing_written();
}

TEST_F(Pairing, WithoutARequestEndsTheProcess)
{
    EXPECT_DEATH(http_method_pair_handle(nullptr, 0),
                 "http_method_pair_handle: req is null: null reference");
    EXPECT_DEATH(http_method_pairings_handle(nullptr, 0),
                 "http_method_pairings_handle: req is null: null reference");
    EXPECT_DEATH(http_method_unpair_handle(nullptr, 0),
                 "http_method_unpair_handle: req is null: null reference");
}

} // namespace
