// First: libevhtp's headers rename what the system's regex.h declares.
#include <gtest/gtest.h>

#include "velm_http_server.h"

#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "async/common_async.h"
#include "fakes/captured_log.h"
#include "fakes/https_client.h"
#include "handles/evhtp.h"
#include "http_server/connections.h"
#include "http_server/refusals.h"
#include "http_server/routes.h"
#include "logger/common_logger.h"
#include "request/paths.h"
#include "velm_challenge_engine.h"
#include "velm_request_preprocessor.h"

using std::string;
using namespace std::chrono_literals;

// The modules that the server hands its requests to.

struct velm_request_preprocessor {
    velm_request_checks checks;
    evhtp_request_t *request = nullptr;
    velm_request_callback callback = nullptr;
    velm_request_kept_body body;
};

namespace {

struct stand_in_state {
    std::deque<velm_request_preprocessor> preprocessors; // in the order of creation
    bool finish = true;                                  // else requests stay paused
    int break_code = 0;
    int bodies_parsed = 0;
    string served_by; // the other files' result callback that ran last
    const char *challenge = "00112233445566778899aabbccddeeff";
    string address = "127.0.0.1";
};
stand_in_state stand_in;

void finish(void *preprocessor, short, common_async_context *)
{
    const auto *const done = static_cast<const velm_request_preprocessor *>(preprocessor);
    const velm_request_body_offer offer{done->request, done->body};
    done->callback(done->request, stand_in.break_code);
}

void serve_by(const char *name, evhtp_request_t *request, int break_code)
{
    stand_in.served_by = name;
    http_server_reply_status(request, http_server_status_from_break_code(break_code));
}

} // namespace

velm_request_preprocessor *velm_request_preprocessor_create(const velm_request_checks &checks)
{
    return &stand_in.preprocessors.emplace_back(
        velm_request_preprocessor{checks, nullptr, nullptr, {}});
}

void velm_request_preprocessor_attach_request(velm_request_preprocessor *preprocessor,
                                              evhtp_request_t *request)
{
    EXPECT_NE(request->conn->flags & EVHTP_CONN_FLAG_PAUSED, 0) << "attached before the pause";
    preprocessor->request = request;
}

void velm_request_preprocessor_set_callback(velm_request_preprocessor *preprocessor,
                                            velm_request_callback callback)
{
    preprocessor->callback = callback;
}

void velm_request_preprocessor_attach_body(velm_request_preprocessor *preprocessor,
                                           velm_request_kept_body body)
{
    preprocessor->body = std::move(body);
}

void velm_request_preprocessor_start(velm_request_preprocessor *preprocessor)
{
    if (stand_in.finish) {
        common_async_action_call(finish, preprocessor);
    }
}

velm_request_body velm_request_parse_request_body(evhtp_request_t *req)
{
    ++stand_in.bodies_parsed;
    const std::size_t size = evbuffer_get_length(req->buffer_in);
    string text(size, '\0');
    evbuffer_copyout(req->buffer_in, text.data(), size);
    if (text == "unreadable") {
        return {nullptr, 500};
    }
    json_ptr body{cJSON_Parse(text.c_str())};
    const int status = body == nullptr ? 400 : 200;
    return {std::move(body), status};
}

const char *velm_challenge_engine_generate_challenge()
{
    return stand_in.challenge;
}

void http_method_pair_handle(evhtp_request_t *request, int break_code)
{
    serve_by("pair", request, break_code);
}
void http_method_pairings_handle(evhtp_request_t *request, int break_code)
{
    serve_by("pairings", request, break_code);
}
void http_method_unpair_handle(evhtp_request_t *request, int break_code)
{
    serve_by("unpair", request, break_code);
}
void http_method_location_handle(evhtp_request_t *request, int break_code)
{
    serve_by("location", request, break_code);
}

string velm_config_lan_ip_address(const velm_config *)
{
    return stand_in.address;
}

