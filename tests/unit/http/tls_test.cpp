#include "http/tls.h"

#include <fcntl.h>

#include <cerrno>
#include <filesystem>
#include <optional>

#include "fixture.h"
#include "logger/common_logger.h"

namespace {

class HttpClientTls : public http_client_fixture {
  protected:
    HttpClientTls()
    {
        write_pem(path("ca.pem"), ca);
    }

    void set_up()
    {
        ASSERT_EQ(http_client_setup_ssl(path("ca.pem").c_str()), 0);
    }

    /// One request to a server that shows the certificate; the file holds `ca` alone.
    test_outcome fetch_from(const test_certificate &certificate,
                            const std::string &host = "cloud.example.test",
                            bool skip_server = false, bool skip_hostname = false)
    {
        set_up();
        context = make_server_context(certificate);
        server.emplace(base, context.get());
        http_client_request_data data = request("https://" + host + ":" + server->port() + "/");
        data.skip_server_verification = skip_server;
        data.skip_hostname_verification = skip_hostname;
        return fetch(HTTP_CLIENT_GET, data);
    }

    [[nodiscard]] test_certificate leaf(const test_certificate_wish &wish) const
    {
        return make_test_certificate(wish, &ca);
    }

    void expect_refused(const test_outcome &outcome, const char *reason, const char *host,
                        const char *subject) const
    {
        EXPECT_EQ(outcome.code, -2);
        EXPECT_EQ(outcome.calls, 1);
        EXPECT_FALSE(outcome.has_body);
        EXPECT_TRUE(server->requests.empty()) << "the request reached a server that is refused";
        EXPECT_TRUE(log.has(std::string{"ERROR http_client - HTTPS NOK - got '"} + reason +
                            "', server: '" + host + "', cert: '" + subject + "'"));
    }

