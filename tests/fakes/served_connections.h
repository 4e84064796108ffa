#pragma once

// First: libevhtp's headers rename what the system's regex.h declares.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/emulated.h"
#include "fakes/https_client.h"
#include "handles/evhtp.h"
#include "http_server/connections.h"
#include "http_server/pause.h"

/// Connections as the HTTPS server has them, with three routes of their own. "/now" and any other
/// path answer at once, "/pause" when `answer_paused` is called, "/much" with 16 MiB.

namespace served_connections {

using std::string;
using namespace std::chrono_literals;

struct request_seen {
    string path, assertion, attestation, body;
    int body_pieces = 0; // in which the library keeps it
};
inline std::vector<request_seen> seen;
inline std::vector<evhtp_request_t *> paused;
inline int last_socket = -1;
inline std::size_t kept_of_paused = 0; // of the body, while a request is paused

inline string header_of(evhtp_request_t *request, const char *name)
{
    const char *const value = evhtp_header_find(request->headers_in, name);
    return value == nullptr ? "(none)" : value;
}

inline void note(evhtp_request_t *request)
{
    const std::size_t size = evbuffer_get_length(request->buffer_in);
    string body(size, '\0');
    evbuffer_copyout(request->buffer_in, body.data(), size);
    seen.push_back({request->uri->path->full, header_of(request, "X-Assertion"),
                    header_of(request, "X-Attestation"), body,
                    evbuffer_peek(request->buffer_in, -1, nullptr, nullptr, 0)});
    last_socket = request->conn->sock;
}

inline void answer(evhtp_request_t *request, void *)
{
    note(request);
    evbuffer_add(request->buffer_out, "ok", 2);
    evhtp_send_reply(request, EVHTP_RES_OK);
}

inline void pause(evhtp_request_t *request, void *)
{
    note(request);
    evhtp_pause(request);
    if (kept_of_paused != 0) {
        http_connections_count_kept(request->conn, kept_of_paused);
    }
    paused.push_back(request);
}

inline void answer_much(evhtp_request_t *request, void *)
{
    const string much(16U << 20U, 'a');
    evbuffer_add(request->buffer_out, much.data(), much.size());
    evhtp_send_reply(request, EVHTP_RES_OK);
}

inline void answer_paused()
{
    evhtp_request_t *const request = paused.back();
    paused.pop_back();
    evbuffer_add(request->buffer_out, "ok", 2);
    evhtp_send_reply(request, EVHTP_RES_OK);
    evhtp_request_resume(request);
}

inline constexpr char get[] = "GET /now HTTP/1.1\r\nHost: a\r\n\r\n";
inline constexpr char get_paused[] = "GET /pause HTTP/1.1\r\nHost: a\r\n\r\n";

class Connections : public testing::Test {
  protected:
    Connections()
    {
        seen.clear();
        paused.clear();
        kept_of_paused = 0;
    }
    ~Connections() override
    {
        stop();
    }

    void serve(const http_connection_limits &limits = {})
    {
        htp.reset(evhtp_new(loop, nullptr));
        settings.pemfile = identity.cert_path.data();
        settings.privfile = identity.key_path.data();
        evhtp_enable_flag(htp.get(), EVHTP_FLAG_ENABLE_NODELAY);
        ASSERT_EQ(evhtp_ssl_init(htp.get(), &settings), 0);
        http_connections_attach(htp.get(), limits);
        ASSERT_EQ(evhtp_bind_socket(htp.get(), "127.0.0.1", port, 128), 0);
        http_connections_watch_listener();
        evhtp_set_cb(htp.get(), "/pause", pause, nullptr);
        evhtp_set_cb(htp.get(), "/much", answer_much, nullptr);
        evhtp_set_gencb(htp.get(), answer, nullptr);
    }

    void stop()
    {
        if (htp != nullptr) {
            http_connections_close();
            htp.reset();
        }
    }

    std::unique_ptr<https_client> client(const char *from = "127.0.0.1")
    {
        return std::make_unique<https_client>(loop, port, from);
    }
    std::unique_ptr<https_client> connected(const char *from = "127.0.0.1")
    {
        auto made = client(from);
        EXPECT_TRUE(made->handshake());
        return made;
    }
    bool reaches(std::size_t count)
    {
        return turn_until(loop, [count] { return http_connections_count() == count; });
    }
    bool pauses()
    {
        return turn_until(loop, [] { return !paused.empty(); });
    }

    static inline event_base *const loop = event_base_new();
    static inline tls_identity identity;
    captured_log log;
    unsigned short port = free_port();
    evhtp_ssl_cfg_t settings{};
    evhtp_ptr htp;
};

inline http_connection_limits quick()
{
    http_connection_limits limits;
    // Enough for the handshake and an answer.
    limits.request_time = is_emulated() ? timeval{2, 0} : timeval{0, 100 * 1000};
    return limits;
}

inline string many_headers(std::size_t count)
{
    string lines;
    for (std::size_t i = 0; i < count; ++i) {
        lines += "A: b\r\n";
    }
    return lines;
}

inline string post(const string &headers, const string &body = "")
{
    return "POST /now HTTP/1.1\r\n" + headers + "\r\n" + body;
}

} // namespace served_connections
