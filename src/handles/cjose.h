#pragma once

#include <cjose/base64.h>
#include <cjose/error.h>
#include <cjose/jwe.h>
#include <cjose/jwk.h>
#include <cjose/jws.h>
#include <cjose/util.h>

#include <cstdint>
#include <memory>

#include "handles/handle.h"

using cjose_jwk_ptr = handle<cjose_jwk_t, cjose_jwk_release>;
using cjose_jwe_ptr = handle<cjose_jwe_t, cjose_jwe_release>;
using cjose_jws_ptr = handle<cjose_jws_t, cjose_jws_release>;

/// Text or bytes made by cjose, given back to the allocator that it is set up with.
struct cjose_memory_deleter {
    void operator()(void *memory) const noexcept
    {
        cjose_get_dealloc()(memory);
    }
};
using cjose_text = std::unique_ptr<char, cjose_memory_deleter>;
using cjose_bytes = std::unique_ptr<std::uint8_t, cjose_memory_deleter>;
