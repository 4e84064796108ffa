#pragma once

#include <evhtp/evhtp.h>

#include <cstddef>

#include "handles/secret.h"

/// What is kept of a parsed body while the checks of its request run. They may wait for Google for
/// 20 s, and everybody on the LAN can have requests that wait: it is no more than the checks and the
/// route read, and it is counted.

/// Bytes of memory. Two of the longest requests of one address, with as much kept of each, fit into
/// what one address may hold.
inline constexpr std::size_t velm_request_max_kept = 16 * 1024;

struct velm_request_kept_body {
    secret_json_ptr tree;  // null: the body has not been parsed
    bool is_whole = false; // false: the route has to parse the body again
    std::size_t size = 0;  // memory that the tree takes
};

/// A copy: of the body, "auth" with the texts that the checks read and the member that the route reads; null
/// for a route that reads nothing else. A member is left out when all would take more than
/// velm_request_max_kept.
[[nodiscard]] velm_request_kept_body velm_request_keep(secret_json_ptr body, const char *member);

/// Lets go of the route's member, which nobody is going to read. What was borrowed from "auth" stays
/// where it is.
void velm_request_keep_auth(velm_request_kept_body *kept);

/// While it lives, the route finds the tree of its request, which is borrowed. The preprocessor makes
/// one around the result callback, whose arguments are fixed.
class velm_request_body_offer {
  public:
    velm_request_body_offer(const evhtp_request_t *request, const velm_request_kept_body &kept);
    ~velm_request_body_offer();
    velm_request_body_offer(const velm_request_body_offer &) = delete;
    velm_request_body_offer &operator=(const velm_request_body_offer &) = delete;
};

/// What is offered for that request; null when nothing is, or not the whole.
[[nodiscard]] const cJSON *velm_request_offered_body(const evhtp_request_t *request);
