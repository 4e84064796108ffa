#pragma once

#include <cjson/cJSON.h>
#include <openssl/crypto.h>

#include <cstring>
#include <memory>

#include "handles/handle.h"

using json_ptr = handle<cJSON, cJSON_Delete>;

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
    // NOLINTNEXTLINE(misc-no-recursion): cJSON parses no deeper than CJSON_NESTING_LIMIT
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

/// Text printed by cJSON.
using json_text = handle<char, cJSON_free>;
