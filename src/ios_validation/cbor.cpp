#include "ios_validation/cbor.h"

#include <algorithm>

#include "bytes/reader.h"
#include "handles/exhaustion.h"

namespace {

constexpr int depth_limit = 4;
constexpr std::uint64_t count_limit = 16;
constexpr std::size_t key_limit = 31;
constexpr std::size_t bytes_limit = 4096;

/// The major types of RFC 8949 that hold other bytes or items.
enum cbor_major : unsigned {
    major_bytes = 2,
    major_text = 3,
    major_array = 4,
    major_map = 5,
    major_tag = 6,
};

constexpr std::uint8_t break_byte = 0xff;

struct item_head {
    unsigned major = 0;
    bool indefinite = false;
    bool reserved = false;
    std::uint64_t argument = 0;
};

item_head head_read(byte_reader &in)
{
    const std::uint64_t initial = in.big_endian(1);
    const auto info = static_cast<unsigned>(initial & 0x1f);
    item_head head;
    head.major = static_cast<unsigned>(initial >> 5);
    if (info < 24) {
        head.argument = info;
    } else if (info < 28) {
        head.argument = in.big_endian(std::size_t{1} << (info - 24));
    } else {
        head.indefinite = info == 31;
        head.reserved = !head.indefinite;
    }
    return head;
}

/// In the order of what counts: what is foreign is malformed all the same when something behind it
/// is. Behind what is too deep nobody looks.
enum class cbor_shape { fits, foreign, malformed, too_deep };

cbor_shape item_walk(byte_reader &in, int depth);

// NOLINTBEGIN(misc-no-recursion): ends at depth_limit

cbor_shape definite_children_walk(byte_reader &in, std::uint64_t count, std::uint64_t per_element,
                                  int depth)
{
    // Every item takes a byte at least.
    if (count > in.remaining() / per_element) {
        return cbor_shape::malformed;
    }
    cbor_shape worst = count > count_limit ? cbor_shape::foreign : cbor_shape::fits;
    for (std::uint64_t i = 0; i < count * per_element && worst < cbor_shape::malformed; ++i) {
        worst = std::max(worst, item_walk(in, depth));
    }
    return worst;
}

cbor_shape indefinite_children_walk(byte_reader &in, std::uint64_t per_element, int depth)
{
    cbor_shape worst = cbor_shape::fits;
    std::uint64_t items = 0;
    while (in.next_byte() != break_byte && worst < cbor_shape::malformed) {
        worst = std::max(worst, item_walk(in, depth));
        ++items;
    }
    in.skip(1);
    if (items % per_element != 0) {
        return cbor_shape::malformed; // libcbor 0.5 would make a null value of what lacks
    }
    return items > count_limit * per_element ? std::max(worst, cbor_shape::foreign) : worst;
}

cbor_shape children_walk(byte_reader &in, const item_head &head, int depth)
{
    if (depth == depth_limit) {
        return cbor_shape::too_deep;
    }
    if (head.major == major_tag) {
        return head.indefinite ? cbor_shape::malformed : item_walk(in, depth + 1);
    }
    const std::uint64_t per_element = head.major == major_map ? 2 : 1;
    return head.indefinite ? indefinite_children_walk(in, per_element, depth + 1)
                           : definite_children_walk(in, head.argument, per_element, depth + 1);
}

/// A string in pieces: each of them a string of the same kind whose length is known.
cbor_shape pieces_walk(byte_reader &in, unsigned major)
{
    while (in.next_byte() != break_byte) {
        const item_head piece = head_read(in);
        if (piece.major != major || piece.indefinite || piece.reserved) {
            return cbor_shape::malformed;
        }
        in.skip(piece.argument);
        if (!in.ok()) {
            return cbor_shape::malformed;
        }
    }
    in.skip(1);
    return cbor_shape::foreign;
}

cbor_shape string_walk(byte_reader &in, const item_head &head)
{
    if (head.indefinite) {
        return pieces_walk(in, head.major);
    }
    in.skip(head.argument);
    return in.ok() ? cbor_shape::fits : cbor_shape::malformed;
}

/// Steps over one item without taking memory; the levels, and with them the recursion, are bounded.
cbor_shape item_walk(byte_reader &in, int depth)
{
    const item_head head = head_read(in);
    if (!in.ok() || head.reserved) {
        return cbor_shape::malformed;
    }
    switch (head.major) {
    case major_bytes:
    case major_text:
        return string_walk(in, head);
    case major_array:
    case major_map:
    case major_tag:
        return children_walk(in, head, depth);
    default: // numbers and simple values are complete with their head
        return head.indefinite ? cbor_shape::malformed : cbor_shape::fits;
    }
}
// NOLINTEND(misc-no-recursion)

} // namespace

std::optional<cbor_item_ptr> ios_app_cbor_decode(std::span<const std::uint8_t> bytes)
{
    byte_reader in{bytes};
    switch (item_walk(in, 0)) {
    case cbor_shape::malformed:
        return std::nullopt;
    case cbor_shape::foreign:
    case cbor_shape::too_deep:
        return cbor_item_ptr{};
    case cbor_shape::fits:
        break;
    }
    cbor_load_result result{};
    cbor_item_ptr item{cbor_load(bytes.data(), bytes.size(), &result)};
    // Not for want of what the sender announces: it is all there, as was seen above.
    memory_is_exhausted_if(result.error.code == CBOR_ERR_MEMERROR);
    if (item == nullptr || result.error.code != CBOR_ERR_NONE) {
        return std::nullopt;
    }
    return item;
}

std::optional<std::string_view> ios_app_cbor_text(const cbor_item_t *item)
{
    if (!cbor_isa_string(item) || !cbor_string_is_definite(item)) {
        return std::nullopt;
    }
    const std::size_t length = cbor_string_length(item);
    if (length == 0) {
        return std::string_view{};
    }
    return std::string_view{reinterpret_cast<const char *>(cbor_string_handle(item)), length};
}

std::optional<std::span<const std::uint8_t>> ios_app_cbor_bytes(const cbor_item_t *item)
{
    if (!cbor_isa_bytestring(item) || !cbor_bytestring_is_definite(item)) {
        return std::nullopt;
    }
    const std::size_t length = cbor_bytestring_length(item);
    if (length == 0 || length > bytes_limit) {
        return std::nullopt;
    }
    return std::span<const std::uint8_t>{cbor_bytestring_handle(item), length};
}

bool ios_app_cbor_read_bytes(const cbor_item_t *item, std::vector<std::uint8_t> &slot)
{
    const auto bytes = ios_app_cbor_bytes(item);
    if (!slot.empty() || !bytes.has_value()) {
        return false;
    }
    slot.assign(bytes->begin(), bytes->end());
    return true;
}

bool ios_app_cbor_read_map(const cbor_item_t *item, std::size_t pairs, void *object,
                           ios_app_cbor_key_handler handler)
{
    if (item == nullptr || !cbor_isa_map(item) || cbor_map_size(item) != pairs) {
        return false;
    }
    const std::span<const cbor_pair> entries{cbor_map_handle(item), pairs};
    return std::all_of(entries.begin(), entries.end(), [object, handler](const cbor_pair &entry) {
        const auto key = ios_app_cbor_text(entry.key);
        return key.has_value() && !key->empty() && key->size() <= key_limit &&
               handler(object, *key, entry.value);
    });
}
