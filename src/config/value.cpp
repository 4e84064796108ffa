#include "config/value.h"

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <system_error>

namespace {

config_fit number_fit(std::string_view text)
{
    long long number = 0;
    const char *const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (text.empty() || result.ptr != end || result.ec == std::errc::invalid_argument) {
        return config_fit::no_number;
    }
    const bool is_in_range = result.ec == std::errc{} && number >= 0 && number <= UINT16_MAX;
    return is_in_range ? config_fit::fits : config_fit::out_of_range;
}

struct text_max {
    std::size_t operator()(bool velm_config::*) const
    {
        return 0;
    }
    std::size_t operator()(std::uint16_t velm_config::*) const
    {
        return 0;
    }
    template <std::size_t Size>
    std::size_t operator()(char (velm_config::*)[Size]) const
    {
        return Size - 1;
    }
};

} // namespace

std::optional<bool> config_truth(std::string_view text)
{
    if (text == "true" || text == config_yes || text == "1") {
        return true;
    }
    if (text == "false" || text == config_no || text == "0") {
        return false;
    }
    return std::nullopt;
}

config_fit config_value_fit(const config_field &field, std::string_view text)
{
    if (std::holds_alternative<bool velm_config::*>(field)) {
        return config_truth(text) ? config_fit::fits : config_fit::no_truth;
    }
    if (std::holds_alternative<std::uint16_t velm_config::*>(field)) {
        return number_fit(text);
    }
    return text.size() <= config_text_max(field) ? config_fit::fits : config_fit::too_long;
}

std::size_t config_text_max(const config_field &field)
{
    return std::visit(text_max{}, field);
}
