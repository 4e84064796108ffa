#include "request/body.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "handles/secret.h"
#include "json/text.h"
#include "logger/fatal.h"
#include "malloc/json_arena.h"
#include "request/input.h"
#include "request/status.h"
#include "text/utf8.h"

namespace {

constexpr char log_category[] = "velm_request_preprocessor";
constexpr char parser_name[] = "velm_request_parse_request_body";

/// Walks over JSON text without making anything of it, and counts the values in it: each element and
/// each member. Of text that is no JSON the number is at least that of what the parser would make
/// before it gave up.
class value_counter {
  public:
    explicit value_counter(std::string_view json) : json_{json}
    {
    }

    /// Up to one more than `most`; nothing when they are nested too deep.
    std::optional<std::size_t> count(std::size_t most)
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
                if (++depth > velm_request_max_depth) {
                    return std::nullopt;
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
    const json_arena_use arena;
    const char *end = nullptr;
    json_ptr tree{cJSON_ParseWithLengthOpts(text.c_str(), text.size(), &end, 0)};
    if (tree == nullptr) {
        return nullptr;
    }
    const std::string_view value{text.c_str(), static_cast<std::size_t>(end - text.c_str())};
    if (!is_utf8(value) || json_has_nul_in_string(value)) {
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
    const auto values = value_counter{*text}.count(velm_request_max_values);
    if (values > velm_request_max_values) {
        LOG_ERROR("%s - too many json values", __func__);
        return {nullptr, http_status_bad_request};
    }
    json_ptr tree = values.has_value() ? parse_json(*text) : nullptr;
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
