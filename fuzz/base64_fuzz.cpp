#include <algorithm>

#include "allocation_meter.h"
#include "crypto/common_crypto.h"
#include "fuzz_target.h"

namespace {

void encode(fuzz_bytes bytes)
{
    const auto text = common_crypto_base64_encode(bytes);
    FUZZ_REQUIRE(text.has_value() == !bytes.empty());
    if (text) {
        FUZZ_REQUIRE(text->size() == (bytes.size() + 2) / 3 * 4);
        const auto back = common_crypto_base64_decode(*text);
        FUZZ_REQUIRE(back && std::ranges::equal(*back, bytes));
    }
}

/// The bits of the last character that carry nothing may be anything; all before is the same.
bool same_but_unused_bits(std::string_view text, std::string_view again)
{
    const std::size_t data = std::min(text.find('='), text.size());
    return text.size() == again.size() && text.substr(0, data - 1) == again.substr(0, data - 1) &&
           text.substr(data) == again.substr(data) &&
           (data < text.size() || text.back() == again.back());
}

void decode(std::string_view text)
{
    const auto bytes = common_crypto_base64_decode(text);
    if (bytes) {
        const auto again = common_crypto_base64_encode(*bytes);
        FUZZ_REQUIRE(again && same_but_unused_bits(text, *again));
    }
}

void run(fuzz_bytes bytes)
{
    encode(bytes);
    decode(fuzz_text(bytes));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    run({data, size}); // what OpenSSL makes once, stays
    const allocation_meter meter;
    run({data, size});
    FUZZ_REQUIRE(meter.peak() < 16 * size + 8192);
    FUZZ_REQUIRE(meter.left() == 0);
    return 0;
}
