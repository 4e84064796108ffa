#include "fakes/app_attest_samples.h"

#include <openssl/evp.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace {

[[noreturn]] void give_up(const std::string &what)
{
    std::fprintf(stderr, "test data: %s\n", what.c_str());
    std::abort();
}

const cJSON *member(const cJSON *object, const char *name)
{
    const cJSON *found = cJSON_GetObjectItemCaseSensitive(object, name);
    if (found == nullptr) {
        give_up(std::string{"no member "} + name);
    }
    return found;
}

std::string text_member(const cJSON *object, const char *name)
{
    return cJSON_GetStringValue(member(object, name));
}

test_bytes from_base64(const std::string &text)
{
    test_bytes bytes(text.size() / 4 * 3);
    const int size =
        EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char *>(text.data()),
                        static_cast<int>(text.size()));
    if (size < 0) {
        give_up("bad base64: " + text);
    }
    const std::size_t padding = text.size() - (text.find_last_not_of('=') + 1);
    bytes.resize(static_cast<std::size_t>(size) - padding);
    return bytes;
}

} // namespace

std::string test_data_text(const std::string &name)
{
    std::ifstream file{std::string{VELM_TEST_DATA} + "/" + name, std::ios::binary};
    if (!file) {
        give_up("cannot read " + name);
    }
    return {std::istreambuf_iterator<char>{file}, {}};
}

test_bytes test_data_bytes(const std::string &name)
{
    const std::string text = test_data_text(name);
    return {text.begin(), text.end()};
}

json_ptr test_data_json(const std::string &name)
{
    json_ptr json{cJSON_Parse(test_data_text(name).c_str())};
    if (json == nullptr) {
        give_up("no JSON: " + name);
    }
    return json;
}

test_bytes test_bytes_from_hex(const std::string &hex)
{
    test_bytes bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

app_attest_sample app_attest_sample_load(const std::string &name)
{
    const std::string folder = "app_attest/" + name + "/";
    const json_ptr params = test_data_json(folder + "params.json");
    app_attest_sample sample;
    sample.name = name;
    sample.app_id = text_member(params.get(), "app_id");
    sample.development = cJSON_IsTrue(member(params.get(), "allow_development_needed")) != 0;
    sample.verify_at =
        static_cast<std::time_t>(member(params.get(), "verify_at_epoch")->valuedouble);
    sample.attestation = test_data_bytes(folder + "attestation.cbor");
    sample.client_data_hash =
        test_bytes_from_hex(text_member(params.get(), "client_data_hash_hex"));
    sample.public_key = from_base64(text_member(params.get(), "public_key_spki_base64"));
    const cJSON *assertion = cJSON_GetArrayItem(member(params.get(), "assertions"), 0);
    if (assertion != nullptr) {
        sample.assertion = app_attest_sample_assertion{
            test_data_bytes(folder + text_member(assertion, "file")),
            test_bytes_from_hex(text_member(assertion, "client_data_hash_hex")),
            static_cast<unsigned>(member(assertion, "counter")->valueint)};
    }
    return sample;
}
