#include "nvram_maker.h"

namespace {

void put(nvram_bytes *out, fuzz_bytes bytes)
{
    out->insert(out->end(), bytes.begin(), bytes.end());
}

void put_number(nvram_bytes *out, std::uint64_t value, int width)
{
    for (; width > 0; --width, value >>= 8) {
        out->push_back(static_cast<std::uint8_t>(value));
    }
}

/// CRC-32, bit by bit.
void put_checksum(nvram_bytes *out, std::size_t from)
{
    std::uint32_t crc = 0xffffffff;
    for (const std::uint8_t byte : fuzz_bytes{*out}.subspan(from)) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = crc >> 1 ^ (crc % 2 != 0 ? 0xedb88320 : 0);
        }
    }
    put_number(out, ~crc, 4);
}

} // namespace

nvram_bytes nvram_make_record(fuzz_bytes body)
{
    nvram_bytes record;
    put_number(&record, body.size(), 4);
    put_checksum(&record, 0);
    put(&record, body);
    put_checksum(&record, 8);
    return record;
}

nvram_bytes nvram_make_header(std::uint64_t sequence, std::string_view boot_id)
{
    nvram_bytes header;
    put(&header, fuzz_bytes_of("velmnvr1"));
    put_number(&header, sequence, 8);
    put(&header, fuzz_bytes_of(boot_id.substr(0, 36)));
    header.resize(52);
    put_checksum(&header, 0);
    return header;
}

nvram_bytes nvram_make_records(fuzz_input bodies)
{
    nvram_bytes records;
    while (!bodies.empty()) {
        put(&records, nvram_make_record(bodies.bytes(bodies.word())));
    }
    return records;
}
