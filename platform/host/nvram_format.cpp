#include "nvram_format.h"

#include <algorithm>
#include <array>
#include <numeric>

#include "bytes/reader.h"

namespace {

using bytes_view = std::span<const std::uint8_t>;
using bytes_out = std::vector<std::uint8_t>;

constexpr std::string_view magic = "velmnvr1";
constexpr std::size_t record_head_size = 8;
constexpr std::size_t checksum_size = 4;
constexpr std::size_t record_frame_size = record_head_size + checksum_size;

enum class change_kind : std::uint8_t { set = 1, remove = 2 };

constexpr std::array<std::uint32_t, 256> crc_table = [] {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < table.size(); ++i) {
        std::uint32_t rest = i;
        for (int bit = 0; bit < 8; ++bit) {
            rest = (rest >> 1) ^ ((rest & 1) != 0 ? 0xedb88320U : 0U);
        }
        table[i] = rest;
    }
    return table;
}();

std::uint32_t crc32(bytes_view bytes)
{
    const std::uint32_t rest = std::accumulate(
        bytes.begin(), bytes.end(), 0xffffffffU, [](std::uint32_t so_far, std::uint8_t byte) {
            return (so_far >> 8) ^ crc_table[(so_far ^ byte) & 0xff];
        });
    return ~rest;
}

void put_number(bytes_out &out, std::uint64_t value, std::size_t width)
{
    for (std::size_t i = 0; i < width; ++i) {
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

void put_text(bytes_out &out, std::string_view text)
{
    out.insert(out.end(), text.begin(), text.end());
}

bool checksum_holds(bytes_view bytes, bytes_view checksum)
{
    return byte_reader{checksum}.little_endian(checksum_size) == crc32(bytes);
}

std::optional<nvram_change> change_parse(byte_reader &in)
{
    const auto kind = static_cast<change_kind>(in.little_endian(1));
    const auto name_length = static_cast<std::size_t>(in.little_endian(2));
    const auto value_length = static_cast<std::size_t>(in.little_endian(4));
    nvram_change change{in.text(name_length), in.text(value_length)};
    if (!in.ok() || !nvram_name_is_valid(change.name) || value_length > nvram_value_max ||
        change.value->find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    switch (kind) {
    case change_kind::set:
        return change;
    case change_kind::remove:
        change.value.reset();
        return change;
    }
    return std::nullopt;
}

/// All changes of a body, or nothing.
std::optional<std::vector<nvram_change>> body_parse(bytes_view body)
{
    std::vector<nvram_change> changes;
    for (byte_reader in{body}; in.remaining() != 0;) {
        const std::optional<nvram_change> change = change_parse(in);
        if (!change) {
            return std::nullopt;
        }
        changes.push_back(*change);
    }
    return changes;
}

struct record_view {
    nvram_log_end end = nvram_log_end::damaged;
    bytes_view body;
};

/// The record that `rest` begins with; its body only when it is whole.
record_view record_split(bytes_view rest)
{
    if (rest.size() < record_head_size) {
        return {nvram_log_end::unfinished, {}};
    }
    if (!checksum_holds(rest.first(4), rest.subspan(4, checksum_size))) {
        return {nvram_log_end::damaged, {}};
    }
    const auto length = static_cast<std::size_t>(byte_reader{rest}.little_endian(4));
    if (rest.size() < record_frame_size || length > rest.size() - record_frame_size) {
        return {nvram_log_end::unfinished, {}};
    }
    const bytes_view body = rest.subspan(record_head_size, length);
    if (!checksum_holds(body, rest.subspan(record_head_size + length, checksum_size))) {
        return {nvram_log_end::damaged, {}};
    }
    return {nvram_log_end::clean, body};
}

} // namespace

bool nvram_name_is_valid(std::string_view name)
{
    return !name.empty() && name.size() <= nvram_name_max &&
           std::none_of(name.begin(), name.end(), [](char c) {
               const auto byte = static_cast<unsigned char>(c);
               return byte < 0x20 || byte == 0x7f || c == '=';
           });
}

std::size_t nvram_settings_size(const nvram_settings &settings)
{
    std::size_t size = 0;
    for (const auto &[name, value] : settings) {
        size += name.size() + value.size() + nvram_setting_overhead;
    }
    return size;
}

void nvram_change_apply(nvram_settings &settings, const nvram_change &change)
{
    if (change.value) {
        settings.insert_or_assign(std::string{change.name}, std::string{*change.value});
        return;
    }
    if (const auto found = settings.find(change.name); found != settings.end()) {
        settings.erase(found);
    }
}

void nvram_header_append(bytes_out &out, const nvram_header &header)
{
    const std::size_t start = out.size();
    put_text(out, magic);
    put_number(out, header.sequence, 8);
    put_text(out, std::string_view{header.boot_id}.substr(0, nvram_boot_id_size));
    out.resize(start + nvram_header_size - checksum_size);
    put_number(out, crc32(bytes_view{out}.subspan(start)), checksum_size);
}

std::optional<nvram_header> nvram_header_parse(bytes_view bytes)
{
    if (bytes.size() < nvram_header_size) {
        return std::nullopt;
    }
    const bytes_view fields = bytes.first(nvram_header_size - checksum_size);
    byte_reader in{fields};
    const bool magic_holds = in.text(magic.size()) == magic;
    if (!magic_holds || !checksum_holds(fields, bytes.subspan(fields.size(), checksum_size))) {
        return std::nullopt;
    }
    nvram_header header;
    header.sequence = in.little_endian(8);
    header.boot_id = in.text(nvram_boot_id_size);
    header.boot_id.erase(std::min(header.boot_id.find('\0'), header.boot_id.size()));
    return header;
}

void nvram_record_append(bytes_out &out, std::span<const nvram_change> changes)
{
    const std::size_t start = out.size();
    out.resize(start + record_head_size);
    for (const nvram_change &change : changes) {
        const std::string_view value = change.value.value_or(std::string_view{});
        const change_kind kind = change.value ? change_kind::set : change_kind::remove;
        put_number(out, static_cast<std::uint8_t>(kind), 1);
        put_number(out, change.name.size(), 2);
        put_number(out, value.size(), 4);
        put_text(out, change.name);
        put_text(out, value);
    }
    const std::size_t body = start + record_head_size;
    bytes_out head;
    put_number(head, out.size() - body, 4);
    put_number(head, crc32(head), checksum_size);
    std::copy(head.begin(), head.end(), out.begin() + static_cast<std::ptrdiff_t>(start));
    put_number(out, crc32(bytes_view{out}.subspan(body)), checksum_size);
}

bytes_out nvram_file_make(const nvram_header &header, const nvram_settings &settings)
{
    std::vector<nvram_change> all;
    all.reserve(settings.size());
    for (const auto &[name, value] : settings) {
        all.push_back({name, value});
    }
    bytes_out file;
    nvram_header_append(file, header);
    nvram_record_append(file, all);
    return file;
}

nvram_log_read nvram_records_apply(bytes_view bytes, nvram_settings &settings)
{
    nvram_log_read read;
    while (read.bytes < bytes.size()) {
        const record_view record = record_split(bytes.subspan(read.bytes));
        read.end = record.end;
        if (record.end != nvram_log_end::clean) {
            break;
        }
        const auto changes = body_parse(record.body);
        if (!changes) {
            read.end = nvram_log_end::damaged;
            break;
        }
        for (const nvram_change &change : *changes) {
            nvram_change_apply(settings, change);
        }
        read.bytes += record.body.size() + record_frame_size;
        ++read.records;
    }
    return read;
}
