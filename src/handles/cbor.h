#pragma once

#include <cbor.h>

#include <memory>

/// Frees the item and all that hangs on it. cbor_decref takes a pointer to the pointer.
struct cbor_item_deleter {
    void operator()(cbor_item_t *item) const noexcept
    {
        cbor_decref(&item);
    }
};
using cbor_item_ptr = std::unique_ptr<cbor_item_t, cbor_item_deleter>;
