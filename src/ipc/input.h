#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

/// What the frame parser keeps of a connection between two reads: less than one request frame, and how
/// much of a skipped frame has not come yet.
struct velm_ipc_cmd_input {
    std::vector<std::uint8_t> buffer;
    std::size_t skip = 0;
};
