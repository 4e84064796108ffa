#include "ios_validation/objects.h"

#include <gtest/gtest.h>

#include "fakes/app_attest_maker.h"
#include "ios_validation/cbor.h"

namespace {

attestation_parts parts()
{
    attestation_parts made;
    made.x5c = {{0x11}, {0x22, 0x22}};
    made.receipt = {0x33};
    made.auth_data = {0x44};
    return made;
}

std::optional<ios_attestation_obj> attestation(const test_bytes &bytes)
{
    const auto item = ios_app_cbor_decode(bytes);
    return item.has_value() ? ios_attestation_obj_create(item->get()) : std::nullopt;
}

std::optional<ios_assertion_obj> assertion(const test_bytes &bytes)
{
    const auto item = ios_app_cbor_decode(bytes);
    return item.has_value() ? ios_assertion_obj_create(item->get()) : std::nullopt;
}

const test_bytes fmt_key = cbor_make_text("fmt");
const test_bytes statement_key = cbor_make_text("attStmt");
const test_bytes auth_data_key = cbor_make_text("authData");
const test_bytes x5c_key = cbor_make_text("x5c");
const test_bytes receipt_key = cbor_make_text("receipt");
const test_bytes format = cbor_make_text("apple-appattest");
const test_bytes some = cbor_make_bytes({0x44});

test_bytes with_statement(const test_bytes &statement)
{
    return cbor_make_map({{fmt_key, format}, {statement_key, statement}, {auth_data_key, some}});
}

test_bytes with_x5c(const test_bytes &x5c)
{
    return with_statement(cbor_make_map({{x5c_key, x5c}, {receipt_key, some}}));
}

TEST(AttestationObject, HoldsWhatIsLookedAtLater)
{
    const auto object = attestation(parts().encode());
    ASSERT_TRUE(object.has_value());
    EXPECT_EQ(object->credential_certificate, (test_bytes{0x11}));
    EXPECT_EQ(object->intermediate_certificate, (test_bytes{0x22, 0x22}));
    EXPECT_EQ(object->auth_data, (test_bytes{0x44}));
}

TEST(AttestationObject, TakesItsKeysInAnyOrder)
{
    EXPECT_TRUE(attestation(cbor_make_map({{auth_data_key, some},
                                           {statement_key, parts().statement()},
                                           {fmt_key, format}}))
                    .has_value());
    EXPECT_TRUE(attestation(with_statement(cbor_make_map(
                                {{receipt_key, some}, {x5c_key, cbor_make_array({some, some})}})))
                    .has_value());
}

TEST(AttestationObject, RefusesAFourthKey)
{
    EXPECT_FALSE(attestation(cbor_make_map({{fmt_key, format},
                                            {statement_key, parts().statement()},
                                            {auth_data_key, some},
                                            {cbor_make_text("more"), some}}))
                     .has_value());
}

TEST(AttestationObject, RefusesAMissingKey)
{
    EXPECT_FALSE(
        attestation(cbor_make_map({{fmt_key, format}, {auth_data_key, some}})).has_value());
}

TEST(AttestationObject, RefusesAnUnknownKey)
{
    for (const char *key : {"Fmt", "fm", "fmtt", "authdata", "x5c", "receipt"}) {
        EXPECT_FALSE(attestation(cbor_make_map({{cbor_make_text(key), format},
                                                {statement_key, parts().statement()},
                                                {auth_data_key, some}}))
                         .has_value())
            << key;
    }
    EXPECT_FALSE(attestation(with_statement(cbor_make_map({{x5c_key, cbor_make_array({some, some})},
                                                           {cbor_make_text("x"), some}})))
                     .has_value());
}

TEST(AttestationObject, RefusesARepeatedKey)
{
    EXPECT_FALSE(attestation(cbor_make_map({{fmt_key, format},
                                            {fmt_key, format},
                                            {statement_key, parts().statement()}}))
                     .has_value());
    EXPECT_FALSE(attestation(cbor_make_map({{statement_key, parts().statement()},
                                            {auth_data_key, some},
                                            {auth_data_key, some}}))
                     .has_value());
    EXPECT_FALSE(attestation(cbor_make_map({{fmt_key, format},
                                            {statement_key, parts().statement()},
                                            {statement_key, parts().statement()}}))
                     .has_value());
    const test_bytes x5c = cbor_make_array({some, some});
    EXPECT_FALSE(
        attestation(with_statement(cbor_make_map({{x5c_key, x5c}, {x5c_key, x5c}}))).has_value());
    EXPECT_FALSE(
        attestation(with_statement(cbor_make_map({{receipt_key, some}, {receipt_key, some}})))
            .has_value());
}

TEST(AttestationObject, RefusesAnyOtherFormat)
{
    for (const char *fmt : {"", "apple", "apple-appattes", "apple-appattestx", "Apple-appattest",
                            "packed", "android-key"}) {
        attestation_parts bent = parts();
        bent.fmt = fmt;
        EXPECT_FALSE(attestation(bent.encode()).has_value()) << fmt;
    }
}

TEST(AttestationObject, RefusesAFormatThatIsNoDefiniteText)
{
    const auto with_fmt = [](const test_bytes &fmt) {
        return cbor_make_map(
            {{fmt_key, fmt}, {statement_key, parts().statement()}, {auth_data_key, some}});
    };
    EXPECT_TRUE(attestation(with_fmt(format)).has_value());
    EXPECT_FALSE(attestation(with_fmt(cbor_make_bytes(bytes_of("apple-appattest")))).has_value());
    EXPECT_FALSE(attestation(with_fmt(bytes_joined({{0x7f}, format, {0xff}}))).has_value());
    EXPECT_FALSE(attestation(with_fmt({0xf6})).has_value());
}

TEST(AttestationObject, NeedsExactlyTwoCertificates)
{
    for (std::size_t count = 0; count <= 4; ++count) {
        EXPECT_EQ(attestation(with_x5c(cbor_make_array(std::vector<test_bytes>(count, some))))
                      .has_value(),
                  count == 2)
            << count;
    }
}

TEST(AttestationObject, RefusesX5cOfAnotherKind)
{
    EXPECT_FALSE(attestation(with_x5c(some)).has_value());
    EXPECT_FALSE(attestation(with_x5c(cbor_make_map({{x5c_key, some}}))).has_value());
    EXPECT_FALSE(
        attestation(with_x5c(cbor_make_array({some, cbor_make_text("text")}))).has_value());
    EXPECT_FALSE(attestation(with_x5c(cbor_make_array({{0x00}, some}))).has_value());
    EXPECT_FALSE(attestation(with_statement(cbor_make_array({some, some}))).has_value());
    EXPECT_FALSE(attestation(with_statement(some)).has_value());
}

TEST(AttestationObject, TakesMapsAndArraysOfUnknownLengthWithTheRightCount)
{
    const test_bytes x5c = bytes_joined({{0x9f}, some, some, {0xff}});
    const test_bytes statement = bytes_joined({{0xbf}, x5c_key, x5c, receipt_key, some, {0xff}});
    EXPECT_TRUE(
        attestation(
            bytes_joined(
                {{0xbf}, fmt_key, format, statement_key, statement, auth_data_key, some, {0xff}}))
            .has_value());
    EXPECT_FALSE(attestation(with_x5c(bytes_joined({{0x9f}, some, {0xff}}))).has_value());
    EXPECT_FALSE(
        attestation(with_x5c(bytes_joined({{0x9f}, some, some, some, {0xff}}))).has_value());
}

TEST(AttestationObject, RefusesByteStringsOfUnknownLength)
{
    const test_bytes chunks = bytes_joined({{0x5f}, some, {0xff}});
    EXPECT_FALSE(attestation(with_x5c(cbor_make_array({chunks, some}))).has_value());
    EXPECT_FALSE(attestation(cbor_make_map({{fmt_key, format},
                                            {statement_key, parts().statement()},
                                            {auth_data_key, chunks}}))
                     .has_value());
}

/// Every place of a byte string, with a length put into it.
std::vector<test_bytes> objects_with_length(std::size_t length)
{
    const test_bytes bytes(length, 0x55);
    std::vector<test_bytes> objects;
    attestation_parts bent = parts();
    bent.x5c[0] = bytes;
    objects.push_back(bent.encode());
    bent = parts();
    bent.x5c[1] = bytes;
    objects.push_back(bent.encode());
    bent = parts();
    bent.receipt = bytes;
    objects.push_back(bent.encode());
    bent = parts();
    bent.auth_data = bytes;
    objects.push_back(bent.encode());
    return objects;
}

TEST(AttestationObject, TakesByteStringsOfOneTo4096BytesInEveryField)
{
    for (const test_bytes &object : objects_with_length(1)) {
        EXPECT_TRUE(attestation(object).has_value());
    }
    for (const test_bytes &object : objects_with_length(4096)) {
        EXPECT_TRUE(attestation(object).has_value());
    }
}

TEST(AttestationObject, RefusesAByteStringOf4097BytesInAnyField)
{
    for (const test_bytes &object : objects_with_length(4097)) {
        EXPECT_FALSE(attestation(object).has_value());
    }
}

TEST(AttestationObject, RefusesAByteStringOfNoBytesInAnyField)
{
    for (const test_bytes &object : objects_with_length(0)) {
        EXPECT_FALSE(attestation(object).has_value());
    }
}

TEST(AttestationObject, IgnoresWhatStandsBehindIt)
{
    EXPECT_TRUE(attestation(bytes_joined({parts().encode(), {0xff, 0x00, 0x1c}})).has_value());
}

TEST(AssertionObject, HoldsBothMembers)
{
    const auto object = assertion(assertion_encode({1, 2}, {3}));
    ASSERT_TRUE(object.has_value());
    EXPECT_EQ(object->signature, (test_bytes{1, 2}));
    EXPECT_EQ(object->authenticator_data, (test_bytes{3}));
}

TEST(AssertionObject, NeedsExactlyItsTwoKeys)
{
    const test_bytes signature = cbor_make_text("signature");
    const test_bytes data = cbor_make_text("authenticatorData");
    EXPECT_TRUE(assertion(cbor_make_map({{data, some}, {signature, some}})).has_value());
    EXPECT_FALSE(assertion(cbor_make_map({{signature, some}})).has_value());
    EXPECT_FALSE(assertion(cbor_make_map({{signature, some}, {signature, some}})).has_value());
    EXPECT_FALSE(assertion(cbor_make_map({{data, some}, {data, some}})).has_value());
    EXPECT_FALSE(
        assertion(cbor_make_map({{data, some}, {cbor_make_text("Signature"), some}})).has_value());
    EXPECT_FALSE(
        assertion(cbor_make_map({{data, some}, {signature, some}, {fmt_key, some}})).has_value());
    EXPECT_TRUE(assertion(bytes_joined({{0xbf}, data, some, signature, some, {0xff}})).has_value());
}

TEST(AssertionObject, RefusesByteStringsOfNoBytesOrOf4097)
{
    const test_bytes one{1};
    EXPECT_TRUE(assertion(assertion_encode(test_bytes(4096, 1), one)).has_value());
    EXPECT_FALSE(assertion(assertion_encode(test_bytes(4097, 1), one)).has_value());
    EXPECT_FALSE(assertion(assertion_encode({}, one)).has_value());
    EXPECT_TRUE(assertion(assertion_encode(one, test_bytes(4096, 1))).has_value());
    EXPECT_FALSE(assertion(assertion_encode(one, test_bytes(4097, 1))).has_value());
    EXPECT_FALSE(assertion(assertion_encode(one, {})).has_value());
}

} // namespace
