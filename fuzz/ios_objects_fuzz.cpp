#include <algorithm>

#include "allocation_meter.h"
#include "fakes/app_attest_maker.h"
#include "fuzz_target.h"
#include "ios_validation/cbor.h"
#include "ios_validation/objects.h"

/// The CBOR of both objects.

namespace {

const test_bytes &checked(const test_bytes &bytes)
{
    FUZZ_REQUIRE(!bytes.empty() && bytes.size() <= 4096);
    return bytes;
}

test_bytes encode(const ios_attestation_obj &object)
{
    attestation_parts parts;
    parts.x5c = {checked(object.credential_certificate), checked(object.intermediate_certificate)};
    parts.auth_data = checked(object.auth_data);
    return parts.encode();
}

test_bytes encode(const ios_assertion_obj &object)
{
    return assertion_encode(checked(object.signature), checked(object.authenticator_data));
}

/// What is accepted is accepted again when it is written anew, as the same.
template <auto Create>
void accepted_again(const cbor_item_t *item)
{
    const auto object = Create(item);
    if (!object.has_value()) {
        return;
    }
    const test_bytes once = encode(*object);
    const auto again_item = ios_app_cbor_decode(once);
    FUZZ_REQUIRE(again_item.has_value());
    const auto again = Create(again_item->get());
    FUZZ_REQUIRE(again.has_value() && encode(*again) == once);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const allocation_meter meter;
    {
        const auto item = ios_app_cbor_decode({data, size});
        // 16 elements on each of 4 levels: what is announced and not there costs nothing.
        FUZZ_REQUIRE(meter.peak() <= 200 * size + 4096);
        if (item.has_value()) {
            accepted_again<ios_attestation_obj_create>(item->get());
            accepted_again<ios_assertion_obj_create>(item->get());
        }
    }
    FUZZ_REQUIRE(meter.left() == 0);
    return 0;
}
