#include "request/body.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "handles/secret.h"
#include "logger/fatal.h"
#include "request/input.h"
#include "request/status.h"

namespace {

constexpr char log_category[] = "velm_request_preprocessor";
constexpr char parser_name[] = "velm_request_parse_request_body";

/// The well-formed UTF-8 sequences: overlong forms, surrogates and what lies above U+10FFFF have no
/// row. Every byte after the second is 0x80 to 0xbf.
struct utf8_form {
    std::uint8_t first_low, first_high;
    std::uint8_t second_low, second_high;
    std::size_t length;
};
// clang-format off
constexpr utf8_form utf8_forms[] = {
    {0x00, 0x7f, 0x00, 0x00, 1},
    {0xc2, 0xdf, 0x80, 0xbf, 2},
    {0xe0, 0xe0, 0xa0, 0xbf, 3},
    {0xe1, 0xec, 0x80, 0xbf, 3},
    {0xed, 0xed, 0x80, 0x9f, 3},
    {0xee, 0xef, 0x80, 0xbf, 3},
    {0xf0, 0xf0, 0x90, 0xbf, 4},
    {0xf1, 0xf3, 0x80, 0xbf, 4},
    {0xf4, 0xf4, 0x80, 0x8f, 4},
};
// clang-format on

bool utf8_form_fits(const utf8_form &form, std::span<const std::uint8_t> bytes)
{
    if (bytes[0] < form.first_low || bytes[0] > form.first_high || bytes.size() < form.length) {
        return false;
    }
    if (form.length > 1 && (bytes[1] < form.second_low || bytes[1] > form.second_high)) {
        return false;
    }
    const auto rest = bytes.first(form.length).subspan(std::min<std::size_t>(form.length, 2));
    return std::all_of(rest.begin(), rest.end(),
                       [](std::uint8_t byte) { return (byte & 0xc0) == 0x80; });
}

bool is_utf8(std::span<const std::uint8_t> bytes)
{
    while (!bytes.empty()) {
        const auto *const form =
            std::find_if(std::begin(utf8_forms), std::end(utf8_forms),
                         [bytes](const utf8_form &row) { return utf8_form_fits(row, bytes); });
        if (form == std::end(utf8_forms)) {
            return false;
        }
        bytes = bytes.subspan(form->length);
    }
    return true;
}

/// True when a string of the (well-formed) JSON text holds a NUL, raw or escaped. The parser's C
/// strings would end there, so what is checked would not be what was sent.
bool has_nul_in_string(std::string_view json)
{
    bool inside = false;
    for (std::size_t i = 0; i < json.size(); ++i) {
        if (json[i] == '"') {
            inside = !inside;
        }
        if (inside && json[i] == '\\') {
            ++i;
            if (json.substr(i, 5) == "u0000") {
                return true;
            }
        }
        if (inside && json[i] == '\0') {
            return true;
        }
    }
    return false;
}

/// Walks over JSON text without making anything of it, and counts the values in it: each element and
/// each member. Of text that is no JSON the number is at least that of what the parser would make
/// before it gave up.
class value_counter {
  public:
    explicit value_counter(std::string_view json) : json_{json}
    {
    }

    /// Up to one more than `most`.
    std::size_t count(std::size_t most)
    {
        std::size_t depth = 0;
        std::size_t values = 0;
        for (; at_ < json_.size() && values <= most; ++at_) {
            switch (json_[at_]) {
            case '"':
                pass_string();
                break;
            case '[':
            case '{':
                if (++depth > CJSON_NESTING_LIMIT) {
                    return values; // the parser gives up here
                }
                values += is_empty_container() ? 0U : 1U;
                break;
            case ',':
                ++values;
                break;
            case ']':
            case '}':
                if (depth <= 1) {
                    return values; // what follows the value is ignored
                }
                --depth;
                break;
            default:
                break;
            }
        }
        return values;
    }

  private:
    void pass_string()
    {
        while (++at_ < json_.size() && json_[at_] != '"') {
            at_ += json_[at_] == '\\' ? 1U : 0U;
        }
    }

    bool is_empty_container() const
    {
        const std::string_view rest = json_.substr(at_ + 1);
        const auto *const next = std::find_if(rest.begin(), rest.end(), [](char byte) {
            return static_cast<unsigned char>(byte) > ' ';
        });
        return next != rest.end() && (*next == ']' || *next == '}');
    }

    std::string_view json_;
    std::size_t at_ = 0;
};

/// Null for text that is no JSON, or whose strings are no text. What follows the value is ignored.
json_ptr parse_json(const std::string &text)
{
    const char *end = nullptr;
    json_ptr tree{cJSON_ParseWithLengthOpts(text.c_str(), text.size(), &end, 0)};
    if (tree == nullptr) {
        return nullptr;
    }
    const std::string_view value{text.c_str(), static_cast<std::size_t>(end - text.c_str())};
    if (!is_utf8(request_bytes(value)) || has_nul_in_string(value)) {
        return nullptr;
    }
    return tree;
}

void log_tree(const cJSON *tree)
{
    const json_text body_print{cJSON_Print(tree)};
    REQUIRE_MEMORY(body_print, "body_print");
    LOG_TRACE("%s - received:", parser_name);
    LOG_TRACE("%s - %s", parser_name, body_print.get());
}

bool has_auth_object(const cJSON *tree)
{
    const cJSON *const auth = request_auth(tree);
    if (auth == nullptr) {
        LOG_ERROR("%s - no auth data", parser_name);
        return false;
    }
    if (!cJSON_IsObject(auth)) {
        LOG_ERROR("%s - invalid auth data", parser_name);
        return false;
    }
    return true;
}

} // namespace

velm_request_body velm_request_parse_request_body(evhtp_request_t *req)
{
    REQUIRE_NOT_NULL(req, "req");
    std::optional<std::string> text = request_body_copy(req, __func__, "body_buf");
    if (!text.has_value()) {
        LOG_ERROR("%s - cannot copy data", __func__);
        return {nullptr, http_status_internal_error};
    }
    const wiped_at_end wiping{&*text}; // a password is in it
    if (text->empty()) {
        LOG_ERROR("%s - no data", __func__);
        return {nullptr, http_status_bad_request};
    }
    LOG_TRACE("%s - received data (%zu):", __func__, text->size());
    LOG_TRACE("%s - %.*s", __func__, static_cast<int>(text->size()), text->c_str());
    if (value_counter{*text}.count(velm_request_max_values) > velm_request_max_values) {
        LOG_ERROR("%s - too many json values", __func__);
        return {nullptr, http_status_bad_request};
    }
    json_ptr tree = parse_json(*text);
    if (tree == nullptr) {
        LOG_ERROR("%s - cannot parse json data", __func__);
        return {nullptr, http_status_bad_request};
    }
    if (common_logger_writes(log_category, LOG_LEVEL_TRACE)) {
        log_tree(tree.get());
    }
    if (!has_auth_object(tree.get())) {
        return {nullptr, http_status_bad_request};
    }
    return {std::move(tree), http_status_ok};
}
