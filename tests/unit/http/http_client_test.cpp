#include "http/http_client.h"

#include "fixture.h"

namespace {

class HttpClient : public http_client_fixture {
  protected:
    std::string uri(const std::string &rest = "/path") const
    {
        return "http://cloud.example.test:" + server.port() + rest;
    }
    const std::string &received() const
    {
        return server.requests.at(0);
    }
    test_server server{base};
};

TEST_F(HttpClient, GivesCodeHeadersAndATerminatedBody)
{
    server.reply = "HTTP/1.1 404 Not Found\r\nContent-Length: 5\r\n\r\ngone!";
    const test_outcome outcome = fetch(HTTP_CLIENT_GET, request(uri()));
    EXPECT_EQ(outcome.code, 404);
    EXPECT_EQ(outcome.body, "gone!");
    EXPECT_TRUE(outcome.has_headers);
    EXPECT_TRUE(outcome.terminated);
    EXPECT_EQ(outcome.calls, 1);
}

TEST_F(HttpClient, ReadsAChunkedBody)
{
    server.reply = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                   "3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n";
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, request(uri())).body, "abcde");
}

TEST_F(HttpClient, ReadsABodyThatEndsWithThePlainConnection)
{
    server.reply = "HTTP/1.1 200 OK\r\n\r\nto the end";
    server.close_after_reply = true;
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, request(uri())).body, "to the end");
}

TEST_F(HttpClient, ABodyMayHoldNulBytes)
{
    server.reply = std::string{"HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\na"} + '\0' + 'b';
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, request(uri())).body, (std::string{"a\0b", 3}));
}

TEST_F(HttpClient, ANoContentAnswerHasNoBody)
{
    server.reply = "HTTP/1.1 204 No Content\r\n\r\n";
    const test_outcome outcome = fetch(HTTP_CLIENT_GET, request(uri()));
    EXPECT_EQ(outcome.code, 204);
    EXPECT_FALSE(outcome.has_body);
}

TEST_F(HttpClient, SendsTheDefaultHeadersInTheirOrder)
{
    http_client_set_user_agent_string("velmd/1");
    http_client_request_data data = request(uri("/a/b?c=d&e"));
    data.post_data = "{\"x\":1}";
    fetch(HTTP_CLIENT_POST, data);
    EXPECT_THAT(received(), testing::MatchesRegex("POST /a/b\\?c=d&e HTTP/1.1\r\n"
                                                  "Host: cloud.example.test\r\n"
                                                  "Accept: \\*/\\*\r\n"
                                                  "Connection: close\r\n"
                                                  "User-Agent: velmd/1\r\n"
                                                  "X-Request-ID: [0-9a-f]{32}\r\n"
                                                  "Content-Type: application/json\r\n"
                                                  "Content-Length: 7\r\n"
                                                  "\r\n"
                                                  "\\{\"x\":1\\}"));
    EXPECT_TRUE(log.has("TRACE http_client - add_header - adding header Accept: */*"));
}

TEST_F(HttpClient, EveryRequestHasAnIdOfItsOwn)
{
    fetch(HTTP_CLIENT_GET, request(uri()));
    fetch(HTTP_CLIENT_GET, request(uri()));
    const auto id = [this](std::size_t i) {
        const std::string &text = server.requests.at(i);
        return text.substr(text.find("X-Request-ID: "), 46);
    };
    EXPECT_NE(id(0), id(1));
}

TEST_F(HttpClient, NoUserAgentIsSentWhenNoneIsSet)
{
    http_client_set_user_agent_string("velmd/1");
    http_client_set_user_agent_string(nullptr);
    fetch(HTTP_CLIENT_GET, request(uri()));
    EXPECT_EQ(received().find("User-Agent"), std::string::npos);
}

TEST_F(HttpClient, ACallersAcceptHeaderReplacesTheDefaultAndIsSentOnce)
{
    http_client_request_data data = request(uri());
    http_client_add_header(&data, "aCCept", "text/plain");
    fetch(HTTP_CLIENT_GET, data);
    EXPECT_EQ(count(received(), "Accept: text/plain\r\n"), 1);
    EXPECT_EQ(count(received(), "*/*"), 0);
    EXPECT_EQ(count(received(), "aCCept"), 0);
}

