#include "http/sessions.h"

#include <openssl/x509.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "http_client";

using time_point = std::chrono::steady_clock::time_point;

struct known_host {
    std::string name;
    time_point proved;       // when it has shown its certificates
    ssl_session_ptr session; // null while it is in use
};

struct module_state {
    std::vector<known_host> hosts; // the one that was heard of last comes last
};
module_state state;

auto find(const std::string &host)
{
    return std::find_if(state.hosts.begin(), state.hosts.end(),
                        [&host](const known_host &known) { return known.name == host; });
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
    const auto before = find(host);
    if (SSL_SESSION_get_protocol_version(session) != TLS1_3_VERSION ||
        (resumed && before == state.hosts.end())) {
        return false;
    }
    const time_point proved = resumed ? before->proved : now;
    if (before != state.hosts.end()) {
        state.hosts.erase(before);
    } else if (state.hosts.size() == http_client_sessions_max) {
        state.hosts.erase(state.hosts.begin());
    }
    state.hosts.push_back({host, proved, ssl_session_ptr{session}});
    return true;
}

void http_client_session_offer(const std::string &host, SSL *tls, time_point now)
{
    const auto known = find(host);
    if (known == state.hosts.end() || known->session == nullptr) {
        return;
    }
    const ssl_session_ptr session = std::move(known->session);
    if (now - known->proved >= http_client_session_time || !has_valid_certificate(session.get())) {
        state.hosts.erase(known);
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
