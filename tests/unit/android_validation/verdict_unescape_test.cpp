#include "android_validation/verdict.h"

#include <gtest/gtest.h>

#include "fakes/captured_log.h"
#include "velm_utils.h"

// The helpers' own, but for the unescaping, which yields nothing.
const char *velm_utils_get_field_value_from_json_object(const cJSON *object, const char *field)
{
    return cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, field));
}

std::string velm_utils_unescape_html_encoded_base64_chars(const char *)
{
    return {};
}

namespace {

TEST(AndroidVerdict, ANonceOfWhichUnescapingLeavesNothingIsRefused)
{
    const json_ptr verdict{cJSON_Parse(R"({
        "requestDetails": {"requestPackageName": "com.norvale.afc", "nonce": "AAAA"},
        "appIntegrity": {}, "deviceIntegrity": {}})")};
    const captured_log log;
    EXPECT_FALSE(android_interpret_verdict({}, verdict.get(), "com.norvale.afc"));
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"ERROR velm_attestation_engine - android_interpret_verdict "
                                       "- cannot unescape nonce"});
}

} // namespace
