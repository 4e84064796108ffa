#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "fuzz_target.h"

/// Makes files of the nvram store. Their checksums are right, however odd their bytes are.

using nvram_bytes = std::vector<std::uint8_t>;

/// A record around a body.
[[nodiscard]] nvram_bytes nvram_make_record(fuzz_bytes body);

/// A header of these fields, the boot id cut or filled up with zeros.
[[nodiscard]] nvram_bytes nvram_make_header(std::uint64_t sequence, std::string_view boot_id);

/// Records around these bodies. Each body follows its length, which has the high byte first.
[[nodiscard]] nvram_bytes nvram_make_records(fuzz_input bodies);
