#pragma once

#include <cstdint>

/// What the kernel knows of this process. Read when somebody asks; nothing here blocks.

struct control_process_usage {
    double cpu_seconds = 0;
    std::uint64_t resident_bytes = 0;
    std::uint64_t open_descriptors = 0;
};

/// What cannot be read is 0.
[[nodiscard]] control_process_usage control_process_usage_now();