    static inline const test_certificate ca = make_test_ca();
    ssl_ctx_ptr context;
    std::optional<test_server> server;
};

TEST_F(HttpClientTls, AGoodCertificateIsAcceptedAndLogged)
{
    const test_outcome outcome = fetch_from(leaf({.dns_names = {"cloud.example.test"}}));
    EXPECT_EQ(outcome.code, 200);
    EXPECT_EQ(outcome.body, "ok");
    EXPECT_TRUE(
        log.has("TRACE http_client - HTTPS OK - server: 'cloud.example.test', cert: '/O=test'"));
}

TEST_F(HttpClientTls, ANameIsSentAsTheServerName)
{
    fetch_from(leaf({.dns_names = {"cloud.example.test"}}));
    EXPECT_EQ(server->server_names, std::vector<std::string>{"cloud.example.test"});
}

TEST_F(HttpClientTls, AnAddressIsNotSentAsServerName)
{
    const test_outcome outcome = fetch_from(leaf({.dns_names = {"127.0.0.1"}}), "127.0.0.1");
    EXPECT_EQ(outcome.code, 200);
    EXPECT_EQ(server->server_names, std::vector<std::string>{""});
}

TEST_F(HttpClientTls, AHostTooLongForAServerNameStartsNothing)
{
    set_up();
    expect_no_start(request("https://" + std::string(256, 'a') + "/"));
    EXPECT_TRUE(log.has("ERROR http_client - get_conn_by_scheme - sni set failed"));
    EXPECT_TRUE(log.contains(" - cannot create internal connection object"));
}

TEST_F(HttpClientTls, AWildcardIsAccepted)
{
    EXPECT_EQ(fetch_from(leaf({.dns_names = {"*.example.test"}})).code, 200);
}

TEST_F(HttpClientTls, ACertificateOfAnotherAuthorityIsRefused)
{
    const test_certificate other = make_test_ca("other root");
    const test_outcome outcome =
        fetch_from(make_test_certificate({.dns_names = {"cloud.example.test"}}, &other));
    expect_refused(outcome, "Error", "cloud.example.test", "/O=test");
    EXPECT_TRUE(log.has("ERROR http_client - HTTPS NOK - verify cert error: "
                        "unable to get local issuer certificate"));
}

TEST_F(HttpClientTls, ASelfSignedCertificateIsRefused)
{
    const test_outcome outcome =
        fetch_from(make_test_certificate({.dns_names = {"cloud.example.test"}}));
    expect_refused(outcome, "Error", "cloud.example.test", "/O=test");
}

TEST_F(HttpClientTls, AnExpiredCertificateIsRefused)
{
    const test_outcome outcome = fetch_from(
        leaf({.dns_names = {"cloud.example.test"}, .valid_from = -7200, .valid_until = -60}));
    expect_refused(outcome, "Error", "cloud.example.test", "/O=test");
    EXPECT_TRUE(
        log.has("ERROR http_client - HTTPS NOK - verify cert error: certificate has expired"));
}

TEST_F(HttpClientTls, ACertificateOfTheFutureIsRefusedAndTheClockLogged)
{
    const test_outcome outcome =
        fetch_from(leaf({.dns_names = {"cloud.example.test"}, .valid_from = 3000}));
    expect_refused(outcome, "Error", "cloud.example.test", "/O=test");
    EXPECT_TRUE(log.contains("is the clock right? now: "));
}

TEST_F(HttpClientTls, AnotherNameIsRefused)
{
    const test_outcome outcome = fetch_from(leaf({.dns_names = {"other.example.test"}}));
    expect_refused(outcome, "MatchNotFound", "cloud.example.test", "/O=test");
}

TEST_F(HttpClientTls, ANulInANameIsRefused)
{
    const test_outcome outcome =
        fetch_from(leaf({.dns_names = {std::string{"cloud.example.test\0.evil.test", 28}}}));
    expect_refused(outcome, "MalformedCertificate", "cloud.example.test", "/O=test");
}

TEST_F(HttpClientTls, AlternativeNamesWithoutADnsNameAreRefusedEvenIfTheCommonNameIsTheHost)
{
    const test_outcome outcome =
        fetch_from(leaf({.common_name = "cloud.example.test", .emails = {"a@example.test"}}));
    expect_refused(outcome, "MatchNotFound", "cloud.example.test", "/O=test/CN=cloud.example.test");
}

TEST_F(HttpClientTls, TheCommonNameCountsWithoutAlternativeNames)
{
    EXPECT_EQ(fetch_from(leaf({.common_name = "cloud.example.test"})).code, 200);
}

TEST_F(HttpClientTls, ACertificateWithoutAnyNameIsRefused)
{
    expect_refused(fetch_from(leaf({})), "Error", "cloud.example.test", "/O=test");
}

TEST_F(HttpClientTls, WithServerVerificationOffAnythingIsAccepted)
{
    const test_outcome outcome =
        fetch_from(make_test_certificate({.valid_until = -60}), "cloud.example.test", true);
    EXPECT_EQ(outcome.code, 200);
    EXPECT_TRUE(log.has("TRACE http_client - HTTPS OK - server: 'cloud.example.test' "
                        "server verification disabled"));
}

TEST_F(HttpClientTls, WithHostNameVerificationOffAnotherNameIsAccepted)
{
    const test_outcome outcome =
        fetch_from(leaf({.dns_names = {"other.test"}}), "cloud.example.test", false, true);
    EXPECT_EQ(outcome.code, 200);
    EXPECT_TRUE(log.has("TRACE http_client - HTTPS OK - server: 'cloud.example.test', "
                        "hostname verification disabled"));
    EXPECT_TRUE(
        log.has("TRACE http_client - HTTPS OK - server: 'cloud.example.test', cert: '/O=test'"));
}

TEST_F(HttpClientTls, WithHostNameVerificationOffTheChainStillCounts)
{
    const test_outcome outcome =
        fetch_from(make_test_certificate({}), "cloud.example.test", false, true);
    expect_refused(outcome, "Error", "cloud.example.test", "/O=test");
}

void leave_a_refused_connection_behind(const char *, int, const char *, const char *, int)
{
    errno = ECONNREFUSED; // as syslog() does while nobody listens there
}

TEST_F(HttpClientTls, ARefusalIsNotTakenForARefusedConnectionWhateverLoggingLeavesInErrno)
{
    constexpr common_logger_observer careless{nullptr, nullptr, leave_a_refused_connection_behind,
                                              nullptr};
    common_logger_set_observer(&careless);
    const test_outcome outcome = fetch_from(leaf({.dns_names = {"other.example.test"}}));
    common_logger_set_observer(nullptr);
    EXPECT_EQ(outcome.code, -2);
}

TEST_F(HttpClientTls, OldProtocolVersionsAreRefused)
{
    set_up();
    context = make_server_context(leaf({.dns_names = {"cloud.example.test"}}));
    SSL_CTX_set_security_level(context.get(), 0);
    SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION);
    SSL_CTX_set_max_proto_version(context.get(), TLS1_1_VERSION);
    server.emplace(base, context.get());
    EXPECT_EQ(
        fetch(HTTP_CLIENT_GET, request("https://cloud.example.test:" + server->port() + "/")).code,
        -2);
    EXPECT_TRUE(log.contains("WARN http_client - http_client_connection_log_tls_errors - "
                             "cloud.example.test: error:"));
}

