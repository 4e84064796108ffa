#pragma once

#include <cjose/base64.h>
#include <cjose/error.h>
#include <cjose/util.h>

#include <memory>

/// Text or bytes made by cjose, given back to the allocator that it is set up with.
struct cjose_memory_deleter {
    void operator()(void *memory) const noexcept
    {
        cjose_get_dealloc()(memory);
    }
};
using cjose_text = std::unique_ptr<char, cjose_memory_deleter>;