namespace {

string request_to(const string &path, const string &headers = "", const string &body = "{}")
{
    return "POST " + path + " HTTP/1.1\r\nHost: ap\r\n" + headers +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

constexpr char get_info[] = "GET /info HTTP/1.1\r\nHost: ap\r\n\r\n";

class HttpServer : public testing::Test {
  protected:
    HttpServer()
    {
        stand_in = {};
        config.http_server_port = free_port();
        velm_config_text(config.http_server_cert_path, identity.cert_path);
        velm_config_text(config.http_server_key_path, identity.key_path);
        velm_config_text(config.serial_number, "SN\"1");
        velm_config_text(config.vendor_id, "acme");
        config.pairings_limit = 5;
        common_async_set_event_base(loop);
        common_async_init();
        velm_http_server_set_event_base(loop);
        velm_http_server_init(&config);
    }
    ~HttpServer() override
    {
        velm_http_server_stop();
    }

    template <std::size_t Size>
    static void velm_config_text(char (&field)[Size], const string &text)
    {
        std::strncpy(field, text.c_str(), Size - 1);
    }

    void start()
    {
        velm_http_server_start();
        ASSERT_TRUE(turn_until(
            loop, [this] { return log.has("TRACE velm_http_server - http_server_start - end"); }));
    }
    std::unique_ptr<https_client> client() const
    {
        return std::make_unique<https_client>(loop, config.http_server_port);
    }
    std::unique_ptr<https_client> connected() const
    {
        auto made = client();
        EXPECT_TRUE(made->handshake());
        return made;
    }
    http_reply ask(const string &request)
    {
        return connected()->ask(request);
    }
    bool pauses(std::size_t count)
    {
        return turn_until(loop, [count] { return stand_in.preprocessors.size() == count; });
    }
    bool listens() const
    {
        const unique_fd fd{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(config.http_server_port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    }

    /// Where another server listens than the one that a start would stop.
    void start_at_a_port_in_use()
    {
        const evhtp_ptr other{evhtp_new(loop, nullptr)};
        config.http_server_port = free_port();
        evhtp_bind_socket(other.get(), "127.0.0.1", config.http_server_port, 1);
        http_server_start();
    }

    static inline event_base *const loop = event_base_new();
    static inline tls_identity identity;
    captured_log log;
    velm_config config{};
};

// Routes

TEST_F(HttpServer, InfoAnswersItsFiveKeysWithoutBodyAndCredentials)
{
    start();
    const http_reply reply = ask(get_info);
    EXPECT_EQ(reply.status, 200);
    EXPECT_NE(reply.head.find("Content-Type: application/json\r\n"), string::npos);
    EXPECT_EQ(reply.body, R"({"serialNumber":"SN\"1","vendorId":"acme","version":"1.2.0",)"
                          R"("bssids":[],"pairingsLimit":5})");
    EXPECT_EQ(stand_in.bodies_parsed, 0);
}

TEST_F(HttpServer, InfoNamesTheConfiguredBssids)
{
    config.bssids_list.reset(cJSON_Parse(R"(["00:11:22:33:44:55","66:77:88:99:aa:bb"])"));
    start();
    EXPECT_NE(ask(get_info).body.find(R"("bssids":["00:11:22:33:44:55","66:77:88:99:aa:bb"],)"),
              string::npos);
}

TEST_F(HttpServer, InfoTellsTheNewConfigurationAfterAReload)
{
    start();
    const auto peer = connected();
    EXPECT_NE(peer->ask(get_info).body.find("\"pairingsLimit\":5"), string::npos);
    config.pairings_limit = 6;
    velm_http_server_init(&config);
    EXPECT_NE(peer->ask(get_info).body.find("\"pairingsLimit\":6"), string::npos);
}

struct route_case {
    const char *name, *path, *headers, *served_by;
    velm_request_checks checks;
};
class Route : public HttpServer, public testing::WithParamInterface<route_case> {};
TEST_P(Route, AsksForItsChecksAndIsServedByItsOwnHandler)
{
    start();
    EXPECT_EQ(ask(request_to(GetParam().path, GetParam().headers)).status, 200);
    ASSERT_EQ(stand_in.preprocessors.size(), 1U);
    const velm_request_checks &checks = stand_in.preprocessors[0].checks;
    EXPECT_EQ(checks.request, GetParam().checks.request);
    EXPECT_EQ(checks.assertion, GetParam().checks.assertion);
    EXPECT_EQ(checks.user_pass, GetParam().checks.user_pass);
    EXPECT_EQ(checks.paired_app, GetParam().checks.paired_app);
    EXPECT_EQ(checks.device, GetParam().checks.device);
    EXPECT_EQ(stand_in.served_by, GetParam().served_by);
}
// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Table, Route,
    testing::Values( //                                                                           request assertion user/pass paired device
        route_case{"Info",            "/info",      "",                                      "",         {false, false, false, false, false}},
        route_case{"Challenge",       "/challenge", "",                                      "",         {true,  false, true,  false, false}},
        route_case{"PairAssertion",   "/pair",      "X-Assertion: a\r\n",                    "pair",     {true,  true,  true,  false, false}},
        route_case{"PairAttestation", "/pair",      "X-Attestation: a\r\n",                  "pair",     {true,  false, true,  false, false}},
        route_case{"PairBoth",        "/pair",      "x-attestation: a\r\nx-assertion: a\r\n", "pair",    {true,  true,  true,  false, false}},
        route_case{"Pairings",        "/pairings",  "",                                      "pairings", {true,  false, true,  false, false}},
        route_case{"Unpair",          "/unpair",    "",                                      "unpair",   {true,  false, true,  false, false}},
        route_case{"Location",        "/location",  "",                                      "location", {true,  true,  true,  true,  true}}),
    [](const auto &row) { return string{row.param.name}; });
// clang-format on

TEST_F(HttpServer, RequestsThatComeTogetherAreAnsweredOneALoopTurn)
{
    start();
    const auto peer = connected();
    string many;
    for (int i = 0; i < 800; ++i) {
        many += "GET /pair HTTP/1.1\r\n\r\n";
    }
    peer->send(many);
    const auto answered = [] { return stand_in.bodies_parsed; };
    for (int before = answered(); before < 800; before = answered()) {
        event_base_loop(loop, EVLOOP_ONCE);
        ASSERT_LE(answered() - before, 2);
    }
    for (int i = 0; i < 800; ++i) {
        ASSERT_EQ(peer->receive().status, 400) << i;
    }
}

TEST_F(HttpServer, RequestsThatComeTogetherAreAllAnsweredThoughTheClientHasEnded)
{
    start();
    const auto peer = connected();
    peer->send("GET /x HTTP/1.1\r\n\r\nGET /info HTTP/1.1\r\n\r\nGET /x HTTP/1.1\r\n\r\n");
    SSL_shutdown(peer->tls());
    shutdown(peer->fd(), SHUT_WR);
    for (const int status : {404, 200, 404}) {
        EXPECT_EQ(peer->receive().status, status);
    }
}

class OtherPath : public HttpServer, public testing::WithParamInterface<const char *> {};
TEST_P(OtherPath, IsNotFound)
{
    start();
    const http_reply reply = ask(request_to(GetParam(), "X-Assertion: a\r\n"));
    EXPECT_EQ(reply.status, 404);
    EXPECT_EQ(reply.body, "");
    EXPECT_TRUE(log.has("WARN velm_http_server - http_method_default - unknown path"));
    EXPECT_TRUE(stand_in.preprocessors.empty());
}
INSTANTIATE_TEST_SUITE_P(Paths, OtherPath,
                         testing::Values("/pairingsX", "/pai", "/", "/pair/", "/pairings/",
                                         "/pairX", "/pair/pairings", "/infoX", "/info/x", "/info/",
                                         "/slowly/../info", "//info", "/Info", "/%69nfo",
                                         "/challengeX", "/unpair/x", "/location/../pair",
                                         "/locationlocation", "http://ap"));

TEST_F(HttpServer, UnknownPathsAreAllAnsweredAndTheirLinesAreLimited)
{
    start();
    const auto peer = connected();
    constexpr int limit = http_refusals_of_address;
    for (int i = 0; i < limit + 20; ++i) {
        ASSERT_EQ(peer->ask(request_to("/nowhere")).status, 404) << i;
    }
    EXPECT_EQ(log.count("WARN velm_http_server - http_method_default - unknown path"), limit);
}

TEST_F(HttpServer, TheQueryIsNoPartOfThePath)
{
    start();
    EXPECT_EQ(ask("GET /info?a=/infoX&b#c HTTP/1.1\r\nHost: ap\r\n\r\n").status, 200);
    EXPECT_EQ(ask(request_to("/pairings?x=1")).status, 200);
    for (const char *const query : {"?", "?a", "?=", "?&", "?a=%zz", "?%zz", "?a=%4", "??", "?a;b",
                                    "?#", "?%", "?a=%", "?%z", "?a=%4z", "?%4z", "?%4z&b"}) {
        EXPECT_EQ(ask(request_to(string{"/pairings"} + query)).status, 200) << query;
    }
}

TEST_F(HttpServer, EveryReplyTellsItsLength)
{
    start();
    const http_reply multipart = ask(request_to("/info", "Content-Type: multipart\r\n"));
    EXPECT_EQ(multipart.status, 200);
    EXPECT_NE(multipart.body, "");
    for (const char *const version : {"1.0", "1.1", "1.2"}) {
        const http_reply reply = ask("GET /nowhere HTTP/" + string{version} +
                                     "\r\nHost: ap\r\nConnection: keep-alive\r\n\r\n");
        EXPECT_EQ(reply.status, 404);
        EXPECT_NE(reply.head.find("Content-Length: 0\r\n"), string::npos) << version;
    }
}

TEST_F(HttpServer, TheMethodIsNotLookedAt)
{
    start();
    for (const char *const method : {"GET", "POST", "PUT", "DELETE", "OPTIONS"}) {
        EXPECT_EQ(ask(method + string{" /info HTTP/1.1\r\nHost: ap\r\n\r\n"}).status, 200)
            << method;
    }
}

TEST_F(HttpServer, HeadIsAnsweredAlikeButWithoutABody)
{
    start();
    const http_reply whole = ask("GET /info HTTP/1.1\r\nHost: ap\r\n\r\n");
    https_client peer{loop, config.http_server_port};
    ASSERT_TRUE(peer.handshake());
    peer.send("HEAD /info HTTP/1.1\r\nHost: ap\r\n\r\nGET /nowhere HTTP/1.1\r\nHost: ap\r\n"
              "Connection: close\r\n\r\n");
    EXPECT_TRUE(peer.is_closed());
    EXPECT_TRUE(peer.unread().starts_with("HTTP/1.1 200 OK\r\n"));
    EXPECT_NE(peer.unread().find("Content-Length: " + std::to_string(whole.body.size()) + "\r\n"),
              string::npos);
    EXPECT_NE(peer.unread().find("\r\n\r\nHTTP/1.1 404 Not Found\r\n"), string::npos);
}

TEST_F(HttpServer, PairWithoutAssertionAndAttestationIsRefusedBeforeAnyCheck)
{
    start();
    const http_reply reply = ask(request_to("/pair"));
    EXPECT_EQ(reply.status, 400);
    EXPECT_EQ(reply.body, "");
    EXPECT_TRUE(log.has("ERROR velm_http_server - http_method_pair - no attestation data"));
    EXPECT_TRUE(stand_in.preprocessors.empty());
}

TEST_F(HttpServer, APairWhoseBodyIsBadIsRefusedBeforeItsHeadersAreLookedAt)
{
    start();
    EXPECT_EQ(ask(request_to("/pair", "", "unreadable")).status, 500);
    EXPECT_FALSE(log.contains("no attestation data"));
}

TEST_F(HttpServer, AnEmptyOrUnreadableBodyEndsEveryRouteButInfoBeforeAnyCheck)
{
    start();
    for (const request_path_row &row : request_paths) {
        if (row.path == string{"/info"}) {
            continue;
        }
        const string headers = "X-Assertion: a\r\n";
        EXPECT_EQ(ask(request_to(row.path, headers, "")).status, 400) << row.path;
        EXPECT_EQ(ask(request_to(row.path, headers, "unreadable")).status, 500) << row.path;
    }
    EXPECT_TRUE(stand_in.preprocessors.empty());
}

TEST_F(HttpServer, EachStepOfARouteIsLogged)
{
    start();
    log.clear();
    EXPECT_EQ(ask(request_to("/challenge")).status, 200);
    std::vector<string> lines = log.lines();
    char start_line[100];
    std::snprintf(start_line, sizeof start_line,
                  "TRACE velm_http_server - http_method_challenge [%p] - auth start",
                  static_cast<void *>(&stand_in.preprocessors.at(0)));
    const std::vector<string> expected = {
        "TRACE velm_http_server - http_method_challenge - start", start_line,
        "TRACE velm_http_server - http_method_challenge_handle - start",
        "TRACE velm_http_server - http_method_challenge_handle - done"};
    lines.resize(expected.size());
    EXPECT_EQ(lines, expected);
}

// Results

struct break_case {
    int code, status;
    const char *phrase;
};
class BreakCode : public HttpServer, public testing::WithParamInterface<break_case> {
  protected:
    static string status_line()
    {
        return "HTTP/1.1 " + std::to_string(GetParam().status) + ' ' + GetParam().phrase;
    }
};
TEST_P(BreakCode, BecomesItsStatusWithoutABody)
{
    EXPECT_EQ(http_server_status_from_break_code(GetParam().code), GetParam().status);
    start();
    stand_in.break_code = GetParam().code;
    for (const char *const path : {"/info", "/challenge"}) {
        const http_reply reply = ask(request_to(path));
        EXPECT_EQ(reply.head.substr(0, reply.head.find("\r\n")), status_line()) << path;
        EXPECT_EQ(reply.body.empty(), GetParam().code != 0) << path;
    }
}
TEST_P(BreakCode, HasItsRegisteredPhraseInOneRecordBehindTheLeaveToSendTheBodyToo)
{
    start();
    stand_in.break_code = GetParam().code;
    const auto peer = connected();
    peer->send("POST /challenge HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\n{}");
    EXPECT_EQ(peer->receive().head, "HTTP/1.1 100 Continue\r\n\r\n");
    const http_reply reply = peer->receive();
    EXPECT_EQ(reply.head.substr(0, reply.head.find("\r\n")), status_line());
    EXPECT_LE(std::count(peer->records.begin(), peer->records.end(), ' '), 2);
}
INSTANTIATE_TEST_SUITE_P(
    Table, BreakCode,
    testing::Values(break_case{0, 200, "OK"}, break_case{1, 400, "Bad Request"},
                    break_case{2, 424, "Failed Dependency"},
                    break_case{3, 412, "Precondition Failed"}, break_case{4, 401, "Unauthorized"},
                    break_case{5, 404, "Not Found"}, break_case{6, 409, "Conflict"},
                    break_case{7, 500, "Internal Server Error"},
                    break_case{-1, 500, "Internal Server Error"},
                    break_case{1000, 500, "Internal Server Error"}));

TEST_F(HttpServer, ChallengeAnswersTheNewChallenge)
{
    start();
    const http_reply reply = ask(request_to("/challenge"));
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body, R"({"challenge":"00112233445566778899aabbccddeeff"})");
    EXPECT_NE(reply.head.find("Content-Type: application/json\r\n"), string::npos);
}

TEST_F(HttpServer, ChallengeIsUnavailableWhenTooManyArePending)
{
    start();
    stand_in.challenge = nullptr;
    const http_reply reply = ask(request_to("/challenge"));
    EXPECT_EQ(reply.status, 503);
    EXPECT_EQ(reply.body, "");
}

TEST_F(HttpServer, ABodyOf8192BytesReachesItsRouteAndAByteMoreDoesNot)
{
    start();
    EXPECT_EQ(ask(request_to("/unpair", "", "{}" + string(8190, ' '))).status, 200);
    EXPECT_EQ(stand_in.bodies_parsed, 1);
    EXPECT_EQ(ask(request_to("/unpair", "", "{}" + string(8191, ' '))).status, 413);
    EXPECT_EQ(stand_in.bodies_parsed, 1);
}

TEST_F(HttpServer, AReplyIsOneTlsRecordAndItsConnectionSendsAtOnce)
{
    start();
    const auto peer = connected();
    const http_reply reply = peer->ask(get_info);
    EXPECT_EQ(peer->records, std::to_string(reply.head.size() + reply.body.size()) + " ");
}

TEST_F(HttpServer, SeveralRequestsMayBeInTheirChecksAtOnce)
{
    start();
    stand_in.finish = false;
    const auto first = connected();
    const auto second = connected();
    first->send(get_info);
    ASSERT_TRUE(pauses(1));
    second->send(request_to("/challenge"));
    ASSERT_TRUE(pauses(2));
    finish(&stand_in.preprocessors[1], 0, nullptr);
    EXPECT_NE(second->receive().body.find("challenge"), string::npos);
    finish(&stand_in.preprocessors[0], 0, nullptr);
    EXPECT_NE(first->receive().body.find("serialNumber"), string::npos);
}

TEST_F(HttpServer, AReplyToNobodyIsFatal)
{
    EXPECT_DEATH(http_server_reply_status(nullptr, http_status_ok),
                 "http_server_reply_status: req is null: null reference");
}

TEST_F(HttpServer, ACallWithoutARequestIsFatal)
{
    const evhtp_ptr instance{evhtp_new(loop, nullptr)};
    http_server_register_routes(instance.get());
    EXPECT_DEATH(instance->defaults.cb(nullptr, nullptr),
                 "http_method_default: req is null: null reference");
}

void *no_memory(std::size_t)
{
    return nullptr;
}

TEST_F(HttpServer, ExhaustedMemoryWhileInfoIsBuiltIsFatal)
{
    start();
    const auto ask_without_memory = [this] {
        cJSON_Hooks hooks{no_memory, std::free};
        cJSON_InitHooks(&hooks);
        (void)ask(get_info);
    };
    EXPECT_DEATH(ask_without_memory(), "info_text: response_json is null: not enough memory");
}

// TLS

struct tls_case {
    const char *name;
    int version;
    bool served;
};
class TlsVersion : public HttpServer, public testing::WithParamInterface<tls_case> {};
TEST_P(TlsVersion, IsServedFrom12On)
{
    start();
    const auto peer = client();
    peer->limit_tls(GetParam().version);
    EXPECT_EQ(peer->handshake(), GetParam().served);
}
INSTANTIATE_TEST_SUITE_P(Versions, TlsVersion,
                         testing::Values(tls_case{"Tls10", TLS1_VERSION, false},
                                         tls_case{"Tls11", TLS1_1_VERSION, false},
                                         tls_case{"Tls12", TLS1_2_VERSION, true},
                                         tls_case{"Tls13", TLS1_3_VERSION, true}),
                         [](const auto &row) { return string{row.param.name}; });

struct cipher_case {
    const char *name, *offered, *chosen;
    int version;
};
class TlsCipher : public HttpServer, public testing::WithParamInterface<cipher_case> {};
TEST_P(TlsCipher, IsTheCheapestUnlessTheClientHasNoHardwareForIt)
{
    start();
    const auto peer = client();
    peer->limit_tls(GetParam().version);
    (GetParam().version == TLS1_3_VERSION ? SSL_set_ciphersuites
                                          : SSL_set_cipher_list)(peer->tls(), GetParam().offered);
    ASSERT_TRUE(peer->handshake());
    EXPECT_STREQ(SSL_get_cipher_name(peer->tls()), GetParam().chosen);
}
// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Offers, TlsCipher,
    testing::Values(
        cipher_case{"Aes13",    "TLS_AES_256_GCM_SHA384:TLS_AES_128_GCM_SHA256:TLS_CHACHA20_POLY1305_SHA256",
                                "TLS_AES_128_GCM_SHA256",        TLS1_3_VERSION},
        cipher_case{"ChaCha13", "TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_GCM_SHA256",
                                "TLS_CHACHA20_POLY1305_SHA256",  TLS1_3_VERSION},
        cipher_case{"Only13",   "TLS_AES_256_GCM_SHA384", "TLS_AES_256_GCM_SHA384", TLS1_3_VERSION},
        cipher_case{"Aes12",    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-ECDSA-CHACHA20-POLY1305",
                                "ECDHE-ECDSA-AES128-GCM-SHA256", TLS1_2_VERSION},
        cipher_case{"ChaCha12", "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-ECDSA-AES128-GCM-SHA256",
                                "ECDHE-ECDSA-CHACHA20-POLY1305", TLS1_2_VERSION}),
    [](const auto &row) { return string{row.param.name}; });
