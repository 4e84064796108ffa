#include "http/dns.h"

#include <netdb.h>

#include <array>
#include <optional>

#include "fixture.h"

namespace {

/// A name server on loopback: silent, or with one address for every question.
class test_name_server {
  public:
    explicit test_name_server(event_base *base)
        : fd_{socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)}
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        bind(fd_.get(), reinterpret_cast<sockaddr *>(&address), length);
        getsockname(fd_.get(), reinterpret_cast<sockaddr *>(&address), &length);
        line = "nameserver 127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "\n";
        event_.reset(event_new(base, fd_.get(), EV_READ | EV_PERSIST, readable, this));
        event_add(event_.get(), nullptr);
    }

    std::string line; // of resolv.conf
    enum { silent, loopback, no_such_name } answer = silent;
    int answers_by = -1;                // another socket, if not negative
    std::vector<std::string> questions; // raw names, in wire form

  private:
    static void readable(evutil_socket_t fd, short, void *argument)
    {
        auto *const server = static_cast<test_name_server *>(argument);
        std::array<char, 512> bytes{};
        sockaddr_in from{};
        socklen_t length = sizeof from;
        const ssize_t got = recvfrom(fd, bytes.data(), bytes.size(), 0,
                                     reinterpret_cast<sockaddr *>(&from), &length);
        if (got < 17) {
            return;
        }
        std::string packet{bytes.data(), static_cast<std::size_t>(got)};
        server->questions.push_back(packet.substr(12));
        if (server->answer == silent) {
            return;
        }
        const bool asks_for_ipv4 = packet[packet.size() - 3] == 1;
        packet[2] = static_cast<char>(0x81);
        packet[3] = static_cast<char>(server->answer == no_such_name ? 0x83 : 0x80);
        if (server->answer == loopback && asks_for_ipv4) {
            packet[7] = 1;
            packet += std::string{"\xc0\x0c\0\1\0\1\0\0\0\x3c\0\4\x7f\0\0\1", 16};
        }
        sendto(server->answers_by < 0 ? fd : server->answers_by, packet.data(), packet.size(), 0,
               reinterpret_cast<sockaddr *>(&from), length);
    }

    unique_fd fd_;
    event_ptr event_;
};

std::string text_of(const http_client_address &address)
{
    std::array<char, NI_MAXHOST> text{};
    getnameinfo(reinterpret_cast<const sockaddr *>(&address.bytes), address.size, text.data(),
                text.size(), nullptr, 0, NI_NUMERICHOST);
    return text.data();
}

struct lookup_outcome {
    int calls = 0;
    std::vector<std::string> addresses;

    [[nodiscard]] std::optional<std::string> first() const
    {
        return addresses.empty() ? std::nullopt : std::optional{addresses.front()};
    }

    static void callback(std::span<const http_client_address> addresses, void *argument)
    {
        auto *const outcome = static_cast<lookup_outcome *>(argument);
        ++outcome->calls;
        for (const http_client_address &address : addresses) {
            outcome->addresses.push_back(text_of(address));
        }
    }
};

class HttpClientDns : public http_client_fixture {
  protected:
    HttpClientDns()
    {
        write_file("resolv.conf", name_server.line);
        http_client_dns_start(base, {path("resolv.conf"), path("hosts")});
    }

    std::optional<std::string> resolve(const char *host)
    {
        lookup_outcome outcome;
        http_client_dns_lookup lookup;
        lookup.start(host, lookup_outcome::callback, &outcome);
        EXPECT_TRUE(run_until([&outcome] { return outcome.calls > 0; }));
        EXPECT_EQ(outcome.calls, 1);
        return outcome.first();
    }

    test_name_server name_server{base};
};

TEST_F(HttpClientDns, NamesOfTheHostsFileAreKnownAtOnceAndNobodyIsAsked)
{
    lookup_outcome outcome;
    http_client_dns_lookup lookup;
    lookup.start("CLOUD.example.test", lookup_outcome::callback, &outcome);
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_EQ(outcome.first(), "127.0.0.1");
    EXPECT_EQ(resolve("six.example.test"), "::1");
    EXPECT_TRUE(name_server.questions.empty());
}

TEST_F(HttpClientDns, AddressesAreTheirOwnAnswer)
{
    EXPECT_EQ(resolve("192.0.2.7"), "192.0.2.7");
    EXPECT_EQ(resolve("2001:db8::7"), "2001:db8::7");
    EXPECT_TRUE(name_server.questions.empty());
}

