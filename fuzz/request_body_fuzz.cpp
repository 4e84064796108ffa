#include <event2/buffer.h>

#include <string>

#include "allocation_meter.h"
#include "fuzz_target.h"
#include "handles/libevent.h"
#include "velm_request_preprocessor.h"

namespace {

velm_request_body parse(std::string_view body)
{
    const evbuffer_handle buffer{evbuffer_new()};
    evbuffer_add(buffer.get(), body.data(), body.size());
    evhtp_request_t request{};
    request.buffer_in = buffer.get();
    return velm_request_parse_request_body(&request);
}

/// Bytes of well-formed UTF-8 and no NUL: what every text of an accepted body must be made of.
bool is_text(const std::string &text)
{
    std::size_t i = 0;
    const auto more = [&](int count, std::uint32_t value, std::uint32_t least) {
        for (; count > 0; --count) {
            const auto byte = ++i < text.size() ? static_cast<std::uint8_t>(text[i]) : 0;
            if ((byte & 0xc0) != 0x80) {
                return false;
            }
            value = value << 6 | (byte & 0x3f);
        }
        return value >= least && value <= 0x10ffff && (value < 0xd800 || value > 0xdfff);
    };
    for (; i < text.size(); ++i) {
        const auto byte = static_cast<std::uint8_t>(text[i]);
        const bool good = byte < 0x80           ? byte != 0
                          : (byte >> 5) == 0x6  ? more(1, byte & 0x1f, 0x80)
                          : (byte >> 4) == 0xe  ? more(2, byte & 0x0f, 0x800)
                          : (byte >> 3) == 0x1e ? more(3, byte & 0x07, 0x10000)
                                                : false;
        if (!good) {
            return false;
        }
    }
    return true;
}

std::string print(const cJSON *tree)
{
    const json_text text{cJSON_PrintUnformatted(tree)};
    FUZZ_REQUIRE(text != nullptr);
    return text.get();
}

/// A NUL written as an escape; a backslash stands nowhere in JSON but in a text.
bool has_escaped_nul(std::string_view json)
{
    for (std::size_t i = json.find('\\'); i < json.size(); i = json.find('\\', i + 2)) {
        if (json.substr(i + 1, 5) == "u0000") {
            return true;
        }
    }
    return false;
}

std::string_view value_of(const std::string &body)
{
    const char *end = nullptr;
    const json_ptr tree{cJSON_ParseWithLengthOpts(body.c_str(), body.size(), &end, 0)};
    FUZZ_REQUIRE(tree != nullptr);
    return std::string_view{body}.substr(0, static_cast<std::size_t>(end - body.c_str()));
}

void accepted(const cJSON *tree, const std::string &body)
{
    FUZZ_REQUIRE(!has_escaped_nul(value_of(body)));

    FUZZ_REQUIRE(cJSON_IsObject(cJSON_GetObjectItemCaseSensitive(tree, "auth")));
    const std::string once = print(tree);
    FUZZ_REQUIRE(is_text(once));
    const json_ptr again{cJSON_Parse(once.c_str())};
    FUZZ_REQUIRE(again != nullptr);
    // Twice, since the first printing rounds numbers and turns infinity into null.
    const std::string twice = print(again.get());
    const json_ptr third{cJSON_Parse(twice.c_str())};
    FUZZ_REQUIRE(print(third.get()) == twice);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const allocation_meter meter;
    {
        const velm_request_body parsed = parse(fuzz_text({data, size}));
        // A node of 64 bytes for every two bytes of "[0,0,0", and for each of 1000 levels of "[[[".
        FUZZ_REQUIRE(meter.peak() <= 40 * size + 64 * 1024);
        FUZZ_REQUIRE((parsed.body != nullptr) == (parsed.status == 200));
        FUZZ_REQUIRE(parsed.status == 200 || parsed.status == 400);
        if (parsed.body != nullptr) {
            accepted(parsed.body.get(), std::string{fuzz_text({data, size})});
        }
    }
    FUZZ_REQUIRE(meter.left() == 0);
    return 0;
}
