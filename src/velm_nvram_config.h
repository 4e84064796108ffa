#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "velm_config.h"

/// The settings that nvram overrides: every one that is present and valid replaces the field.
void velm_nvram_config_load(velm_config *config);

/// The value of a setting when it is shorter than `maximum_length`; else an ERROR line and nothing.
[[nodiscard]] std::optional<std::string> nvram_get_parameter(const char *name,
                                                             std::size_t maximum_length);

/// What the readers below make of a setting. An empty one counts as absent.
enum class nvram_fit { absent, fits, too_long, no_number };
[[nodiscard]] nvram_fit velm_nvram_config_fit_text(const char *name, std::size_t size);
[[nodiscard]] nvram_fit velm_nvram_config_fit_number(const char *name, std::uint16_t minimum);

/// The least number of a field; zelkad_mode alone may be 0.
inline constexpr std::uint16_t nvram_number_min = 1;

/// Replaces the field when the setting exists and is not empty. True when it did.
bool velm_nvram_config_read_text(const char *name, char *field, std::size_t size);

/// Replaces the field when the setting is decimal digits only (at most 20) with a value from
/// `minimum` to 65535. True when it did.
bool velm_nvram_config_read_number(const char *name, std::uint16_t *field, std::uint16_t minimum);
