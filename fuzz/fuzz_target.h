#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>

/// What every fuzz target is made of. A target is a file NAME_fuzz.cpp with the one function below
/// and a row in fuzz/targets; it replaces modules at link time as the unit tests do. The same file
/// is a fuzzer (clang, libFuzzer) and, linked with replay_main.cpp, a test that runs the corpus.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

/// What must always hold. Ends the process, in every kind of build.
// clang-format off
#define FUZZ_REQUIRE(condition)                                                                   \
    do {                                                                                          \
        if (!(condition)) {                                                                       \
            dprintf(2, "%s:%d: broken: %s\n", __FILE__, __LINE__, #condition);                    \
            std::abort();                                                                         \
        }                                                                                         \
    } while (false)
// clang-format on

using fuzz_bytes = std::span<const std::uint8_t>;

inline std::string_view fuzz_text(fuzz_bytes bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

inline fuzz_bytes fuzz_bytes_of(std::string_view text)
{
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

inline bool fuzz_contains(fuzz_bytes whole, fuzz_bytes part)
{
    return std::search(whole.begin(), whole.end(), part.begin(), part.end()) != whole.end() ||
           part.empty();
}

/// Takes an input apart; what lies behind its end reads as zero and as nothing.
class fuzz_input {
  public:
    fuzz_input(const std::uint8_t *data, std::size_t size) : rest_{data, size}
    {
    }

    std::uint8_t byte()
    {
        const fuzz_bytes one = bytes(1);
        return one.empty() ? std::uint8_t{0} : one.front();
    }

    /// Two bytes, the high one first.
    std::size_t word()
    {
        const std::size_t high = byte();
        return high << 8 | byte();
    }

    fuzz_bytes bytes(std::size_t count)
    {
        const fuzz_bytes taken = rest_.first(count < rest_.size() ? count : rest_.size());
        rest_ = rest_.subspan(taken.size());
        return taken;
    }

    /// Up to the byte, which is taken too, or up to the end.
    std::string_view text_until(char end)
    {
        const std::string_view text = fuzz_text(rest_);
        const std::string_view taken = text.substr(0, text.find(end));
        bytes(taken.size() + 1);
        return taken;
    }

    fuzz_bytes rest()
    {
        return bytes(rest_.size());
    }

    [[nodiscard]] bool empty() const
    {
        return rest_.empty();
    }

  private:
    fuzz_bytes rest_;
};