TEST_F(HttpClientTls, Tls12IsAccepted)
{
    set_up();
    context = make_server_context(leaf({.dns_names = {"cloud.example.test"}}));
    SSL_CTX_set_max_proto_version(context.get(), TLS1_2_VERSION);
    server.emplace(base, context.get());
    EXPECT_EQ(
        fetch(HTTP_CLIENT_GET, request("https://cloud.example.test:" + server->port() + "/")).code,
        200);
}

TEST_F(HttpClientTls, ABodyCutShortWithoutAFarewellIsNotAccepted)
{
    set_up();
    context = make_server_context(leaf({.dns_names = {"cloud.example.test"}}));
    server.emplace(base, context.get());
    server->reply = "HTTP/1.1 200 OK\r\n\r\nhalf of";
    server->close_after_reply = true; // the connection goes away, TLS says nothing
    const test_outcome outcome =
        fetch(HTTP_CLIENT_GET, request("https://cloud.example.test:" + server->port() + "/"));
    EXPECT_LT(outcome.code, 0);
    EXPECT_FALSE(outcome.has_body);
}

struct whole_case {
    const char *name;
    std::string reply;
    std::size_t length;
};
class HttpClientTlsWhole : public HttpClientTls, public testing::WithParamInterface<whole_case> {};

