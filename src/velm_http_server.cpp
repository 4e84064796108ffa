#include "velm_http_server.h"

#include <arpa/inet.h>
#include <openssl/err.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "async/common_async.h"
#include "config/file_notes.h"
#include "crypto/openssl_error.h"
#include "handles/evhtp.h"
#include "handles/openssl.h"
#include "http_server/connections.h"
#include "http_server/key_file.h"
#include "http_server/log.h"
#include "http_server/routes.h"
#include "http_server/tls_settings.h"
#include "lan/wait.h"
#include "logger/fatal.h"
#include "process/notify.h"

namespace {

constexpr int HTTP_SERVER_MAX_CONNS = 128; // the listen backlog
constexpr int library_failure = -1;        // what libevhtp tells of any

/// libevhtp's record borrows the texts, and the instance borrows the record.
struct tls_settings {
    std::string pemfile;
    std::string privfile;
    evhtp_ssl_cfg_t http_server_ssl_config{};
};

struct module_state {
    event_base *base = nullptr;
    const velm_config *config = nullptr;
    std::unique_ptr<tls_settings> settings;         // what the next start uses
    std::unique_ptr<tls_settings> settings_serving; // what the instance borrows
    evhtp_ptr http_server_instance;
    velm_lan_wait address_wait; // while the instance could not be bound
};
module_state state;

EVP_PKEY *read_private_key(char *path) noexcept
{
    return http_key_file_read(path).release();
}

std::unique_ptr<tls_settings> make_tls_settings(const velm_config *config)
{
    auto settings = std::make_unique<tls_settings>();
    settings->pemfile = config->http_server_cert_path;
    settings->privfile = config->http_server_key_path;
    evhtp_ssl_cfg_t &http_server_ssl_config = settings->http_server_ssl_config;
    http_server_ssl_config.pemfile = settings->pemfile.data();
    http_server_ssl_config.privfile = settings->privfile.data();
    http_server_ssl_config.decrypt_cb = read_private_key;
    http_server_ssl_config.ssl_opts = SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1;
    return settings;
}

/// evhtp_ssl_init says yes to a certificate and a key that nobody can be served with.
bool init_tls(evhtp_t *http_server_instance, evhtp_ssl_cfg_t *http_server_ssl_config)
{
    ERR_clear_error();
    const bool can_serve = evhtp_ssl_init(http_server_instance, http_server_ssl_config) >= 0 &&
                           SSL_CTX_get0_certificate(http_server_instance->ssl_ctx) != nullptr &&
                           SSL_CTX_check_private_key(http_server_instance->ssl_ctx) == 1;
    if (!can_serve) {
        const openssl_error error = openssl_last_error();
        LOG_REASON(LOG_LEVEL_ERROR, "%s - cannot use %s with %s: %s", __func__,
                   http_server_ssl_config->pemfile, http_server_ssl_config->privfile,
                   error.code != 0 ? error.text.c_str() : "no reason given");
    }
    ERR_clear_error();
    return can_serve;
}

/// evhtp_bind_socket takes text that is no address for one. False, and errno, when it failed: with
/// EADDRNOTAVAIL the address may come, anything else ends the process.
bool bind_socket(evhtp_t *http_server_instance)
{
    const std::string address = velm_config_lan_ip_address(state.config);
    in_addr checked{};
    if (inet_pton(AF_INET, address.c_str(), &checked) != 1) {
        LOG_REASON(LOG_LEVEL_ERROR, "%s - no IPv4 address: %s", __func__, address.c_str());
        errno = EINVAL;
        return false;
    }
    const bool is_bound =
        evhtp_bind_socket(http_server_instance, address.c_str(), state.config->http_server_port,
                          HTTP_SERVER_MAX_CONNS) >= 0;
    const int error = errno;
    if (!is_bound && error != EADDRNOTAVAIL) {
        LOG_REASON(LOG_LEVEL_ERROR, "%s - %s:%u: %s", __func__, address.c_str(),
                   unsigned{state.config->http_server_port}, std::strerror(error));
    }
    errno = error;
    return is_bound;
}

constexpr char start_name[] = "http_server_start"; // its steps log in its name
constexpr char bind_call[] =
    "evhtp_bind_socket( http_server_instance, velm_config->lan_ip_address, "
    "velm_config->http_server_port, HTTP_SERVER_MAX_CONNS)";

void bind_again(evutil_socket_t, short, void *) noexcept;

/// An address that is announced may not be there yet, or no longer: the next attempt or the next
/// announcement finds it.
void wait_for_address()
{
    if (!state.address_wait.is_waiting()) {
        LOG_ERROR("%s: call failed: %s result: %i loc: %s:%i", start_name, bind_call,
                  library_failure, __FILE__, __LINE__);
        const std::string address = velm_config_lan_ip_address(state.config);
        LOG_INFO("%s - until an interface has %s", __func__, address.c_str());
        process_notify_status("Waits for the LAN address %s; serves local clients",
                              address.c_str());
    }
    state.address_wait.again(state.base, bind_again);
}

void stop_waiting()
{
    if (state.address_wait.is_waiting()) {
        LOG_INFO("%s - an interface has %s", __func__,
                 velm_config_lan_ip_address(state.config).c_str());
        state.address_wait.end();
    }
}

void bind_or_wait()
{
    if (bind_socket(state.http_server_instance.get())) {
        stop_waiting();
        http_connections_watch_listener();
        process_notify_status("Serves phones at %s:%u",
                              velm_config_lan_ip_address(state.config).c_str(),
                              unsigned{state.config->http_server_port});
    } else if (errno == EADDRNOTAVAIL) {
        wait_for_address();
    } else {
        process_notify_status("Ended: cannot listen at %s:%u",
                              velm_config_lan_ip_address(state.config).c_str(),
                              unsigned{state.config->http_server_port});
        fatal_call(log_category, __FILE__, __LINE__, start_name, bind_call, library_failure);
    }
}

void bind_again(evutil_socket_t, short, void *) noexcept
{
    bind_or_wait();
}

void start_action(void *, short, common_async_context *) noexcept
{
    http_server_start();
}

} // namespace

