#pragma once

#include <string>

#include "config/record.h"

/// A question for /info to whatever listens at the daemon's address.

enum class doctor_certificate {
    none,    // no good answer came
    of_file, // it showed the certificate of the configured file, and has its key
    other,   // it showed another one
    unknown, // the file cannot be read
};

struct doctor_info {
    doctor_certificate certificate = doctor_certificate::none;
    std::string problem; // why there is no good answer
};

[[nodiscard]] doctor_info doctor_ask_info(const velm_config &config, const std::string &address);
