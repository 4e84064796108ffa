#include "http/sessions.h"

#include <openssl/x509.h>

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "http_client";

using time_point = std::chrono::steady_clock::time_point;

struct known_host {
    std::string name;
    ssl_session_ptr session;
};

struct module_state {
    std::vector<known_host> hosts; // the one that was heard of last comes last
    // Of the time of proof in a session. Indexes are never given back.
    int proved_index = -1;
    char proved_index_name[16] = "proved";
};
module_state state;

auto find(const std::string &host)
{
    return std::find_if(state.hosts.begin(), state.hosts.end(),
                        [&host](const known_host &known) { return known.name == host; });
}

int proved_index()
{
    if (state.proved_index < 0) {
        state.proved_index =
            SSL_SESSION_get_ex_new_index(0, state.proved_index_name, nullptr, nullptr, nullptr);
    }
    return state.proved_index;
}

/// Seconds, and one more, so that no time is a null pointer. A pointer of 32 bits has room for 68 years of
/// uptime. OpenSSL copies it into each session that comes of this one.
void *mark_of(time_point proved)
{
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(proved.time_since_epoch()).count();
    return reinterpret_cast<void *>( // NOLINT(performance-no-int-to-ptr): a number, never followed
        static_cast<std::intptr_t>(seconds + 1));
}

/// Meaningful only for a session that is marked.
time_point proved_at(const SSL_SESSION *session)
{
    const auto mark =
        reinterpret_cast<std::intptr_t>(SSL_SESSION_get_ex_data(session, proved_index()));
    return time_point{std::chrono::seconds{mark - 1}};
}

/// A session of a handshake that has proved the server is marked here. False for one that should have a
/// mark and has none.
bool has_time_of_proof(SSL_SESSION *session, bool resumed, time_point now)
{
    if (SSL_SESSION_get_ex_data(session, proved_index()) != nullptr) {
        return true;
    }
    return !resumed && SSL_SESSION_set_ex_data(session, proved_index(), mark_of(now)) == 1;
}

bool has_valid_certificate(SSL_SESSION *session)
{
    const X509 *const certificate = SSL_SESSION_get0_peer(session);
    return certificate != nullptr && X509_cmp_current_time(X509_get0_notAfter(certificate)) > 0;
}

} // namespace

bool http_client_session_keep(const std::string &host, SSL_SESSION *session, bool resumed,
                              time_point now)
{
    if (SSL_SESSION_get_protocol_version(session) != TLS1_3_VERSION ||
        !has_time_of_proof(session, resumed, now)) {
        return false;
    }
    const auto before = find(host);
    if (before != state.hosts.end()) {
        state.hosts.erase(before);
    } else if (state.hosts.size() == http_client_sessions_max) {
        state.hosts.erase(state.hosts.begin());
    }
    state.hosts.push_back({host, ssl_session_ptr{session}});
    return true;
}

void http_client_session_offer(const std::string &host, SSL *tls, time_point now)
{
    const auto known = find(host);
    if (known == state.hosts.end()) {
        return;
    }
    const ssl_session_ptr session = std::move(known->session);
    state.hosts.erase(known);
    if (now - proved_at(session.get()) >= http_client_session_time ||
        !has_valid_certificate(session.get())) {
        return;
    }
    const int rc = SSL_set_session(tls, session.get());
    REQUIRE_CALL(rc == 1, "SSL_set_session(tls, session)", rc);
    LOG_TRACE("%s - server: '%s'", __func__, host.c_str());
}

void http_client_session_forget(const std::string &host)
{
    if (const auto known = find(host); known != state.hosts.end()) {
        state.hosts.erase(known);
    }
}

void http_client_sessions_forget()
{
    state.hosts.clear();
}
