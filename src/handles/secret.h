#pragma once

#include <cjson/cJSON.h>
#include <openssl/crypto.h>

#include <cstring>
#include <memory>

#include "handles/cjson.h"

/// Secrets that are overwritten before their memory is given back.

/// Overwrites a string or buffer when the scope ends, where it then is.
template <typename Container>
class wiped_at_end {
  public:
    explicit wiped_at_end(Container *secret) : secret_{secret}
    {
    }
    ~wiped_at_end()
    {
        OPENSSL_cleanse(secret_->data(), secret_->size());
    }
    wiped_at_end(const wiped_at_end &) = delete;
    wiped_at_end &operator=(const wiped_at_end &) = delete;

  private:
    Container *secret_;
};

/// A tree whose texts are overwritten before they are freed: a password is among them.
struct json_wipe_and_delete {
    json_wipe_and_delete() = default;
    json_wipe_and_delete(const json_ptr::deleter_type & /*plain*/) noexcept
    {
    }
    void operator()(cJSON *tree) const noexcept
    {
        wipe(tree);
        cJSON_Delete(tree);
    }

  private:
    // NOLINTNEXTLINE(misc-no-recursion): a body is nested at most velm_request_max_depth (100) deep
    static void wipe(cJSON *item) noexcept
    {
        for (; item != nullptr; item = item->next) {
            if (item->valuestring != nullptr) {
                OPENSSL_cleanse(item->valuestring, std::strlen(item->valuestring));
            }
            wipe(item->child);
        }
    }
};
using secret_json_ptr = std::unique_ptr<cJSON, json_wipe_and_delete>;
