#pragma once

#include <event2/http.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "async/common_async.h"
#include "fakes/captured_log.h"
#include "fakes/emulated.h"
#include "handles/fd.h"
#include "http/dns.h"
#include "http/http_client.h"
#include "test_certificates.h"
#include "test_server.h"

/// What a handler was told.
struct test_outcome {
    int calls = 0;
    int code = 12345;
    bool has_headers = false;
    bool has_body = false;
    std::string body;
    bool terminated = false;
    std::function<void()> inside; // runs within the handler

    static void handler(int code, evkeyvalq *headers, const char *body, std::size_t length,
                        void *argument)
    {
        auto *const outcome = static_cast<test_outcome *>(argument);
        ++outcome->calls;
        outcome->code = code;
        outcome->has_headers = headers != nullptr;
        outcome->has_body = body != nullptr;
        outcome->body = body != nullptr ? std::string{body, length} : "";
        outcome->terminated = body != nullptr && body[length] == '\0';
        if (outcome->inside) {
            outcome->inside();
        }
    }
};

/// The client on a real loop, with a hosts file of its own: cloud.example.test and
/// other.example.test are this machine.
class http_client_fixture : public testing::Test {
  protected:
    http_client_fixture()
    {
        std::signal(SIGPIPE, SIG_IGN); // as in the daemon
        std::string pattern =
            (std::filesystem::temp_directory_path() / "velm_http_XXXXXX").string();
        folder = mkdtemp(pattern.data());
        write_file("hosts", "127.0.0.1 cloud.example.test other.example.test\n"
                            "::1 six.example.test\n");
        write_file("resolv.conf", "nameserver 127.0.0.1:9\n");
        common_async_set_event_base(base);
        common_async_init();
        http_client_set_event_base(base);
        http_client_dns_start(base, {path("resolv.conf"), path("hosts")});
    }

    ~http_client_fixture() override
    {
        http_client_free_ssl();
        http_client_set_user_agent_string(nullptr);
        // libevent frees connections a turn later.
        for (int turn = 0; turn < 10; ++turn) {
            event_base_loop(base, EVLOOP_NONBLOCK);
        }
        std::filesystem::remove_all(folder);
    }

    [[nodiscard]] std::string path(const std::string &name) const
    {
        return folder + "/" + name;
    }

    void write_file(const std::string &name, const std::string &text) const
    {
        std::ofstream{path(name), std::ios::trunc} << text;
    }

    /// Turns the loop until the condition holds; false after the deadline.
    bool run_until(const std::function<bool()> &condition,
                   int deadline_ms = is_emulated() ? 60000 : 8000)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds{deadline_ms};
        while (!condition() && std::chrono::steady_clock::now() < end) {
            const timeval tick{0, 10000};
            event_base_loopexit(base, &tick);
            event_base_loop(base, EVLOOP_ONCE);
        }
        return condition();
    }

    /// Runs the request to its end.
    test_outcome fetch(http_client_method method, const http_client_request_data &data)
    {
        test_outcome outcome;
        EXPECT_EQ(http_request_internal(method, data, test_outcome::handler, &outcome), 0);
        EXPECT_EQ(outcome.calls, 0) << "the handler ran inside the call";
        EXPECT_TRUE(run_until([&outcome] { return outcome.calls > 0; }));
        return outcome;
    }

    /// What the started request would say; expects that it does not start.
    void expect_no_start(const http_client_request_data &data)
    {
        test_outcome outcome;
        EXPECT_LT(http_request_internal(HTTP_CLIENT_GET, data, test_outcome::handler, &outcome), 0);
        for (int turn = 0; turn < 10; ++turn) {
            event_base_loop(base, EVLOOP_NONBLOCK);
        }
        EXPECT_EQ(outcome.calls, 0);
    }

    static http_client_request_data request(const std::string &uri, int timeout_s = 5)
    {
        http_client_request_data data;
        data.uri = uri;
        data.timeout_s = timeout_s;
        return data;
    }

    static int count(const std::string &text, const std::string &part)
    {
        int found = 0;
        for (std::size_t at = text.find(part); at != std::string::npos;
             at = text.find(part, at + 1)) {
            ++found;
        }
        return found;
    }

    // Outlives the modules' events, as in the daemon.
    static inline event_base *const base = event_base_new();
    captured_log log;
    std::string folder;
};
