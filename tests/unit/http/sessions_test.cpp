#include "http/sessions.h"

#include <openssl/err.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <utility>
#include <vector>

#include "fixture.h"

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::steady_clock::time_point moment{1h};

/// Requests to a server whose certificate is good for both names of this machine.
class HttpClientSessions : public http_client_fixture {
  protected:
    HttpClientSessions()
    {
        write_pem(path("ca.pem"), ca);
        set_up();
        serve(make_server_context(good));
    }

    void set_up()
    {
        EXPECT_EQ(http_client_setup_ssl(path("ca.pem").c_str()), 0);
    }

    void serve(ssl_ctx_ptr with)
    {
        server.reset();
        context = std::move(with);
        server.emplace(base, context.get());
    }

    [[nodiscard]] http_client_request_data to(const std::string &host) const
    {
        return request("https://" + host + ":" + server->port() + "/");
    }

    int fetch_from(const std::string &host = "cloud.example.test")
    {
        return fetch(HTTP_CLIENT_GET, to(host)).code;
    }

    static inline const test_certificate ca = make_test_ca();
    static inline const test_certificate good =
        make_test_certificate({.dns_names = {"cloud.example.test", "other.example.test"}}, &ca);
    ssl_ctx_ptr context;
    std::optional<test_server> server;
};

TEST_F(HttpClientSessions, TheNextConnectionToAHostGoesOnFromTheOneBefore)
{
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(fetch_from(), 200);
    }
    EXPECT_EQ(server->connections, 3);
    EXPECT_EQ(server->resumed, (std::vector{false, true, true}));
    EXPECT_EQ(
        log.count("TRACE http_client - HTTPS OK - server: 'cloud.example.test', cert: '/O=test'"),
        1)
        << "certificates are shown once";
    EXPECT_EQ(
        log.count("TRACE http_client - http_client_session_offer - server: 'cloud.example.test'"),
        2);
}

TEST_F(HttpClientSessions, OfConnectionsAtTheSameTimeOneGoesOn)
{
    fetch_from();
    std::array<test_outcome, 3> outcomes;
    for (test_outcome &outcome : outcomes) {
        ASSERT_EQ(http_request_internal(HTTP_CLIENT_GET, to("cloud.example.test"),
                                        test_outcome::handler, &outcome),
                  0);
    }
    EXPECT_TRUE(run_until([&outcomes] {
        return std::all_of(outcomes.begin(), outcomes.end(),
                           [](const test_outcome &one) { return one.code == 200; });
    }));
    EXPECT_EQ(std::count(server->resumed.begin(), server->resumed.end(), true), 1)
        << "a session serves once";
    fetch_from();
    EXPECT_TRUE(server->resumed.back());
}

TEST_F(HttpClientSessions, AnotherHostMustProveItself)
{
    fetch_from("cloud.example.test");
    fetch_from("other.example.test");
    fetch_from("cloud.example.test");
    EXPECT_EQ(server->resumed, (std::vector{false, false, true}));
}

TEST_F(HttpClientSessions, AServerThatHasForgottenTheSessionMustProveItself)
{
    fetch_from();
    serve(make_server_context(good));
    EXPECT_EQ(fetch_from(), 200);
    EXPECT_EQ(server->resumed, std::vector{false});
}

TEST_F(HttpClientSessions, AServerThatCannotProveItselfIsRefusedAlthoughTheOneBeforeCould)
{
    fetch_from();
    serve(make_server_context(make_test_certificate({.dns_names = {"cloud.example.test"}})));
    EXPECT_EQ(fetch_from(), -2);
    EXPECT_TRUE(server->requests.empty());
}

TEST_F(HttpClientSessions, AServerMayGoBackToTls12)
{
    fetch_from();
    ssl_ctx_ptr older = make_server_context(good);
    SSL_CTX_set_max_proto_version(older.get(), TLS1_2_VERSION);
    serve(std::move(older));
    EXPECT_EQ(fetch_from(), 200);
    EXPECT_EQ(fetch_from(), 200);
    EXPECT_EQ(server->resumed, (std::vector{false, false}))
        << "there new keys would not be agreed on";
}

