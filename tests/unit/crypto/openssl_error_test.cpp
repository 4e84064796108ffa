#include "crypto/openssl_error.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include "handles/openssl.h"

namespace {

/// Leaves two failures in the queue.
void fail_twice()
{
    ERR_clear_error();
    for (const char *text :
         {"no PEM", "-----BEGIN CERTIFICATE-----\n!\n-----END CERTIFICATE-----\n"}) {
        const bio_ptr bio{BIO_new_mem_buf(text, -1)};
        const x509_ptr none{PEM_read_bio_X509(bio.get(), nullptr, openssl_no_passphrase, nullptr)};
        EXPECT_EQ(none, nullptr);
    }
}

TEST(OpensslError, TheOldestIsTheCauseAndLeavesTheQueue)
{
    fail_twice();
    const unsigned long cause = ERR_peek_error();
    const openssl_error oldest = openssl_take_oldest_error();
    EXPECT_EQ(oldest.code, cause);
    EXPECT_NE(oldest.text.find("no start line"), std::string::npos) << oldest.text;
    EXPECT_NE(ERR_peek_error(), 0U);
    EXPECT_NE(ERR_peek_error(), cause);
}

TEST(OpensslError, TheLastStaysInTheQueue)
{
    fail_twice();
    const openssl_error last = openssl_last_error();
    EXPECT_EQ(last.code, ERR_peek_last_error());
    EXPECT_NE(last.code, ERR_peek_error());
    EXPECT_EQ(openssl_last_error().text, last.text);
}

TEST(OpensslError, IsZeroWithoutAFailure)
{
    ERR_clear_error();
    EXPECT_EQ(openssl_take_oldest_error().code, 0U);
    EXPECT_EQ(openssl_last_error().code, 0U);
}

} // namespace
