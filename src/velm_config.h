#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "conffile/conffile.h"
#include "config/record.h"

/// Resets the logger to its default configuration and every field to its default.
void velm_config_set_defaults(velm_config *config);

/// Applies the file's keys, the logger's first. A file that cannot be read or parsed changes
/// nothing. Null arguments are fatal.
void velm_config_load_from_file(velm_config *config, const char *file);

/// Applies the pairs of a parsed file except those of the logger, which stays as it is.
void velm_config_load_pairs(velm_config *config, const conffile_ptr &cfile);

/// One TRACE line a field that has one, in the order of the record.
void velm_config_print_to_log(const velm_config *config);

/// Set a field from a key of the parsed file; a missing key leaves it. A null file or key is fatal.
void set_config_value_str(const ConfigFile *cfile, const char *key, char *dst, std::size_t size);
/// Base-10 strtol cut to 16 bits, kept only when errno is not ERANGE; errno is not cleared before,
/// and text that is no number stores 0: both are how the field has always behaved.
void set_config_value_uint16(const ConfigFile *cfile, const char *key, std::uint16_t *dst);
/// True exactly for "true", "yes" and "1".
void set_config_value_bool(const ConfigFile *cfile, const char *key, bool *dst);

/// Copies a text into a fixed field, cut to the field; the rest of the field is zeroed.
void velm_config_copy_text(char *dst, std::size_t size, const char *src);

/// The first line of the LAN address field: what is bound, joined, pushed and answered with.
[[nodiscard]] std::string velm_config_lan_ip_address(const velm_config *config);
