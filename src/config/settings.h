#pragma once

#include <cstdint>
#include <span>
#include <variant>

#include "config/record.h"

/// The table of settings: one row says all about a setting that its readers and its documents share.

/// How a boolean is written.
inline constexpr char config_yes[] = "yes";
inline constexpr char config_no[] = "no";

/// A field of the record, by its type.
using config_field =
    std::variant<bool velm_config::*, std::uint16_t velm_config::*,
                 char (velm_config::*)[config_path_size], char (velm_config::*)[config_word_size],
                 char (velm_config::*)[config_name_size]>;

struct config_setting {
    const char *key; // in the file and in the log
    config_field field;
    const char *standard;  // the default, as it would be written in the file
    const char *nvram;     // the name of the setting in nvram that overrides the file; null: none
    const char *meaning;   // one sentence, which velmd.conf(5) has too
    bool is_traced = true; // tools compare these TRACE lines: a new setting has none, so give false
};

/// The settings of the file, in the order of the record.
[[nodiscard]] std::span<const config_setting> config_file_settings();

/// Where the record has the value of that row from. The row is one of the tables' own.
[[nodiscard]] config_source &config_source_of(velm_config &config, const config_setting &row);
[[nodiscard]] config_source config_source_of(const velm_config &config, const config_setting &row);

/// The same by field, for those that the platform and the command line set.
[[nodiscard]] config_source &config_source_of(velm_config &config, const config_field &field);

/// The fields behind them, which only the platform and the command line set; the key is for the log.
[[nodiscard]] std::span<const config_setting> config_platform_settings();
