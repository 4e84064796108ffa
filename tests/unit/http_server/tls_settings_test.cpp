// First: libevhtp's headers rename what the system's regex.h declares.
#include "fakes/served_connections.h"

#include "http_server/tls_settings.h"

namespace {

using namespace served_connections;

class TlsSettings : public Connections {
  protected:
    void serve_tuned()
    {
        serve();
        http_tls_tune(htp->ssl_ctx);
    }
};

TEST_F(TlsSettings, WhatIsServedHasEphemeralKeysAndAuthenticatedEncryptionOnly)
{
    serve_tuned();
    const STACK_OF(SSL_CIPHER) *const suites = SSL_CTX_get_ciphers(htp->ssl_ctx);
    ASSERT_GT(sk_SSL_CIPHER_num(suites), 0);
    for (int i = 0; i < sk_SSL_CIPHER_num(suites); ++i) {
        const SSL_CIPHER *const suite = sk_SSL_CIPHER_value(suites, i);
        const int exchange = SSL_CIPHER_get_kx_nid(suite);
        EXPECT_EQ(SSL_CIPHER_is_aead(suite), 1) << SSL_CIPHER_get_name(suite);
        EXPECT_TRUE(exchange == NID_kx_ecdhe || exchange == NID_kx_any)
            << SSL_CIPHER_get_name(suite);
    }
}

struct group_case {
    const char *name;
    bool served;
};
class Groups : public TlsSettings, public testing::WithParamInterface<group_case> {};
TEST_P(Groups, AreServedWhenTheyAreQuick)
{
    serve_tuned();
    const auto peer = client();
    if (OPENSSL_VERSION_NUMBER < 0x30000000L && std::string_view{GetParam().name} == "ffdhe2048") {
        GTEST_SKIP() << "OpenSSL 1.1.1 has no such group, so it cannot ask for one";
    }
    ASSERT_EQ(SSL_set1_groups_list(peer->tls(), GetParam().name), 1);
    EXPECT_EQ(peer->handshake(), GetParam().served);
}
INSTANTIATE_TEST_SUITE_P(Names, Groups,
                         testing::Values(group_case{"X25519", true}, group_case{"P-256", true},
                                         group_case{"P-384", true}, group_case{"P-521", false},
                                         group_case{"X448", false}, group_case{"ffdhe2048", false}),
                         [](const auto &row) {
                             string name = row.param.name;
                             std::erase(name, '-');
                             return name;
                         });

TEST_F(TlsSettings, TheKeyOfTicketsIsRenewedEveryTwelveHours)
{
    serve();
    SSL_CTX *const context = htp->ssl_ctx;
    const auto key = [context] {
        string bytes(80, '\0');
        EXPECT_EQ(SSL_CTX_get_tlsext_ticket_keys(context, bytes.data(), bytes.size()), 1);
        return bytes;
    };
    const auto begin = std::chrono::steady_clock::now();
    http_tls_renew_ticket_key(context, begin);
    const string first = key();
    http_tls_renew_ticket_key(context, begin + 12h - 1s);
    EXPECT_EQ(key(), first);
    http_tls_renew_ticket_key(context, begin + 12h);
    const string second = key();
    EXPECT_NE(second, first);
    http_tls_renew_ticket_key(context, begin + 24h - 1s);
    EXPECT_EQ(key(), second);
    http_tls_renew_ticket_key(context, begin + 24h);
    EXPECT_NE(key(), second);
}

} // namespace