TEST_F(HttpClientSessions, AfterAReloadServersMustProveThemselves)
{
    fetch_from();
    write_pem(path("ca.pem"), make_test_ca("another root"));
    set_up();
    EXPECT_EQ(fetch_from(), -2) << "another authority is trusted now";
    write_pem(path("ca.pem"), ca);
    set_up();
    EXPECT_EQ(fetch_from(), 200);
    EXPECT_EQ(server->resumed, (std::vector{false, false}));
}

TEST_F(HttpClientSessions, AConnectionThatIsOlderThanAReloadLeavesNoSession)
{
    test_outcome outcome;
    ASSERT_EQ(http_request_internal(HTTP_CLIENT_GET, to("cloud.example.test"),
                                    test_outcome::handler, &outcome),
              0);
    server->on_request = [this](bufferevent *bufev) {
        set_up(); // the tickets are on their way
        bufferevent_write(bufev, server->reply.data(), server->reply.size());
    };
    EXPECT_TRUE(run_until([&outcome] { return outcome.calls == 1; }));
    EXPECT_EQ(outcome.code, 200);
    fetch_from();
    EXPECT_EQ(server->resumed, (std::vector{false, false}));
}

TEST_F(HttpClientSessions, AfterAHandshakeThatFailsTheNextOneIsWhole)
{
    fetch_from();
    test_server silent{base}; // as one that cannot bear sessions; it waits for HTTP
    EXPECT_EQ(
        fetch(HTTP_CLIENT_GET, request("https://cloud.example.test:" + silent.port() + "/", 1))
            .code,
        -1);
    EXPECT_EQ(log.count("http_client_session_offer"), 1);
    EXPECT_EQ(fetch_from(), 200);
    EXPECT_EQ(server->resumed, (std::vector{false, false}));
}

TEST_F(HttpClientSessions, AfterARequestThatIsNotAnsweredTheHandshakeIsWhole)
{
    fetch_from();
    server->on_request = [](bufferevent *) {}; // the tickets have been sent
    http_client_request_data impatient = to("cloud.example.test");
    impatient.timeout_s = 1;
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, impatient).code, -1);
    server->on_request = nullptr;
    EXPECT_EQ(fetch_from(), 200);
    server->reply = "no HTTP\r\n\r\n";
    EXPECT_LT(fetch_from(), 0);
    server->reply = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
    EXPECT_EQ(fetch_from(), 200);
    EXPECT_EQ(server->resumed, (std::vector{false, true, false, true, false}));
}

TEST_F(HttpClientSessions, OfAServerThatShowsMoreThan16KibibytesOfCertificatesIsNotKept)
{
    for (const auto &[names, is_kept] : {std::pair{400, true}, std::pair{450, false}}) {
        // 37 bytes each
        const std::vector<std::string> long_names(static_cast<std::size_t>(names),
                                                  std::string(30, 'a') + ".test");
        ssl_ctx_ptr shows_more = make_server_context(good);
        SSL_CTX_add1_chain_cert(shows_more.get(),
                                make_test_certificate({.dns_names = long_names}).cert.get());
        serve(std::move(shows_more));
        EXPECT_EQ(fetch_from(), 200);
        EXPECT_EQ(fetch_from(), 200);
        EXPECT_EQ(server->resumed, (std::vector{false, is_kept})) << names;
        http_client_sessions_forget();
    }
}