const velm_config *http_server_config()
{
    return state.config;
}

void http_server_start()
{
    LOG_TRACE("%s - begin", __func__);
    velm_http_server_stop();
    if (state.config->http_server_port == 0) {
        LOG_ERROR("%s - not configured", __func__);
        process_notify_status("Serves local clients only: http.server.port is 0");
        return;
    }
    state.http_server_instance.reset(evhtp_new(state.base, nullptr));
    REQUIRE_MEMORY(state.http_server_instance, "http_server_instance");
    evhtp_t *const http_server_instance = state.http_server_instance.get();
    evhtp_enable_flag(http_server_instance, EVHTP_FLAG_ENABLE_NODELAY);
    const bool can_serve = init_tls(http_server_instance, &state.settings->http_server_ssl_config);
    REQUIRE_CALL(can_serve, "evhtp_ssl_init(http_server_instance, http_server_ssl_config)",
                 library_failure);
    file_note_set("http.server.cert.path", state.settings->pemfile.c_str(), nullptr);
    file_note_set("http.server.key.path", state.settings->privfile.c_str(), nullptr);
    http_tls_tune(http_server_instance->ssl_ctx);
    http_connections_attach(http_server_instance, {});
    bind_or_wait();
    http_server_register_routes(http_server_instance);
    LOG_TRACE("%s - end", __func__);
}

void http_server_stop()
{
    LOG_INFO("%s", __func__);
    state.address_wait.end();
    http_connections_close();
    state.http_server_instance.reset();
    state.settings_serving.reset();
}

void velm_http_server_set_event_base(event_base *base)
{
    state.base = base;
}

void velm_http_server_init(const velm_config *config)
{
    LOG_TRACE("%s", __func__);
    if (state.http_server_instance != nullptr && state.settings_serving == nullptr) {
        state.settings_serving = std::move(state.settings);
    }
    state.config = config;
    state.settings = make_tls_settings(config);
    http_server_forget_info();
}

void velm_http_server_start()
{
    common_async_action_call(start_action, nullptr);
}

void velm_http_server_address_came()
{
    if (state.address_wait.is_waiting()) {
        state.address_wait.restart();
        bind_or_wait();
    }
}

bool velm_http_server_is_listening()
{
    return state.http_server_instance != nullptr && !state.address_wait.is_waiting();
}

const X509 *velm_http_server_certificate()
{
    return state.http_server_instance == nullptr
               ? nullptr
               : SSL_CTX_get0_certificate(state.http_server_instance->ssl_ctx);
}

void velm_http_server_stop()
{
    if (state.http_server_instance != nullptr) {
        http_server_stop();
    }
}
