#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// The bytes of the store's files, little-endian. A file is a header and records:
///
///     header  offset  width  field
///                  0      8  "velmnvr1"
///                  8      8  sequence   counts commits; 0 in the live file
///                 16     36  boot id    zeros in a committed file
///                 52      4  CRC-32 of the 52 bytes above
///     record       0      4  length of the body
///                  4      4  CRC-32 of the length
///                  8      n  body: changes, one after the other
///                8+n      4  CRC-32 of the body
///     change       0      1  1 set, 2 remove
///                  1      2  length of the name
///                  3      4  length of the value
///                  7         name, value
///
/// The first record holds all settings of the moment the file was made; each later one what one call
/// changed, all of it or nothing. The length has a checksum of its own so that damage to it is not
/// taken for a record that a killed writer left unfinished at the end of the file.

inline constexpr std::size_t nvram_header_size = 56;
inline constexpr std::size_t nvram_boot_id_size = 36;

/// Limits: what the daemon keeps in memory stays bounded whatever is set.
inline constexpr std::size_t nvram_name_max = 255;
inline constexpr std::size_t nvram_value_max = 64 * 1024;
inline constexpr std::size_t nvram_total_max = 1024 * 1024;
/// What a setting counts beside its name and its value.
inline constexpr std::size_t nvram_setting_overhead = 32;

/// By their bytes. `std::less<>` takes three calls for each comparison in code that is compiled to be small.
struct nvram_name_order {
    using is_transparent = void;
    [[nodiscard]] bool operator()(std::string_view one, std::string_view other) const noexcept
    {
        const std::size_t size = std::min(one.size(), other.size());
        const int order = std::char_traits<char>::compare(one.data(), other.data(), size);
        return order != 0 ? order < 0 : one.size() < other.size();
    }
};

using nvram_settings = std::map<std::string, std::string, nvram_name_order>;

/// A setting and its new value; none removes it.
struct nvram_change {
    std::string_view name;
    std::optional<std::string_view> value;
};

struct nvram_header {
    std::uint64_t sequence = 0;
    std::string boot_id;
};

/// How a row of records ends: after a whole one, in one that lacks its end, or in a damaged one.
enum class nvram_log_end { clean, unfinished, damaged };

struct nvram_log_read {
    std::size_t bytes = 0; // of the whole records
    std::size_t records = 0;
    nvram_log_end end = nvram_log_end::clean;
};

/// Neither empty nor too long, without "=" and control characters: such a name prints as one line
/// and splits at its first "=".
[[nodiscard]] bool nvram_name_is_valid(std::string_view name);

/// What counts against nvram_total_max.
[[nodiscard]] std::size_t nvram_settings_size(const nvram_settings &settings);

void nvram_change_apply(nvram_settings &settings, const nvram_change &change);

void nvram_header_append(std::vector<std::uint8_t> &out, const nvram_header &header);
[[nodiscard]] std::optional<nvram_header> nvram_header_parse(std::span<const std::uint8_t> bytes);

void nvram_record_append(std::vector<std::uint8_t> &out, std::span<const nvram_change> changes);

/// A whole file: the header and one record with all settings.
[[nodiscard]] std::vector<std::uint8_t> nvram_file_make(const nvram_header &header,
                                                        const nvram_settings &settings);

/// Applies the whole records in order and stops at the first that is not.
[[nodiscard]] nvram_log_read nvram_records_apply(std::span<const std::uint8_t> bytes,
                                                 nvram_settings &settings);