TEST_P(HttpClientTlsWhole, AnswerIsTakenAlthoughTheConnectionEndsWithoutAFarewell)
{
    set_up();
    context = make_server_context(leaf({.dns_names = {"cloud.example.test"}}));
    server.emplace(base, context.get());
    server->reply = GetParam().reply;
    server->close_after_reply = true;
    const test_outcome outcome =
        fetch(HTTP_CLIENT_GET, request("https://cloud.example.test:" + server->port() + "/"));
    EXPECT_EQ(outcome.code, 200);
    EXPECT_EQ(outcome.body.size(), GetParam().length);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, HttpClientTlsWhole,
    testing::Values(
        whole_case{"Short", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nwhole", 5},
        whole_case{"AKibibyteMoreThanARecord",
                   "HTTP/1.1 200 OK\r\nContent-Length: 17000\r\n\r\n" + std::string(17000, 'x'),
                   17000},
        whole_case{"Largest",
                   "HTTP/1.1 200 OK\r\nContent-Length: 65536\r\n\r\n" + std::string(65536, 'x'),
                   65536},
        whole_case{"Chunked",
                   "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4268\r\n" +
                       std::string(17000, 'x') + "\r\n0\r\n\r\n",
                   17000},
        whole_case{"LastChunkWithoutItsLastLine",
                   "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nwhole\r\n0\r\n", 5}),
    [](const auto &row) { return std::string{row.param.name}; });

class HttpClientTlsFlood : public HttpClientTls, public testing::WithParamInterface<int> {};

TEST_P(HttpClientTlsFlood, OfRecordsThatCarryNothingEndsTheConnectionBeyond32InARow)
{
    set_up();
    context = make_server_context(leaf({.dns_names = {"cloud.example.test"}}));
    SSL_CTX_set_num_tickets(context.get(), 0);
    server.emplace(base, context.get());
    server->on_request = [this](bufferevent *bufev) {
        SSL *const ssl = bufferevent_openssl_get_ssl(bufev);
        for (int i = 0; i < GetParam(); ++i) {
            SSL_key_update(ssl, SSL_KEY_UPDATE_NOT_REQUESTED);
            SSL_do_handshake(ssl);
        }
        bufferevent_write(bufev, server->reply.data(), server->reply.size());
    };
    const test_outcome outcome =
        fetch(HTTP_CLIENT_GET, request("https://cloud.example.test:" + server->port() + "/"));
    const bool within = GetParam() <= 32;
    EXPECT_EQ(outcome.code, within ? 200 : -2);
    EXPECT_EQ(log.has("WARN http_client - http_client_connection_log_tls_errors - "
                      "cloud.example.test: too many records that carry nothing"),
              !within);
}
INSTANTIATE_TEST_SUITE_P(KeyUpdates, HttpClientTlsFlood, testing::Values(1, 32, 33, 5000));

TEST_F(HttpClientTls, HelloRequestsInsteadOfAHandshakeEndTheConnection)
{
    set_up();
    server.emplace(base);
    for (int i = 0; i < 5000; ++i) {
        server->greeting += std::string{"\x16\x03\x03\0\x04\0\0\0\0", 9};
    }
    const test_outcome outcome =
        fetch(HTTP_CLIENT_GET, request("https://cloud.example.test:" + server->port() + "/"));
    EXPECT_EQ(outcome.code, -2);
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_TRUE(log.contains("too many records that carry nothing"));
}

struct group_case {
    const char *name;
    int version;
    bool served;
};
class HttpClientTlsGroup : public HttpClientTls, public testing::WithParamInterface<group_case> {};

TEST_P(HttpClientTlsGroup, IsAgreedOnOnlyWhenItIsCheap)
{
    set_up();
    context = make_server_context(leaf({.dns_names = {"cloud.example.test"}}));
    if (SSL_CTX_set1_groups_list(context.get(), GetParam().name) != 1) {
        GTEST_SKIP() << "this OpenSSL has no " << GetParam().name;
    }
    SSL_CTX_set_max_proto_version(context.get(), GetParam().version);
    server.emplace(base, context.get());
    const test_outcome outcome =
        fetch(HTTP_CLIENT_GET, request("https://cloud.example.test:" + server->port() + "/"));
    EXPECT_EQ(outcome.code, GetParam().served ? 200 : -2);
}

INSTANTIATE_TEST_SUITE_P(Groups, HttpClientTlsGroup,
                         testing::Values(group_case{"X25519", TLS1_3_VERSION, true},
                                         group_case{"P-256", TLS1_3_VERSION, true},
                                         group_case{"P-384", TLS1_3_VERSION, true},
                                         group_case{"P-256", TLS1_2_VERSION, true},
                                         group_case{"P-521", TLS1_3_VERSION, false},
                                         group_case{"P-521", TLS1_2_VERSION, false},
                                         group_case{"X448", TLS1_3_VERSION, false},
                                         group_case{"ffdhe2048", TLS1_3_VERSION, false},
                                         group_case{"ffdhe8192", TLS1_3_VERSION, false}));

/// The host has a second address, which nobody else uses and which is asked first.
class HttpClientTwoAddresses : public HttpClientTls {
  protected:
    HttpClientTwoAddresses()
    {
        write_file("hosts", "127.0.0.2 cloud.example.test\n127.0.0.1 cloud.example.test\n");
        http_client_dns_reload();
        set_up();
        context = make_server_context(leaf({.dns_names = {"cloud.example.test"}}));
        server.emplace(base, context.get());
    }

    [[nodiscard]] evconnlistener_ptr listen_at_the_first(evconnlistener_cb accepted, void *argument)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
        address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(server->port())));
        return evconnlistener_ptr{
            evconnlistener_new_bind(base, accepted, argument, LEV_OPT_CLOSE_ON_FREE, 16,
                                    reinterpret_cast<sockaddr *>(&address), sizeof address)};
    }

    [[nodiscard]] http_client_request_data to_the_host() const
    {
        return request("https://cloud.example.test:" + server->port() + "/");
    }
};

