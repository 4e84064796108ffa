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

/// Replaces the field when the setting exists and is not empty. True when it did.
bool velm_nvram_config_read_text(const char *name, char *field, std::size_t size);

/// Replaces the field when the setting is decimal digits only (at most 20) with a value from
/// `minimum` to 65535. True when it did.
bool velm_nvram_config_read_number(const char *name, std::uint16_t *field, std::uint16_t minimum);