TEST_F(HttpClientDns, TheFamiliesOfANameTakeTurns)
{
    write_file("hosts", "127.0.0.1 both.example.test\n127.0.0.2 both.example.test\n"
                        "127.0.0.3 both.example.test\n::1 both.example.test\n"
                        "::2 both.example.test\n");
    lookup_outcome outcome;
    http_client_dns_lookup lookup;
    lookup.start("both.example.test", lookup_outcome::callback, &outcome);
    EXPECT_EQ(outcome.addresses,
              (std::vector<std::string>{"127.0.0.1", "::1", "127.0.0.2", "::2", "127.0.0.3"}));
}

TEST_F(HttpClientDns, ARequestReachesTheSecondAddressOfAName)
{
    test_server server{base};
    write_file("hosts", "127.0.0.77 both.example.test\n127.0.0.1 both.example.test\n");
    const test_outcome outcome =
        fetch(HTTP_CLIENT_GET, request("http://both.example.test:" + server.port() + "/"));
    EXPECT_EQ(outcome.code, 200);
    EXPECT_EQ(outcome.calls, 1);
}

TEST_F(HttpClientDns, AsksTheNameServerForOtherNamesInTheirOwnCase)
{
    name_server.answer = test_name_server::loopback;
    EXPECT_EQ(resolve("asked.example.test"), "127.0.0.1");
    ASSERT_FALSE(name_server.questions.empty());
    for (const std::string &question : name_server.questions) {
        EXPECT_TRUE(question.starts_with("\x05"
                                         "asked\x07"
                                         "example\x04"
                                         "test"));
    }
}

TEST_F(HttpClientDns, ANameThatDoesNotExistHasNoAddress)
{
    name_server.answer = test_name_server::no_such_name;
    EXPECT_EQ(resolve("asked.example.test"), std::nullopt);
    EXPECT_TRUE(log.contains(" - cannot resolve asked.example.test: "));
}

TEST_F(HttpClientDns, AFailingNameIsNotAskedForUnderTheSearchDomains)
{
    write_file("resolv.conf", name_server.line + "search corp.example\n");
    name_server.answer = test_name_server::no_such_name;
    EXPECT_EQ(resolve("asked.example.test"), std::nullopt);
    ASSERT_FALSE(name_server.questions.empty());
    for (const std::string &question : name_server.questions) {
        EXPECT_EQ(question.find("corp"), std::string::npos);
    }
}

TEST_F(HttpClientDns, ANameThatNoQuestionCanHoldHasNoAddress)
{
    EXPECT_EQ(resolve((std::string(64, 'a') + ".test").c_str()), std::nullopt);
    EXPECT_EQ(resolve((std::string(300, 'a') + ".test").c_str()), std::nullopt);
}

TEST_F(HttpClientDns, AChangedHostsFileCountsForTheNextQuestion)
{
    EXPECT_EQ(resolve("cloud.example.test"), "127.0.0.1");
    write_file("hosts", "127.0.0.17 cloud.example.test\n");
    EXPECT_EQ(resolve("cloud.example.test"), "127.0.0.17");
}

TEST_F(HttpClientDns, AChangedResolverFileCountsForTheNextQuestion)
{
    test_name_server other{base};
    other.answer = test_name_server::loopback;
    write_file("resolv.conf", "# moved\n" + other.line);
    EXPECT_EQ(resolve("asked.example.test"), "127.0.0.1");
    EXPECT_TRUE(name_server.questions.empty());
}

TEST_F(HttpClientDns, SettingUpTlsReadsTheFilesAgain)
{
    EXPECT_EQ(resolve("cloud.example.test"), "127.0.0.1");
    lookup_outcome outcome;
    http_client_dns_lookup lookup;
    lookup.start("asked.example.test", lookup_outcome::callback, &outcome);
    ASSERT_TRUE(run_until([this] { return !name_server.questions.empty(); }));
    test_name_server other{base};
    other.answer = test_name_server::loopback;
    write_file("resolv.conf", "# moved\n" + other.line);
    EXPECT_EQ(http_client_setup_ssl(path("missing.pem").c_str()), -1);
    EXPECT_TRUE(run_until([&outcome] { return outcome.calls == 1; }));
    EXPECT_EQ(outcome.first(), "127.0.0.1") << "the question under way moved to the new server";
}

TEST_F(HttpClientDns, MissingFilesLeaveLiteralsAndLocalhost)
{
    http_client_dns_start(base, {path("missing"), path("missing too")});
    EXPECT_EQ(resolve("192.0.2.7"), "192.0.2.7");
    EXPECT_EQ(resolve("localhost"), "127.0.0.1");
}

TEST_F(HttpClientDns, AnEmptyResolverFileLeavesTheHostsFileAndLiterals)
{
    write_file("resolv.conf", "");
    EXPECT_EQ(resolve("192.0.2.7"), "192.0.2.7");
    EXPECT_EQ(resolve("cloud.example.test"), "127.0.0.1");
}