TEST_F(HttpClientTwoAddresses, AnAddressThatHangsUpOnTheGreetingIsLeftForTheOther)
{
    int hung_up = 0;
    const evconnlistener_ptr first = listen_at_the_first(
        [](evconnlistener *, evutil_socket_t fd, sockaddr *, int, void *argument) {
            ++*static_cast<int *>(argument);
            evutil_closesocket(fd);
        },
        &hung_up);
    const test_outcome outcome = fetch(HTTP_CLIENT_GET, to_the_host());
    EXPECT_EQ(outcome.code, 200);
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_EQ(hung_up, 1);
    EXPECT_EQ(server->server_names, std::vector<std::string>{"cloud.example.test"});
}

TEST_F(HttpClientTwoAddresses, AnAddressThatIsSilentIsLeftForTheOther)
{
    std::vector<unique_fd> taken;
    const evconnlistener_ptr first = listen_at_the_first(
        [](evconnlistener *, evutil_socket_t fd, sockaddr *, int, void *argument) {
            static_cast<std::vector<unique_fd> *>(argument)->emplace_back(fd);
        },
        &taken);
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, to_the_host()).code, 200);
    EXPECT_EQ(taken.size(), 1U);
}

TEST_F(HttpClientTwoAddresses, ACertificateThatIsRefusedIsAnAnswer)
{
    ssl_ctx_ptr strange = make_server_context(make_test_certificate({}));
    struct {
        SSL_CTX *context;
        std::vector<bufferevent_handle> peers;
    } impostor{strange.get(), {}};
    const evconnlistener_ptr first = listen_at_the_first(
        [](evconnlistener *, evutil_socket_t fd, sockaddr *, int, void *argument) {
            auto *const self = static_cast<decltype(impostor) *>(argument);
            self->peers.emplace_back(
                bufferevent_openssl_socket_new(base, fd, SSL_new(self->context),
                                               BUFFEREVENT_SSL_ACCEPTING, BEV_OPT_CLOSE_ON_FREE));
        },
        &impostor);
    expect_refused(fetch(HTTP_CLIENT_GET, to_the_host()), "Error", "cloud.example.test", "/O=test");
    EXPECT_EQ(server->connections, 0);
}

TEST_F(HttpClientTls, AnAnswerInRecordsOfOneByteIsServedUpToItsLimit)
{
    set_up();
    context = make_server_context(leaf({.dns_names = {"cloud.example.test"}}));
    server.emplace(base, context.get());
    std::size_t length = 0;
    server->on_request = [&length](bufferevent *bufev) {
        SSL *const ssl = bufferevent_openssl_get_ssl(bufev);
        for (const char c : std::string{"HTTP/1.1 200 OK\r\n\r\n"} + std::string(length, 'x')) {
            SSL_write(ssl, &c, 1);
        }
        SSL_shutdown(ssl);
    };
    http_client_request_data data = request("https://cloud.example.test:" + server->port() + "/");
    data.max_body_size = 3000;
    for (length = 3000; length <= 3001; ++length) {
        const test_outcome outcome = fetch(HTTP_CLIENT_GET, data);
        EXPECT_EQ(outcome.code, length == 3000 ? 200 : -6);
        EXPECT_EQ(outcome.body, length == 3000 ? std::string(3000, 'x') : "");
    }
}

