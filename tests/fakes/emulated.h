#pragma once

#include <cstdlib>

/// True under the emulator of a cross build, which some tests have to know: it is many times slower,
/// has memory of its own in the process, and knows fewer socket options than the kernel.
/// scripts/run-foreign.py and cmake/toolchains say so.
inline bool is_emulated()
{
    return std::getenv("VELM_EMULATED") != nullptr;
}
