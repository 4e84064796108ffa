#include "bytes/reader.h"

#include <algorithm>

std::span<const std::uint8_t> byte_reader::take(std::uint64_t count)
{
    if (!ok_ || count > rest_.size()) {
        ok_ = false;
        rest_ = {};
        return {};
    }
    const auto taken = rest_.first(static_cast<std::size_t>(count));
    rest_ = rest_.subspan(taken.size());
    return taken;
}

std::uint64_t byte_reader::big_endian(std::size_t width)
{
    std::uint64_t value = 0;
    for (const std::uint8_t byte : take(width)) {
        value = value << 8 | byte;
    }
    return value;
}

std::uint64_t byte_reader::little_endian(std::size_t width)
{
    const auto bytes = take(width);
    std::uint64_t value = 0;
    for (std::size_t i = bytes.size(); i-- > 0;) {
        value = value << 8 | bytes[i];
    }
    return value;
}

std::string_view byte_reader::text(std::size_t length)
{
    const auto bytes = take(length);
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

std::uint8_t byte_reader::next_byte() const
{
    return rest_.empty() ? 0 : rest_.front();
}

void byte_reader::copy_to(std::span<std::uint8_t> target)
{
    const auto source = take(target.size());
    std::copy(source.begin(), source.end(), target.begin());
}

void byte_reader::skip(std::uint64_t count)
{
    (void)take(count);
}
