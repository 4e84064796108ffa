#include "ios_validation/auth_data.h"

#include "bytes/reader.h"

namespace {
constexpr std::size_t flags_size = 1;
} // namespace

std::optional<ios_auth_data> ios_auth_data_parse(std::span<const std::uint8_t> bytes,
                                                 ios_auth_data_mode mode)
{
    byte_reader in{bytes};
    ios_auth_data out;
    in.copy_to(out.rp_id_hash);
    in.skip(flags_size);
    out.counter = static_cast<std::uint32_t>(in.big_endian(sizeof out.counter));
    if (mode == ios_auth_data_mode::attestation) {
        in.copy_to(out.aaguid);
        // Longer ids are legal: the first 32 bytes identify the key, whatever else is there.
        const std::uint64_t credential_id_length = in.big_endian(2);
        if (credential_id_length < out.credential_id.size()) {
            return std::nullopt;
        }
        in.copy_to(out.credential_id);
    }
    return in.ok() ? std::optional{out} : std::nullopt;
}