TEST_F(HttpClientDns, AResolverFileThatIsADirectoryLeavesTheHostsFileAndLiterals)
{
    http_client_dns_start(base, {folder, path("hosts")});
    EXPECT_EQ(resolve("192.0.2.7"), "192.0.2.7");
    EXPECT_EQ(resolve("cloud.example.test"), "127.0.0.1");
    const test_outcome outcome = fetch(HTTP_CLIENT_GET, request("http://asked.example.test/", 1));
    EXPECT_LT(outcome.code, 0);
    EXPECT_EQ(outcome.calls, 1);
}

TEST_F(HttpClientDns, AResolverFileThatComesAfterTheStartCounts)
{
    name_server.answer = test_name_server::loopback;
    for (const bool missing : {true, false}) {
        write_file("resolv.conf", "");
        if (missing) {
            std::filesystem::remove(path("resolv.conf"));
        }
        http_client_dns_start(base, {path("resolv.conf"), path("hosts")});
        write_file("resolv.conf", name_server.line);
        EXPECT_EQ(resolve("asked.example.test"), "127.0.0.1") << missing;
    }
}

TEST_F(HttpClientDns, AnAnswerThatComesFromElsewhereIsNotBelievedAndLogged)
{
    const unique_fd elsewhere{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    sockaddr_in other_host{};
    other_host.sin_family = AF_INET;
    other_host.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
    ASSERT_EQ(bind(elsewhere.get(), reinterpret_cast<sockaddr *>(&other_host), sizeof other_host),
              0);
    name_server.answer = test_name_server::loopback;
    name_server.answers_by = elsewhere.get();
    lookup_outcome outcome;
    http_client_dns_lookup lookup;
    lookup.start("asked.example.test", lookup_outcome::callback, &outcome);
    EXPECT_TRUE(run_until([this] {
        return log.contains("WARN http_client - log_resolver_message - Address mismatch");
    }));
    EXPECT_EQ(outcome.calls, 0);
}

TEST_F(HttpClientDns, AForgottenQuestionDoesNotCallBack)
{
    lookup_outcome outcome;
    {
        http_client_dns_lookup lookup;
        lookup.start("asked.example.test", lookup_outcome::callback, &outcome);
        ASSERT_TRUE(run_until([this] { return !name_server.questions.empty(); }));
    }
    run_until([] { return false; }, 200);
    EXPECT_EQ(outcome.calls, 0);
}

TEST_F(HttpClientDns, ARequestToAResolvedNameIsAnsweredAndKeepsTheNameAsHost)
{
    name_server.answer = test_name_server::loopback;
    test_server server{base};
    const test_outcome outcome =
        fetch(HTTP_CLIENT_GET, request("http://asked.example.test:" + server.port() + "/"));
    EXPECT_EQ(outcome.code, 200);
    EXPECT_NE(server.requests.at(0).find("Host: asked.example.test\r\n"), std::string::npos);
}

TEST_F(HttpClientDns, ARequestToAnIpv6AddressKeepsItsBracketsAsHost)
{
    const unique_fd probe{socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    if (!probe) {
        GTEST_SKIP() << "this machine has no IPv6";
    }
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, request("http://[::1]:1/")).code, 0);
    EXPECT_TRUE(log.has("TRACE http_client - add_header - adding header Host: [::1]"));
}

TEST_F(HttpClientDns, AFailedLookUpEndsTheRequest)
{
    name_server.answer = test_name_server::no_such_name;
    const test_outcome outcome = fetch(HTTP_CLIENT_GET, request("http://asked.example.test:1/"));
    EXPECT_EQ(outcome.code, -2);
    EXPECT_EQ(outcome.calls, 1);
}

TEST_F(HttpClientDns, ASilentNameServerLetsTheLoopTurnAndTheRequestEndAtItsTimeOut)
{
    test_outcome outcome;
    ASSERT_EQ(http_request_internal(HTTP_CLIENT_GET, request("http://asked.example.test:1/", 1),
                                    test_outcome::handler, &outcome),
              0);
    // Meanwhile the loop serves others within milliseconds.
    test_server server{base};
    int served = 0;
    while (outcome.calls == 0 && served < 1000) {
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_EQ(
            fetch(HTTP_CLIENT_GET, request("http://cloud.example.test:" + server.port() + "/"))
                .code,
            200);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds{500});
        ++served;
        run_until([] { return false; }, 20);
    }
    EXPECT_GT(served, 5);
    EXPECT_EQ(outcome.code, -1);
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_FALSE(name_server.questions.empty());
}

} // namespace
