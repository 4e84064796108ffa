#include "request/kept.h"

#include <malloc.h>

#include <algorithm>
#include <array>
#include <iterator>

namespace {

/// Every other member of "auth" is of no use to anybody.
constexpr const char *auth_texts[] = {"deviceId", "deviceType", "bssid",
                                      "username", "password",   "challenge"};

struct module_state {
    const evhtp_request_t *request = nullptr; // of which the body is offered
    const cJSON *body = nullptr;
};
module_state state;

/// With the allocator's own word. Text with escapes has a longer block than it needs.
std::size_t block_size(const void *block)
{
    return block == nullptr ? 0
                            : malloc_usable_size(const_cast<void *>(block)) + sizeof(std::size_t);
}

/// Of the item and all below it, without those beside it.
// NOLINTNEXTLINE(misc-no-recursion): no deeper than velm_request_max_depth
std::size_t tree_size(const cJSON *item)
{
    std::size_t size = block_size(item) + block_size(item->string) + block_size(item->valuestring);
    for (const cJSON *child = item->child; child != nullptr; child = child->next) {
        size += tree_size(child);
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
    std::size_t size = tree_size(tree);
    const bool fits = other == nullptr || size <= velm_request_max_kept;
    if (!fits) {
        prune(tree, [auth](const cJSON *item) { return item == auth; });
        size = tree_size(tree);
    }
    return {std::move(body), fits, size};
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