TEST_F(HttpClientTls, ARequestOfSeveralRecordsArrivesWhole)
{
    set_up();
    context = make_server_context(leaf({.dns_names = {"cloud.example.test"}}));
    server.emplace(base, context.get());
    http_client_request_data data = request("https://cloud.example.test:" + server->port() + "/");
    for (const std::size_t length : {4000U, 8192U, 40'000U}) {
        data.post_data.assign(length, 'x');
        data.post_data.back() = 'y';
        EXPECT_EQ(fetch(HTTP_CLIENT_POST, data).code, 200);
        EXPECT_TRUE(server->requests.back().ends_with("\r\n\r\n" + data.post_data)) << length;
    }
}

TEST_F(HttpClientTls, ABodyOf64KibibytesIsServed)
{
    set_up();
    context = make_server_context(leaf({.dns_names = {"cloud.example.test"}}));
    server.emplace(base, context.get());
    const std::string body(std::size_t{64} * 1024, 'x');
    server->reply = "HTTP/1.1 200 OK\r\nContent-Length: 65536\r\n\r\n" + body;
    const test_outcome outcome =
        fetch(HTTP_CLIENT_GET, request("https://cloud.example.test:" + server->port() + "/"));
    EXPECT_EQ(outcome.code, 200);
    EXPECT_EQ(outcome.body, body);
}

TEST_F(HttpClientTls, AHeldConnectionServesSeveralRequests)
{
    set_up();
    context = make_server_context(leaf({.dns_names = {"cloud.example.test"}}));
    server.emplace(base, context.get());
    http_client_connection *connection = http_client_connection_create();
    http_client_request_data data = request("https://cloud.example.test:" + server->port() + "/");
    data.connection = connection;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(fetch(HTTP_CLIENT_GET, data).code, 200);
    }
    EXPECT_EQ(server->connections, 3);
    // Other checks must not ride on the handshake of these.
    data.skip_server_verification = true;
    expect_no_start(data);
    http_client_connection_free(connection);
}

TEST_F(HttpClientTls, ARequestInFlightEndsWellWhenTheContextIsReplaced)
{
    set_up();
    context = make_server_context(leaf({.dns_names = {"cloud.example.test"}}));
    server.emplace(base, context.get());
    test_outcome outcome;
    ASSERT_EQ(http_request_internal(HTTP_CLIENT_GET,
                                    request("https://cloud.example.test:" + server->port() + "/"),
                                    test_outcome::handler, &outcome),
              0);
    http_client_free_ssl();
    EXPECT_FALSE(http_client_tls_is_set_up());
    EXPECT_TRUE(run_until([this] { return !server->requests.empty(); }));
    set_up();
    EXPECT_TRUE(run_until([&outcome] { return outcome.calls == 1; }));
    EXPECT_EQ(outcome.code, 200);
}

TEST_F(HttpClientTls, SetUpReadsTheAuthoritiesAgain)
{
    const test_certificate other = make_test_ca("other root");
    const test_certificate of_other =
        make_test_certificate({.dns_names = {"cloud.example.test"}}, &other);
    EXPECT_EQ(fetch_from(of_other).code, -2);
    write_pem(path("ca.pem"), other);
    EXPECT_EQ(fetch_from(of_other).code, 200);
}

TEST_F(HttpClientTls, SetUpLogsItsStepsAndSucceeds)
{
    set_up();
    EXPECT_TRUE(log.has("TRACE http_client - ca cert file location: " + path("ca.pem")));
    EXPECT_TRUE(log.has("TRACE http_client - https setup correct"));
}

TEST_F(HttpClientTls, SetUpFailsWithoutTheFile)
{
    EXPECT_EQ(http_client_setup_ssl(path("missing.pem").c_str()), -1);
    EXPECT_TRUE(log.has("WARN http_client - SSL_CTX_load_verify_locations"));
    EXPECT_TRUE(log.contains("WARN http_client - SSL ERROR: error:"));
    EXPECT_FALSE(http_client_tls_is_set_up());
}

