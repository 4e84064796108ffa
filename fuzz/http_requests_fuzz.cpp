#include <arpa/inet.h>
#include <dlfcn.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "allocation_meter.h"
#include "fuzz_target.h"
#include "handles/evhtp.h"
#include "handles/fd.h"
#include "handles/libevent.h"
#include "http_server/connections.h"
#include "http_server/intake.h"
#include "request/input.h"

/// The way of bytes from a client to a route: the real server on the loopback, without TLS.

/// libevent lets only the socket add to the input of a connection without TLS. The server adds to it
/// itself, so this opens the input first.
extern "C" int evbuffer_add_reference(evbuffer *buffer, const void *data, std::size_t size,
                                      evbuffer_ref_cleanup_cb cleanup, void *argument)
{
    static auto *const real = reinterpret_cast<decltype(&evbuffer_add_reference)>(
        dlsym(RTLD_NEXT, "evbuffer_add_reference"));
    evbuffer_unfreeze(buffer, 0);
    return real(buffer, data, size, cleanup, argument);
}

/// The server writes a refusal straight into TLS. There is none here, so nobody gets it.
extern "C" int SSL_write(SSL *, const void *, int)
{
    return -1;
}

extern "C" int SSL_shutdown(SSL *)
{
    return -1;
}

/// The server counts the bytes that come before the handshake is done. Here no handshake is made.
extern "C" BIO *SSL_get_rbio(const SSL *)
{
    static BIO *const nobodys = BIO_new(BIO_s_mem());
    return nobodys;
}

namespace {

using seen_request = std::tuple<int, std::string, std::string, std::string, std::string>;

struct module_state {
    event_base_ptr loop;
    evhtp_ptr server;
    sockaddr_in address{};
    std::vector<seen_request> seen;
    evhtp_request_t *paused = nullptr;
};
module_state *state;

std::string text_or_empty(const char *text)
{
    return text == nullptr ? "" : text;
}

void route(evhtp_request_t *request, void *) noexcept
{
    const std::string path = text_or_empty(request->uri != nullptr && request->uri->path != nullptr
                                               ? request->uri->path->full
                                               : nullptr);
    const auto body = request_body_copy(request, __func__, "body");
    FUZZ_REQUIRE(body && body->size() <= http_server_max_body_size);
    const std::string assertion = text_or_empty(request_header(request, "X-Assertion"));
    const std::string attestation = text_or_empty(request_header(request, "X-Attestation"));
    FUZZ_REQUIRE(assertion.size() <= http_head_max_lifted);
    FUZZ_REQUIRE(attestation.size() <= http_head_max_lifted);
    state->seen.emplace_back(request->method, path, *body, assertion, attestation);
    if (path.starts_with("/p")) {
        FUZZ_REQUIRE(state->paused == nullptr); // one request of a connection at a time
        evhtp_request_pause(request);
        state->paused = request;
        return;
    }
    evhtp_send_reply(request, EVHTP_RES_OK);
}

module_state *make_state()
{
    auto *const made = new module_state;
    made->loop.reset(event_base_new());
    made->server.reset(evhtp_new(made->loop.get(), nullptr));
    http_connection_limits limits;
    limits.request_time = {3600, 0};
    http_connections_attach(made->server.get(), limits);
    evhtp_set_gencb(made->server.get(), route, nullptr);
    FUZZ_REQUIRE(evhtp_bind_socket(made->server.get(), "127.0.0.1", 0, 16) == 0);
    socklen_t length = sizeof made->address;
    getsockname(evconnlistener_get_fd(made->server->server),
                reinterpret_cast<sockaddr *>(&made->address), &length);
    return made;
}

void turn(int times)
{
    for (; times > 0; --times) {
        event_base_loop(state->loop.get(), EVLOOP_NONBLOCK);
        if (http_connections_count() == 0) {
            state->paused = nullptr;
        }
        if (evhtp_request_t *const request = std::exchange(state->paused, nullptr)) {
            evhtp_send_reply(request, EVHTP_RES_OK);
            evhtp_request_resume(request);
        }
    }
}

/// A client whose bytes come in pieces of these sizes, in turn; then it is gone.
std::vector<seen_request> serve(std::string_view bytes, std::size_t piece)
{
    state->seen.clear();
    {
        const unique_fd client{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
        // A reset at the end, so that no port is kept waiting.
        const linger at_once{1, 0};
        setsockopt(client.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        const int one = 1;
        setsockopt(client.get(), IPPROTO_TCP, 1 /* TCP_NODELAY */, &one, sizeof one);
        (void)connect(client.get(), reinterpret_cast<const sockaddr *>(&state->address),
                      sizeof state->address);
        turn(2);
        FUZZ_REQUIRE(http_connections_count() == 1);
        while (!bytes.empty() && http_connections_count() == 1) {
            const ssize_t sent = send(client.get(), bytes.data(), std::min(piece, bytes.size()),
                                      MSG_NOSIGNAL | MSG_DONTWAIT);
            bytes.remove_prefix(sent > 0 ? static_cast<std::size_t>(sent) : bytes.size());
            turn(2);
        }
        // As many as there may be requests waiting for the answer of the one before.
        for (std::size_t before = 0; before != state->seen.size() + 1;) {
            before = state->seen.size() + 1;
            turn(4);
        }
    }
    turn(2);
    FUZZ_REQUIRE(http_connections_count() == 0);
    return std::exchange(state->seen, {});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (state == nullptr) {
        state = make_state();
        serve("GET / HTTP/1.1\r\n\r\n", 4); // whatever is made once
    }
    const std::string_view bytes = fuzz_text({data, size});
    std::vector<seen_request> whole;
    {
        const allocation_meter meter;
        whole = serve(bytes, std::max<std::size_t>(size, 1));
        FUZZ_REQUIRE(meter.peak() <= 300 * 1024 + 24 * size);
    }
    // What the routes see is in the bytes, not in how they came.
    FUZZ_REQUIRE(serve(bytes, 1 + size / 16) == whole);
    return 0;
}