// clang-format on

using ssl_session_ptr = handle<SSL_SESSION, SSL_SESSION_free>;

TEST_F(HttpServer, APhoneResumesItsSessionByTheOneTicketThatItGot)
{
    start();
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const auto first = client();
        first->limit_tls(version);
        ASSERT_TRUE(first->handshake());
        EXPECT_EQ(first->ask(get_info).status, 200); // TLS 1.3: the ticket comes with it
        EXPECT_EQ(first->sessions(), 1U);
        const ssl_session_ptr session{SSL_get1_session(first->tls())};
        const auto second = client();
        second->limit_tls(version);
        second->resume(session.get());
        ASSERT_TRUE(second->handshake());
        EXPECT_EQ(SSL_session_reused(second->tls()), 1) << version;
        EXPECT_EQ(second->ask(get_info).status, 200);
    }
}

TEST_F(HttpServer, NoClientCertificateIsAskedFor)
{
    start();
    const auto peer = connected();
    EXPECT_EQ(SSL_get_client_CA_list(peer->tls()), nullptr);
    EXPECT_EQ(peer->ask(get_info).status, 200);
}

TEST_F(HttpServer, AClientThatWantsToRenegotiateGetsNowhere)
{
    start();
    const auto peer = client();
    peer->limit_tls(TLS1_2_VERSION);
    ASSERT_TRUE(peer->handshake());
    SSL_renegotiate(peer->tls());
    EXPECT_FALSE(peer->handshake());
}

