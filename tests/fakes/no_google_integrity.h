#pragma once

#include "velm_google_integrity.h"

/// A client of Google's decoding service that has no verdict for anybody, for tests of what lies
/// above it. Included by one source file of a program, it replaces the module.

void velm_google_integrity_init(const velm_config *)
{
}

void velm_google_integrity_get_verdict(std::span<const std::uint8_t>,
                                       velm_google_integrity_callback completion, void *context)
{
    completion(nullptr, context);
}