TEST_F(HttpClientTls, SetUpFailsOnAFileWithoutCertificates)
{
    write_file("empty.pem", "nothing here\n");
    EXPECT_EQ(http_client_setup_ssl(path("empty.pem").c_str()), -1);
    EXPECT_EQ(http_client_setup_ssl(""), -1);
    EXPECT_EQ(http_client_setup_ssl(nullptr), -1);
}

TEST_F(HttpClientTls, PreparingSaysNothingAndSetsNothingUp)
{
    http_client_free_ssl();
    log.clear();
    http_client_prepare_ssl(path("ca.pem").c_str());
    http_client_prepare_ssl(path("missing.pem").c_str());
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(http_client_tls_is_set_up());
}

TEST_F(HttpClientTls, SetUpUsesWhatWasPreparedAndLogsTheSame)
{
    http_client_prepare_ssl(path("ca.pem").c_str());
    ASSERT_TRUE(std::filesystem::remove(path("ca.pem")));
    EXPECT_EQ(http_client_setup_ssl(path("ca.pem").c_str()), 0);
    EXPECT_TRUE(log.has("TRACE http_client - ca cert file location: " + path("ca.pem")));
    EXPECT_TRUE(log.has("TRACE http_client - https setup correct"));
    EXPECT_EQ(http_client_setup_ssl(path("ca.pem").c_str()), -1) << "prepared once, used twice";
}

TEST_F(HttpClientTls, SetUpOfAFileThatPreparingCouldNotUseFailsWithItsError)
{
    http_client_prepare_ssl(path("missing.pem").c_str());
    EXPECT_EQ(http_client_setup_ssl(path("missing.pem").c_str()), -1);
    EXPECT_TRUE(log.has("WARN http_client - SSL_CTX_load_verify_locations"));
    EXPECT_TRUE(log.contains("WARN http_client - SSL ERROR: error:"));
    EXPECT_FALSE(http_client_tls_is_set_up());
}

TEST_F(HttpClientTls, SetUpReadsAFileAgainThatPreparingCouldNotUse)
{
    write_file("late.pem", "half a file\n");
    http_client_prepare_ssl(path("late.pem").c_str());
    std::filesystem::copy_file(path("ca.pem"), path("late.pem"),
                               std::filesystem::copy_options::overwrite_existing);
    EXPECT_EQ(http_client_setup_ssl(path("late.pem").c_str()), 0);
    EXPECT_FALSE(log.contains("SSL ERROR"));
}

TEST_F(HttpClientTls, SetUpOfAnotherFileThanThePreparedOneReadsThatFile)
{
    http_client_prepare_ssl(path("ca.pem").c_str());
    EXPECT_EQ(http_client_setup_ssl(path("missing.pem").c_str()), -1);
}

TEST_F(HttpClientTls, SocketsAreClosedInChildProcesses)
{
    set_up();
    context = make_server_context(leaf({.dns_names = {"cloud.example.test"}}));
    server.emplace(base, context.get());
    const auto inheritable_sockets = [] {
        int count = 0;
        for (int fd = 3; fd < 256; ++fd) {
            struct stat info {};
            const int flags = fcntl(fd, F_GETFD);
            count += flags >= 0 && (flags & FD_CLOEXEC) == 0 && fstat(fd, &info) == 0 &&
                     S_ISSOCK(info.st_mode);
        }
        return count;
    };
    const int before = inheritable_sockets();
    test_outcome outcome;
    ASSERT_EQ(http_request_internal(HTTP_CLIENT_GET,
                                    request("https://cloud.example.test:" + server->port() + "/"),
                                    test_outcome::handler, &outcome),
              0);
    EXPECT_EQ(inheritable_sockets(), before) << "while it connects";
    EXPECT_TRUE(run_until([&outcome] { return outcome.calls == 1; }));
}

} // namespace