TEST_F(HttpClient, AHeaderWhoseNameOnlyBeginsLikeADefaultIsAnExtraOne)
{
    http_client_request_data data = request(uri());
    http_client_add_header(&data, "Accept-Language", "de");
    http_client_add_header(&data, "Hos", "x");
    fetch(HTTP_CLIENT_GET, data);
    EXPECT_EQ(count(received(), "Accept: */*\r\n"), 1);
    EXPECT_EQ(count(received(), "Accept-Language: de\r\nHos: x\r\n\r\n"), 1)
        << "extra headers come last, in the caller's order";
}

TEST_F(HttpClient, EveryDefaultHeaderCanBeReplaced)
{
    http_client_set_user_agent_string("velmd/1");
    http_client_request_data data = request(uri());
    for (const char *name :
         {"host", "accept", "connection", "user-agent", "x-request-id", "content-type"}) {
        http_client_add_header(&data, name, "mine");
    }
    fetch(HTTP_CLIENT_GET, data);
    EXPECT_EQ(count(received(), ": mine\r\n"), 6);
    EXPECT_EQ(count(received(), "\r\n"), 8);
}

TEST_F(HttpClient, ADeleteWithPostDataSendsNeitherBodyNorContentLength)
{
    http_client_request_data data = request(uri());
    data.post_data = "data";
    fetch(HTTP_CLIENT_DELETE, data);
    EXPECT_TRUE(received().starts_with("DELETE /path HTTP/1.1\r\n"));
    EXPECT_EQ(received().find("Content-Length"), std::string::npos);
    EXPECT_TRUE(received().ends_with("\r\n\r\n"));
}

TEST_F(HttpClient, AGetWithPostDataSendsNeitherBodyNorContentLength)
{
    http_client_request_data data = request(uri());
    data.post_data = "data";
    fetch(HTTP_CLIENT_GET, data);
    EXPECT_EQ(received().find("Content-Length"), std::string::npos);
    EXPECT_TRUE(received().ends_with("\r\n\r\n"));
}

struct body_case {
    const char *name;
    int method;
    const char *sent_as;
    const char *logged_as;
};
class HttpClientBody : public HttpClient, public testing::WithParamInterface<body_case> {};

TEST_P(HttpClientBody, IsSentOnceWithItsLength)
{
    http_client_request_data data = request(uri());
    data.post_data = "12345";
    fetch(static_cast<http_client_method>(GetParam().method), data);
    EXPECT_TRUE(received().starts_with(std::string{GetParam().sent_as} + " /path HTTP/1.1\r\n"));
    EXPECT_EQ(count(received(), "Content-Length: 5\r\n"), 1);
    EXPECT_TRUE(received().ends_with("\r\n\r\n12345"));
    EXPECT_TRUE(log.contains(std::string{") - "} + GetParam().logged_as + " http://"));
}
INSTANTIATE_TEST_SUITE_P(Methods, HttpClientBody,
                         testing::Values(body_case{"Post", 1, "POST", "POST"},
                                         body_case{"Patch", 2, "PATCH", "PATCH"},
                                         body_case{"Put", 4, "PUT", "PUT"},
                                         body_case{"UnknownIsSentAsPost", 5, "POST", "unknown"},
                                         body_case{"NegativeIsSentAsPost", -1, "POST", "unknown"}),
                         [](const auto &row) { return std::string{row.param.name}; });

TEST_F(HttpClient, APostWithoutDataSaysLengthZero)
{
    fetch(HTTP_CLIENT_POST, request(uri()));
    EXPECT_EQ(count(received(), "Content-Length: 0\r\n"), 1);
}

TEST_F(HttpClient, AnEmptyPathIsSentAsTheRoot)
{
    fetch(HTTP_CLIENT_GET, request(uri("")));
    EXPECT_TRUE(received().starts_with("GET / HTTP/1.1\r\n"));
}

TEST_F(HttpClient, AFragmentIsNotSent)
{
    fetch(HTTP_CLIENT_GET, request(uri("/a?b#c")));
    EXPECT_TRUE(received().starts_with("GET /a?b HTTP/1.1\r\n"));
}

struct uri_case {
    const char *name, *uri, *line;
};
class HttpClientUri : public http_client_fixture, public testing::WithParamInterface<uri_case> {};

