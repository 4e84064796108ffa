#include "check/nearest.h"

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

namespace {

constexpr std::size_t longest = 64; // a longer text is no key with a slip

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// How many letters must be changed, put in, left out or exchanged with their neighbour.
std::size_t distance(std::string_view a, std::string_view b)
{
    std::vector<std::size_t> before_last;
    std::vector<std::size_t> last(b.size() + 1);
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) {
        last[j] = j;
    }
    for (std::size_t i = 1; i <= a.size(); ++i) {
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t change = lower(a[i - 1]) == lower(b[j - 1]) ? 0 : 1;
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + change});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                row[j] = std::min(row[j], before_last[j - 2] + 1);
            }
        }
        before_last = std::exchange(last, row);
    }
    return last[b.size()];
}

} // namespace

std::string_view check_nearest(std::string_view text, std::span<const std::string_view> names)
{
    if (text.size() > longest) {
        return {};
    }
    std::string_view nearest;
    std::size_t least = 2 + text.size() / 8; // the first that is too far
    for (const std::string_view name : names) {
        const std::size_t steps = distance(text, name);
        if (steps < least) {
            least = steps;
            nearest = name;
        }
    }
    return least < text.size() ? nearest : std::string_view{};
}

std::string check_suggestion(std::string_view text, std::span<const std::string_view> names)
{
    const std::string_view nearest = check_nearest(text, names);
    return nearest.empty() ? std::string{} : ": did you mean \"" + std::string{nearest} + "\"?";
}
