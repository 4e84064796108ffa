#include "request/kept.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <utility>

#include "logger/fatal.h"
#include "request/input.h"

namespace {

constexpr char log_category[] = "velm_request_preprocessor";

/// Every other member of "auth" is of no use to anybody.
constexpr const char *auth_texts[] = {"deviceId", "deviceType", "bssid",
                                      "username", "password",   "challenge"};

struct module_state {
    const evhtp_request_t *request = nullptr; // of which the body is offered
    const cJSON *body = nullptr;
};
module_state state;

/// What the C library's heap takes for it.
std::size_t block_size(std::size_t size)
{
    constexpr std::size_t step = 2 * sizeof(std::size_t);
    constexpr std::size_t least = 2 * step;
    return std::max(least, (size + sizeof(std::size_t) + step - 1) / step * step);
}

std::size_t text_size(const char *text)
{
    return text == nullptr ? 0 : block_size(std::strlen(text) + 1);
}

/// Of a copy of the item and all below it, without those beside it.
// NOLINTNEXTLINE(misc-no-recursion): no deeper than velm_request_max_depth
std::size_t copy_size(const cJSON *item)
{
    std::size_t size =
        block_size(sizeof(cJSON)) + text_size(item->string) + text_size(item->valuestring);
    for (const cJSON *child = item->child; child != nullptr; child = child->next) {
        size += copy_size(child);
    }
    return size;
}

template <typename Wanted>
void prune(cJSON *object, Wanted wanted)
{
    cJSON *next = nullptr;
    for (cJSON *item = object->child; item != nullptr; item = next) {
        next = item->next;
        if (!wanted(item)) {
            const secret_json_ptr unwanted{cJSON_DetachItemViaPointer(object, item)};
        }
    }
}

/// A text that is too long stays too long, without all that it has too much.
void shorten(char *text)
{
    if (text != nullptr && strnlen(text, request_id_limit + 1) > request_id_limit) {
        OPENSSL_cleanse(text + request_id_limit + 1, std::strlen(text + request_id_limit + 1));
    }
}

/// Of members with one name the first counts.
void prune_auth(cJSON *auth)
{
    std::array<const cJSON *, std::size(auth_texts)> first{};
    std::transform(
        std::begin(auth_texts), std::end(auth_texts), first.begin(),
        [auth](const char *name) { return cJSON_GetObjectItemCaseSensitive(auth, name); });
    prune(auth, [&first](const cJSON *item) {
        return item->child == nullptr && std::find(first.begin(), first.end(), item) != first.end();
    });
    for (const cJSON *item = auth->child; item != nullptr; item = item->next) {
        shorten(item->valuestring);
    }
}

void prune_to_auth(cJSON *tree)
{
    const cJSON *const auth = cJSON_GetObjectItemCaseSensitive(tree, "auth");
    prune(tree, [auth](const cJSON *item) { return item == auth; });
}

} // namespace

velm_request_kept_body velm_request_keep(secret_json_ptr body, const char *member)
{
    cJSON *const tree = body.get();
    cJSON *const auth = cJSON_GetObjectItemCaseSensitive(tree, "auth");
    const cJSON *const other =
        member != nullptr ? cJSON_GetObjectItemCaseSensitive(tree, member) : nullptr;
    prune(tree, [auth, other](const cJSON *item) { return item == auth || item == other; });
    if (auth != nullptr) {
        prune_auth(auth);
    }
    const bool fits = other == nullptr || copy_size(tree) <= velm_request_max_kept;
    if (!fits) {
        prune_to_auth(tree);
    }
    secret_json_ptr copy{cJSON_Duplicate(tree, true)};
    REQUIRE_MEMORY(copy, "body");
    return {std::move(copy), fits, copy_size(tree)};
}

void velm_request_keep_auth(velm_request_kept_body *kept)
{
    if (kept->tree != nullptr) {
        prune_to_auth(kept->tree.get());
        kept->is_whole = false;
        kept->size = copy_size(kept->tree.get());
    }
}

velm_request_body_offer::velm_request_body_offer(const evhtp_request_t *request,
                                                 const velm_request_kept_body &kept)
{
    state = {request, kept.is_whole ? kept.tree.get() : nullptr};
}

velm_request_body_offer::~velm_request_body_offer()
{
    state = {};
}

const cJSON *velm_request_offered_body(const evhtp_request_t *request)
{
    return request == state.request ? state.body : nullptr;
}