// Life

TEST_F(HttpServer, InitLogsItsName)
{
    EXPECT_TRUE(log.has("TRACE velm_http_server - velm_http_server_init"));
}

TEST_F(HttpServer, StartDoesItsWorkOnTheLoop)
{
    velm_http_server_start();
    EXPECT_FALSE(log.contains("http_server_start"));
    EXPECT_FALSE(listens());
    EXPECT_TRUE(turn_until(
        loop, [this] { return log.has("TRACE velm_http_server - http_server_start - end"); }));
    EXPECT_TRUE(listens());
}

TEST_F(HttpServer, WithPort0NothingListensAndTheRestRuns)
{
    const unsigned short port = config.http_server_port;
    config.http_server_port = 0;
    velm_http_server_start();
    EXPECT_TRUE(turn_until(loop, [this] {
        return log.has("ERROR velm_http_server - http_server_start - not configured");
    }));
    EXPECT_FALSE(log.contains("http_server_start - end"));
    config.http_server_port = port;
    EXPECT_FALSE(listens());
    velm_http_server_stop();
    EXPECT_FALSE(log.contains("http_server_stop"));
}

TEST_F(HttpServer, StopEndsTheListenerAndStartBringsItBack)
{
    start();
    velm_http_server_stop();
    EXPECT_TRUE(log.has("INFO velm_http_server - http_server_stop"));
    EXPECT_FALSE(listens());
    log.clear();
    velm_http_server_stop();
    EXPECT_FALSE(log.contains("http_server_stop"));
    start();
    EXPECT_EQ(ask(get_info).status, 200);
}

