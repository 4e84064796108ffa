#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "fuzz_target.h"

/// Bytes of the nvram store's files with checksums that hold, however odd what they are over.

using nvram_bytes = std::vector<std::uint8_t>;

/// A record around a body.
[[nodiscard]] nvram_bytes nvram_make_record(fuzz_bytes body);

/// A header of these fields, the boot id cut or filled up with zeros.
[[nodiscard]] nvram_bytes nvram_make_header(std::uint64_t sequence, std::string_view boot_id);

/// Records around bodies that stand behind their lengths, the high byte first.
[[nodiscard]] nvram_bytes nvram_make_records(fuzz_input bodies);