TEST_F(HttpClientSessions, OfAServerThatSendsATicketOfMoreThan16KibibytesIsNotKept)
{
    static std::vector<char> data;
    const auto fill = [](SSL *ssl, void *) {
        return SSL_SESSION_set1_ticket_appdata(SSL_get_session(ssl), data.data(), data.size());
    };
    const auto take = [](SSL *, SSL_SESSION *, const unsigned char *, std::size_t,
                         SSL_TICKET_STATUS, void *) { return SSL_TICKET_RETURN_USE_RENEW; };
    for (const auto &[size, is_kept] : {std::pair{15000, true}, std::pair{17000, false}}) {
        data.assign(static_cast<std::size_t>(size), 'x');
        ssl_ctx_ptr sends_more = make_server_context(good);
        SSL_CTX_set_session_ticket_cb(sends_more.get(), fill, take, nullptr);
        serve(std::move(sends_more));
        EXPECT_EQ(fetch_from(), 200);
        EXPECT_EQ(fetch_from(), 200);
        EXPECT_EQ(server->resumed, (std::vector{false, is_kept})) << size;
        http_client_sessions_forget();
    }
}

TEST_F(HttpClientSessions, WithoutAllChecksNoSessionIsKeptOrUsed)
{
    for (const bool skip_chain : {true, false}) {
        http_client_request_data lax = to("cloud.example.test");
        lax.skip_server_verification = skip_chain;
        lax.skip_hostname_verification = !skip_chain;
        EXPECT_EQ(fetch(HTTP_CLIENT_GET, lax).code, 200);
        EXPECT_EQ(fetch_from(), 200);
        EXPECT_FALSE(server->resumed.back());
        EXPECT_EQ(fetch(HTTP_CLIENT_GET, lax).code, 200);
        EXPECT_FALSE(server->resumed.back());
        http_client_sessions_forget();
    }
}

/// The functions by themselves.
class HttpClientSession : public testing::Test {
  protected:
    void TearDown() override
    {
        http_client_sessions_forget();
    }

    /// As a handshake leaves it behind. The session and the certificate are made of nothing else.
    static ssl_session_ptr make_session(const test_certificate_wish &wish = {},
                                        int version = TLS1_3_VERSION)
    {
        const ssl_ctx_ptr shows = make_server_context(make_test_certificate(wish));
        const ssl_ctx_ptr asks{SSL_CTX_new(TLS_method())};
        SSL_CTX_set_max_proto_version(asks.get(), version);
        const ssl_ptr server{SSL_new(shows.get())};
        const ssl_ptr client{SSL_new(asks.get())};
        BIO *one = nullptr;
        BIO *other = nullptr;
        BIO_new_bio_pair(&one, 0, &other, 0);
        SSL_set_bio(server.get(), one, one);
        SSL_set_bio(client.get(), other, other);
        SSL_set_accept_state(server.get());
        SSL_set_connect_state(client.get());
        char nothing = 0;
        for (int turn = 0; turn < 5; ++turn) {
            SSL_read(client.get(), &nothing, 1); // the tickets of TLS 1.3 come after the handshake
            SSL_read(server.get(), &nothing, 1);
        }
        ERR_clear_error();
        return ssl_session_ptr{SSL_get1_session(client.get())};
    }

    static bool keep(const std::string &host, ssl_session_ptr session, bool resumed = false,
                     std::chrono::steady_clock::time_point now = moment)
    {
        const bool kept = http_client_session_keep(host, session.get(), resumed, now);
        if (kept) {
            (void)session.release();
        }
        return kept;
    }

    /// Keeps a new session, and returns the one that a connection gets that goes on from it.
    static ssl_session_ptr keep_one_and_go_on(const std::string &host)
    {
        const ssl_session_ptr made = make_session();
        SSL_SESSION_up_ref(made.get());
        EXPECT_TRUE(keep(host, ssl_session_ptr{made.get()}));
        return ssl_session_ptr{SSL_SESSION_dup(made.get())};
    }

    [[nodiscard]] bool is_offered(const std::string &host,
                                  std::chrono::steady_clock::time_point now = moment) const
    {
        const ssl_ptr tls{SSL_new(context.get())};
        http_client_session_offer(host, tls.get(), now);
        return SSL_get_session(tls.get()) != nullptr;
    }