TEST_F(HttpServer, StartStopsARunningServerFirst)
{
    start();
    const auto peer = connected();
    log.clear();
    start();
    EXPECT_TRUE(log.contains("http_server_stop"));
    EXPECT_TRUE(peer->is_closed());
    EXPECT_EQ(ask(get_info).status, 200);
}

TEST_F(HttpServer, AReloadWithConnectionsOfEveryKindTouchesNothingThatHasGone)
{
    start();
    const auto bare = client();
    const auto half_handshake = client();
    EXPECT_EQ(SSL_do_handshake(half_handshake->tls()), -1);
    const auto idle = connected();
    EXPECT_EQ(idle->ask(get_info).status, 200);
    const auto half_sent = connected();
    half_sent->send("POST /pair HTTP/1.1\r\nContent-Length: 9\r\n\r\nab");
    stand_in.finish = false;
    const auto in_flight = connected();
    in_flight->send(get_info);
    ASSERT_TRUE(pauses(2));
    velm_http_server_stop();
    velm_http_server_init(&config);
    start();
    for (https_client *const peer : {bare.get(), idle.get(), half_sent.get(), in_flight.get()}) {
        EXPECT_TRUE(peer->is_closed());
    }
    stand_in.finish = true;
    EXPECT_EQ(ask(get_info).status, 200);
}

