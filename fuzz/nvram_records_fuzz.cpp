#include <algorithm>

#include "allocation_meter.h"
#include "fuzz_target.h"
#include "nvram_format.h"
#include "nvram_maker.h"

/// A file of the store. First byte 0: the rest is the file as it is; else bodies of records, to which
/// checksums are made.

namespace {

void are_valid(const nvram_settings &settings)
{
    for (const auto &[name, value] : settings) {
        FUZZ_REQUIRE(!name.empty() && name.size() <= nvram_name_max);
        FUZZ_REQUIRE(std::ranges::none_of(name, [](char c) {
            return static_cast<std::uint8_t>(c) < 0x20 || c == 0x7f || c == '=';
        }));
        FUZZ_REQUIRE(value.size() <= nvram_value_max && value.find('\0') == std::string::npos);
    }
}

/// Settings written to a file are those that are read from it.
void write_and_read(const nvram_settings &settings)
{
    const nvram_header header{7, "0123456789abcdef"};
    const auto file = nvram_file_make(header, settings);
    const auto header_again = nvram_header_parse(file);
    FUZZ_REQUIRE(header_again && header_again->sequence == 7);
    FUZZ_REQUIRE(header_again->boot_id == header.boot_id);
    nvram_settings again;
    const auto read = nvram_records_apply(std::span{file}.subspan(nvram_header_size), again);
    FUZZ_REQUIRE(read.records == 1 && read.end == nvram_log_end::clean && again == settings);
}

void header(fuzz_bytes bytes)
{
    const auto parsed = nvram_header_parse(bytes);
    if (!parsed) {
        return;
    }
    FUZZ_REQUIRE(parsed->boot_id.size() <= nvram_boot_id_size);
    nvram_bytes once;
    nvram_header_append(once, *parsed);
    const auto again = nvram_header_parse(once);
    FUZZ_REQUIRE(once.size() == nvram_header_size && again);
    FUZZ_REQUIRE(again->sequence == parsed->sequence && again->boot_id == parsed->boot_id);
}

void records(fuzz_bytes bytes)
{
    nvram_settings settings;
    nvram_log_read read;
    {
        const allocation_meter meter;
        read = nvram_records_apply(bytes, settings);
        // A change of 40 bytes in memory and a node of 120 for every setting of 8 bytes.
        FUZZ_REQUIRE(meter.peak() <= 48 * bytes.size() + 4096);
    }
    FUZZ_REQUIRE(read.bytes <= bytes.size());
    FUZZ_REQUIRE((read.end == nvram_log_end::clean) == (read.bytes == bytes.size()));
    are_valid(settings);
    write_and_read(settings);
    // Of what comes after the whole records nothing was taken.
    nvram_settings whole;
    const nvram_log_read again = nvram_records_apply(bytes.first(read.bytes), whole);
    FUZZ_REQUIRE(again.end == nvram_log_end::clean && again.records == read.records);
    FUZZ_REQUIRE(whole == settings);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_input in{data, size};
    if (in.byte() == 0) {
        const fuzz_bytes file = in.rest();
        header(file);
        records(file.subspan(std::min(nvram_header_size, file.size())));
        return 0;
    }
    const std::size_t cut = in.byte();
    const nvram_bytes made = nvram_make_records(in);
    records(made);
    records(fuzz_bytes{made}.first(made.size() - std::min(cut, made.size())));
    return 0;
}
