#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

/// Reads fields in order. Sticky: after the first short read everything reads as zero or empty and ok()
/// is false, so it is asked once, at the end.
class byte_reader {
  public:
    explicit byte_reader(std::span<const std::uint8_t> bytes) : rest_{bytes}
    {
    }
    /// Numbers have a width of at most 8 bytes.
    [[nodiscard]] std::uint64_t big_endian(std::size_t width);
    [[nodiscard]] std::uint64_t little_endian(std::size_t width);
    [[nodiscard]] std::string_view text(std::size_t length); // borrowed
    [[nodiscard]] std::uint8_t next_byte() const;            // zero at the end; not taken
    void copy_to(std::span<std::uint8_t> target);
    void skip(std::uint64_t count);
    [[nodiscard]] std::size_t remaining() const
    {
        return rest_.size();
    }
    [[nodiscard]] bool ok() const
    {
        return ok_;
    }

  private:
    std::span<const std::uint8_t> take(std::uint64_t count);

    std::span<const std::uint8_t> rest_;
    bool ok_ = true;
};