TEST_F(HttpServer, InitWhileItServesLeavesTheSettingsInUseAlone)
{
    start();
    const tls_identity other;
    velm_config_text(config.http_server_cert_path, other.cert_path);
    velm_config_text(config.http_server_key_path, other.key_path);
    velm_http_server_init(&config);
    velm_http_server_init(&config);
    EXPECT_EQ(ask(get_info).status, 200);
    log.clear();
    start();
    EXPECT_EQ(ask(get_info).status, 200);
}

// Fatal

constexpr char ssl_init_failed[] =
    "http_server_start: call failed: evhtp_ssl_init\\(http_server_instance, "
    "http_server_ssl_config\\) "
    "result: -1 loc: src/velm_http_server.cpp:[0-9]+";
constexpr char bind_failed[] = "http_server_start: call failed: evhtp_bind_socket\\( "
                               "http_server_instance, velm_config->lan_ip_address, "
                               "velm_config->http_server_port, HTTP_SERVER_MAX_CONNS\\) result: -1";

TEST_F(HttpServer, AMissingCertificateEndsTheDaemon)
{
    velm_config_text(config.http_server_cert_path, "/nonexistent.pem");
    velm_http_server_init(&config);
    EXPECT_DEATH(http_server_start(), ssl_init_failed);
}