TEST_P(HttpClientUri, ThatCannotBeUsedStartsNothing)
{
    expect_no_start(request(GetParam().uri));
    EXPECT_TRUE(log.contains(std::string{GetParam().line} + GetParam().uri));
}
INSTANTIATE_TEST_SUITE_P(
    Uris, HttpClientUri,
    testing::Values(uri_case{"Unparseable", "http://a:99999/", " - cannot parse uri: "},
                    uri_case{"BlankInside", "http://a/b c", " - cannot parse uri: "},
                    uri_case{"NoHost", "/only/a/path", " - no host in uri: "},
                    uri_case{"EmptyHost", "https:///path", " - no host in uri: "},
                    uri_case{"Empty", "", " - no host in uri: "},
                    uri_case{"OtherScheme", "ftp://a/", " - invalid scheme in uri: "},
                    uri_case{"NoScheme", "//a/b", " - invalid scheme in uri: "}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(HttpClient, AUriThatWouldForgeARequestLineStartsNothing)
{
    expect_no_start(request("http://cloud.example.test/ HTTP/1.1\r\nX: y"));
    EXPECT_TRUE(log.contains(" - cannot parse uri: "));
}

TEST_F(HttpClient, HttpsWithoutATlsContextStartsNothing)
{
    expect_no_start(request("https://cloud.example.test/"));
    EXPECT_TRUE(log.has("ERROR http_client - get_conn_by_scheme - ssl ctx not set"));
    EXPECT_TRUE(log.contains(" - cannot create internal connection object"));
}

struct header_case {
    const char *name, *header, *value;
};
class HttpClientHeader : public http_client_fixture,
                         public testing::WithParamInterface<header_case> {};

TEST_P(HttpClientHeader, ThatWouldForgeAnotherStartsNothing)
{
    http_client_request_data data = request("http://cloud.example.test/");
    http_client_add_header(&data, GetParam().header, GetParam().value);
    expect_no_start(data);
}
INSTANTIATE_TEST_SUITE_P(Headers, HttpClientHeader,
                         testing::Values(header_case{"LineEndInValue", "X", "a\r\nY: b"},
                                         header_case{"FoldedValue", "X", "a\r\n b"},
                                         header_case{"CarriageReturn", "X", "a\rb"},
                                         header_case{"InADefaultOne", "Accept", "a\nb"},
                                         header_case{"LineEndInName", "X\r\nY", "a"},
                                         header_case{"ColonInName", "X:Y", "a"},
                                         header_case{"EmptyName", "", "a"}),
                         [](const auto &row) { return std::string{row.param.name}; });

TEST_F(HttpClient, ANullHeaderArgumentEndsTheProcess)
{
    http_client_request_data data;
    EXPECT_DEATH(http_client_add_header(nullptr, "a", "b"),
                 "http_client_add_header: data is null: null reference");
    EXPECT_DEATH(http_client_add_header(&data, nullptr, "b"),
                 "http_client_add_header: header_name is null: null reference");
    EXPECT_DEATH(http_client_add_header(&data, "a", nullptr),
                 "http_client_add_header: header_value is null: null reference");
}

TEST_F(HttpClient, LogsTheRequestAndItsEnd)
{
    fetch(HTTP_CLIENT_GET, request(uri()));
    EXPECT_TRUE(log.contains(") - GET " + uri()));
    EXPECT_TRUE(log.contains(", got response with code 200"));
    EXPECT_TRUE(log.contains("TRACE http_client - http_client_context_free - ctx 0x"));
}

TEST_F(HttpClient, AHandlerMayStartTheNextRequest)
{
    test_outcome second;
    test_outcome first;
    first.inside = [&] {
        EXPECT_EQ(http_request_internal(HTTP_CLIENT_GET, request(uri("/2")), test_outcome::handler,
                                        &second),
                  0);
    };
    ASSERT_EQ(http_request_internal(HTTP_CLIENT_GET, request(uri()), test_outcome::handler, &first),
              0);
    EXPECT_TRUE(run_until([&] { return second.calls == 1; }));
    EXPECT_EQ(second.code, 200);
}

TEST_F(HttpClient, ManyRequestsAtOnceEachGetTheirAnswer)
{
    std::vector<test_outcome> outcomes(50);
    for (test_outcome &outcome : outcomes) {
        ASSERT_EQ(
            http_request_internal(HTTP_CLIENT_GET, request(uri()), test_outcome::handler, &outcome),
            0);
    }
    EXPECT_TRUE(run_until([&] {
        return std::all_of(outcomes.begin(), outcomes.end(),
                           [](const test_outcome &outcome) { return outcome.calls == 1; });
    }));
    EXPECT_EQ(server.connections, 50);
}

class HttpClientHeldConnection : public HttpClient {
  protected:
    http_client_request_data held(const std::string &target)
    {
        http_client_request_data data = request(target);
        data.connection = connection;
        return data;
    }
    http_client_connection *connection = http_client_connection_create();
};

TEST_F(HttpClientHeldConnection, ServesSeveralRequestsToItsHost)
{
    server.close_after_reply = true;
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, held(uri("/1"))).code, 200);
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, held(uri("/2"))).code, 200);
    EXPECT_EQ(server.requests.size(), 2U);
    http_client_connection_free(connection);
}

