#include "ios_validation/bytes.h"
#include "handles/malloc.h"

#include <algorithm>

ios_app_bytes ios_app_bytes_copy(std::span<const std::uint8_t> source)
{
    if (source.empty()) {
        return {};
    }
    ios_app_bytes copy{try_make_plain<std::uint8_t>(source.size()), source.size()};
    if (copy.empty()) {
        return {};
    }
    std::copy(source.begin(), source.end(), copy.data.get());
    return copy;
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): the unique_ptr that is returned owns it
}

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

std::uint64_t byte_reader::number(std::size_t width)
{
    std::uint64_t value = 0;
    for (const std::uint8_t byte : take(width)) {
        value = value << 8 | byte;
    }
    return value;
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