TEST_F(HttpServer, AMissingKeyEndsTheDaemon)
{
    velm_config_text(config.http_server_key_path, "/nonexistent.pem");
    velm_http_server_init(&config);
    EXPECT_DEATH(http_server_start(), ssl_init_failed);
}

TEST_F(HttpServer, ACertificateThatIsNoneEndsTheDaemon)
{
    velm_config_text(config.http_server_cert_path, identity.key_path);
    velm_http_server_init(&config);
    EXPECT_DEATH(http_server_start(), ssl_init_failed);
}

TEST_F(HttpServer, AKeyOfAnotherCertificateEndsTheDaemon)
{
    const tls_identity other;
    velm_config_text(config.http_server_key_path, other.key_path);
    velm_http_server_init(&config);
    EXPECT_DEATH(http_server_start(), ssl_init_failed);
}

TEST_F(HttpServer, AKeyWithAPassphraseEndsTheDaemonAndAsksNobody)
{
    const tls_identity locked{"secret"};
    velm_config_text(config.http_server_cert_path, locked.cert_path);
    velm_config_text(config.http_server_key_path, locked.key_path);
    velm_http_server_init(&config);
    EXPECT_DEATH(http_server_start(), ssl_init_failed);
}

class NoAddress : public HttpServer, public testing::WithParamInterface<const char *> {};
TEST_P(NoAddress, EndsTheDaemon)
{
    stand_in.address = GetParam();
    EXPECT_DEATH(http_server_start(), bind_failed);
}
INSTANTIATE_TEST_SUITE_P(Addresses, NoAddress,
                         testing::Values("", "nonsense", "127.1", "0x7f000001", "ipv4:127.0.0.1",
                                         "unix:/tmp/velm_test", "::1", "127.0.0.1\n127.0.0.2"));