TEST_F(HttpClientHeldConnection, IsReusedWhenTheCallerAsksToKeepItOpen)
{
    for (int i = 0; i < 3; ++i) {
        http_client_request_data data = held(uri());
        http_client_add_header(&data, "Connection", "keep-alive");
        EXPECT_EQ(fetch(HTTP_CLIENT_GET, data).code, 200);
    }
    EXPECT_EQ(server.connections, 1);
    http_client_connection_free(connection);
}

TEST_F(HttpClientHeldConnection, RefusesAnotherHost)
{
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, held(uri())).code, 200);
    expect_no_start(held("http://other.example.test:" + server.port() + "/"));
    EXPECT_TRUE(log.contains(" - hosts mismatch: cloud.example.test vs other.example.test"));
    http_client_connection_free(connection);
}

TEST_F(HttpClientHeldConnection, MadeForPlainHttpNeverCarriesHttps)
{
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, held(uri())).code, 200);
    expect_no_start(held("https://cloud.example.test:" + server.port() + "/"));
    EXPECT_TRUE(log.contains(" - cannot create internal connection object"));
    http_client_connection_free(connection);
}

TEST_F(HttpClientHeldConnection, FreedUnderItsRequestsEndsEachOnce)
{
    server.on_request = [](bufferevent *) {};
    std::vector<test_outcome> outcomes(3);
    for (test_outcome &outcome : outcomes) {
        ASSERT_EQ(
            http_request_internal(HTTP_CLIENT_GET, held(uri()), test_outcome::handler, &outcome),
            0);
    }
    ASSERT_TRUE(run_until([this] { return !server.requests.empty(); }));
    http_client_connection_free(connection);
    EXPECT_EQ(outcomes[0].calls, 0) << "the handler ran inside the call";
    EXPECT_TRUE(run_until([&] { return outcomes[2].calls == 1; }));
    for (const test_outcome &outcome : outcomes) {
        EXPECT_EQ(outcome.calls, 1);
        EXPECT_EQ(outcome.code, -5);
    }
}

TEST_F(HttpClientHeldConnection, MayBeFreedInTheHandler)
{
    test_outcome outcome;
    outcome.inside = [this] { http_client_connection_free(connection); };
    ASSERT_EQ(http_request_internal(HTTP_CLIENT_GET, held(uri()), test_outcome::handler, &outcome),
              0);
    EXPECT_TRUE(run_until([&outcome] { return outcome.calls == 1; }));
    EXPECT_EQ(outcome.code, 200);
}

TEST_F(HttpClientHeldConnection, ATimeOutOfOneRequestLeavesTheNextItsTurn)
{
    server.on_request = [this](bufferevent *bufev) {
        if (server.requests.size() == 2) {
            bufferevent_write(bufev, server.reply.data(), server.reply.size());
        }
    };
    test_outcome slow;
    test_outcome next;
    http_client_request_data first = held(uri("/slow"));
    first.timeout_s = 1;
    ASSERT_EQ(http_request_internal(HTTP_CLIENT_GET, first, test_outcome::handler, &slow), 0);
    ASSERT_EQ(
        http_request_internal(HTTP_CLIENT_GET, held(uri("/next")), test_outcome::handler, &next),
        0);
    EXPECT_TRUE(run_until([&] { return next.calls == 1; }));
    EXPECT_EQ(slow.calls, 1);
    EXPECT_EQ(slow.code, -1);
    EXPECT_EQ(next.code, 200);
    http_client_connection_free(connection);
}

} // namespace
