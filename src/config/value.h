#pragma once

#include <optional>
#include <string_view>

#include "config/settings.h"

/// What a text of the configuration file means to a field, and whether it fits.

/// True for "true", "yes" and "1", false for "false", "no" and "0"; nothing for another text, which a
/// field takes for false.
[[nodiscard]] std::optional<bool> config_truth(std::string_view text);

enum class config_fit {
    fits,
    no_truth,     // counts as no
    no_number,    // its first digits count, or 0
    out_of_range, // a number above 65535 or below 0
    too_long,     // cut to the field
};

/// Whether the field takes the text as it was meant.
[[nodiscard]] config_fit config_value_fit(const config_field &field, std::string_view text);

/// The longest text that the field holds; 0 for a field that holds none.
[[nodiscard]] std::size_t config_text_max(const config_field &field);