/// Its address is nobody's when it starts.
class WaitingForItsAddress : public HttpServer {
  protected:
    WaitingForItsAddress()
    {
        stand_in.address = "203.0.113.77";
        http_server_start();
    }
    [[nodiscard]] int bind_failures() const
    {
        return log.count("ERROR velm_http_server - http_server_start: call failed: "
                         "evhtp_bind_socket( http_server_instance, velm_config->lan_ip_address, "
                         "velm_config->http_server_port, HTTP_SERVER_MAX_CONNS) result: -1 loc: ");
    }
};

TEST_F(WaitingForItsAddress, SaysSoInOneLineHoweverOftenItTries)
{
    EXPECT_TRUE(log.has("TRACE velm_http_server - http_server_start - end"));
    for (int i = 0; i < 10; ++i) {
        velm_http_server_address_came();
    }
    EXPECT_EQ(bind_failures(), 1);
    EXPECT_EQ(log.count("ERROR"), 1);
}

TEST_F(WaitingForItsAddress, ServesByItselfWhenTheAddressIsThere)
{
    stand_in.address = "127.0.0.1"; // as if an interface had got the one that is waited for
    ASSERT_TRUE(turn_until(loop, [this] {
        return log.has("INFO velm_http_server - stop_waiting - an interface has 127.0.0.1");
    }));
    EXPECT_EQ(ask(get_info).status, 200);
}

TEST_F(WaitingForItsAddress, ServesAtTheAnnouncement)
{
    stand_in.address = "127.0.0.1";
    velm_http_server_address_came();
    EXPECT_EQ(ask(get_info).status, 200);
}

TEST_F(WaitingForItsAddress, IsStoppedAndStartedLikeAnyOther)
{
    velm_http_server_stop();
    velm_http_server_address_came(); // nobody waits
    EXPECT_EQ(bind_failures(), 1);
    stand_in.address = "127.0.0.1";
    http_server_start();
    EXPECT_EQ(ask(get_info).status, 200);
}

TEST_F(WaitingForItsAddress, AnotherFailureThenEndsTheDaemon)
{
    stand_in.address = "nonsense";
    EXPECT_DEATH(velm_http_server_address_came(), bind_failed);
}

TEST_F(HttpServer, APortInUseEndsTheDaemon)
{
    start();
    EXPECT_DEATH(start_at_a_port_in_use(), bind_failed);
}

/// Standard error has the reason and then the fatal line.
class EndsWithTheLogOff : public HttpServer {
  protected:
    EndsWithTheLogOff()
    {
        common_logger_set("enabled", "no");
    }
};

TEST_F(EndsWithTheLogOff, AtAPortInUseAndSaysWhy)
{
    EXPECT_DEATH(start_at_a_port_in_use(),
                 "bind_socket - 127\\.0\\.0\\.1:[0-9]+: Address already in use\n.*" +
                     string{bind_failed});
}

TEST_F(EndsWithTheLogOff, AtNoAddressAndSaysWhy)
{
    stand_in.address = "nonsense";
    EXPECT_DEATH(http_server_start(),
                 "bind_socket - no IPv4 address: nonsense\n.*" + string{bind_failed});
}

TEST_F(EndsWithTheLogOff, WithoutACertificateAndSaysWhich)
{
    velm_config_text(config.http_server_cert_path, "/nonexistent.pem");
    velm_http_server_init(&config);
    EXPECT_DEATH(http_server_start(), "init_tls - cannot use /nonexistent\\.pem with .*: .*\n.*" +
                                          string{ssl_init_failed});
}

} // namespace