    captured_log log;
    ssl_ctx_ptr context{SSL_CTX_new(TLS_method())};
};

TEST_F(HttpClientSession, IsOfferedToItsHostOnce)
{
    EXPECT_FALSE(is_offered("a.test"));
    ssl_session_ptr next = keep_one_and_go_on("a.test");
    EXPECT_FALSE(is_offered("b.test"));
    EXPECT_TRUE(is_offered("a.test"));
    EXPECT_FALSE(is_offered("a.test")) << "it serves once";
    EXPECT_TRUE(keep("a.test", std::move(next), true));
    EXPECT_TRUE(is_offered("a.test"));
}

TEST_F(HttpClientSession, OfTls12IsNotKept)
{
    EXPECT_FALSE(keep("a.test", make_session({}, TLS1_2_VERSION)));
    EXPECT_FALSE(is_offered("a.test"));
}

TEST_F(HttpClientSession, ServesFor48HoursAfterTheServerHasProvedItself)
{
    EXPECT_TRUE(keep("a.test", make_session()));
    EXPECT_TRUE(is_offered("a.test", moment + 48h - 1s));
    EXPECT_TRUE(keep("b.test", make_session()));
    EXPECT_FALSE(is_offered("b.test", moment + 48h));
    EXPECT_FALSE(is_offered("b.test", moment)) << "and is gone then";
}

TEST_F(HttpClientSession, ThatWasResumedHasTheTimeOfTheProof)
{
    ssl_session_ptr next = keep_one_and_go_on("a.test");
    EXPECT_TRUE(is_offered("a.test", moment + 47h));
    EXPECT_TRUE(keep("a.test", std::move(next), true, moment + 47h));
    EXPECT_FALSE(is_offered("a.test", moment + 48h));
}

TEST_F(HttpClientSession, ThatWasResumedGainsNoTimeByTheProofOfAnotherConnection)
{
    ssl_session_ptr next = keep_one_and_go_on("a.test");
    EXPECT_TRUE(is_offered("a.test", moment + 47h));
    EXPECT_TRUE(keep("a.test", make_session(), false, moment + 47h));
    EXPECT_TRUE(keep("a.test", std::move(next), true, moment + 47h));
    EXPECT_FALSE(is_offered("a.test", moment + 48h));
}

TEST_F(HttpClientSession, ThatWasResumedIsNotKeptWithoutATimeOfProof)
{
    EXPECT_FALSE(keep("a.test", make_session(), true));
    EXPECT_FALSE(is_offered("a.test"));
}

TEST_F(HttpClientSession, OfANewProofHasItsOwnTime)
{
    EXPECT_TRUE(keep("a.test", make_session()));
    EXPECT_TRUE(keep("a.test", make_session(), false, moment + 47h));
    EXPECT_TRUE(is_offered("a.test", moment + 94h));
}

TEST_F(HttpClientSession, DoesNotOutliveTheCertificateThatItBeganWith)
{
    EXPECT_TRUE(keep("a.test", make_session({.valid_until = -60})));
    EXPECT_FALSE(is_offered("a.test"));
}

TEST_F(HttpClientSession, OfAFifthHostTakesThePlaceOfTheOldest)
{
    for (const char *host : {"a.test", "b.test", "c.test", "d.test", "a.test", "e.test"}) {
        EXPECT_TRUE(keep(host, make_session()));
    }
    EXPECT_TRUE(is_offered("a.test")) << "it has a new one";
    EXPECT_FALSE(is_offered("b.test"));
    EXPECT_TRUE(is_offered("e.test"));
}

TEST_F(HttpClientSession, IsForgottenWithAll)
{
    for (const char *host : {"a.test", "b.test"}) {
        EXPECT_TRUE(keep(host, make_session()));
    }
    http_client_sessions_forget();
    EXPECT_FALSE(is_offered("a.test"));
    EXPECT_FALSE(is_offered("b.test"));
}

} // namespace
