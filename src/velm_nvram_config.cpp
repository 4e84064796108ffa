#include "velm_nvram_config.h"

#include <nvram.h>

#include <algorithm>
#include <charconv>
#include <string_view>
#include <variant>

#include "config/settings.h"
#include "handles/malloc.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "velm_nvram_config";
constexpr std::size_t number_length_max = 20;
constexpr std::uint16_t number_min = nvram_number_min;

/// No boolean is read from nvram: config/settings.cpp has the compiler check it.
bool read(const char *, bool *)
{
    return false;
}

bool read(const char *name, std::uint16_t *field)
{
    return velm_nvram_config_read_number(name, field, number_min);
}

template <std::size_t Size>
bool read(const char *name, char (*field)[Size])
{
    return velm_nvram_config_read_text(name, *field, Size);
}

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

std::optional<std::string> value_of(const char *name)
{
    const malloc_text value{nvram_unf_get(name)};
    return value == nullptr ? std::nullopt : std::optional<std::string>{value.get()};
}

/// The number of a text of digits only; nothing for another text or a number beyond 16 bits.
std::optional<std::uint16_t> parse_number(std::string_view text)
{
    if (text.empty() || !std::all_of(text.begin(), text.end(), is_digit)) {
        return std::nullopt;
    }
    std::uint16_t value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc{} ? std::optional{value} : std::nullopt;
}

} // namespace

void velm_nvram_config_load(velm_config *config)
{
    REQUIRE_MEMORY(config, "config");
    for (const config_setting &setting : config_file_settings()) {
        if (setting.nvram != nullptr &&
            std::visit([&](auto field) { return read(setting.nvram, &(config->*field)); },
                       setting.field)) {
            config_source_of(*config, setting) = config_source::nvram;
        }
    }
}

std::optional<std::string> nvram_get_parameter(const char *name, std::size_t maximum_length)
{
    std::optional<std::string> text = value_of(name);
    if (!text) {
        LOG_ERROR("%s - cannot get %s", __func__, name);
        return std::nullopt;
    }
    if (text->size() >= maximum_length) {
        LOG_ERROR("%s - invalid length for: %s", __func__, name);
        return std::nullopt;
    }
    return text;
}

nvram_fit velm_nvram_config_fit_text(const char *name, std::size_t size)
{
    const std::optional<std::string> value = value_of(name);
    if (!value || value->empty()) {
        return nvram_fit::absent;
    }
    return value->size() < size ? nvram_fit::fits : nvram_fit::too_long;
}

nvram_fit velm_nvram_config_fit_number(const char *name, std::uint16_t minimum)
{
    const std::optional<std::string> value = value_of(name);
    if (!value || value->empty()) {
        return nvram_fit::absent;
    }
    if (value->size() > number_length_max) {
        return nvram_fit::too_long;
    }
    const std::optional<std::uint16_t> parsed = parse_number(*value);
    return parsed && *parsed >= minimum ? nvram_fit::fits : nvram_fit::no_number;
}

bool velm_nvram_config_read_text(const char *name, char *field, std::size_t size)
{
    const std::optional<std::string> value = nvram_get_parameter(name, size);
    if (!value || value->empty()) {
        return false;
    }
    velm_config_copy_text(field, size, value->c_str());
    return true;
}

bool velm_nvram_config_read_number(const char *name, std::uint16_t *field, std::uint16_t minimum)
{
    const std::optional<std::string> value = nvram_get_parameter(name, number_length_max + 1);
    const std::optional<std::uint16_t> parsed = value ? parse_number(*value) : std::nullopt;
    if (!parsed || *parsed < minimum) {
        return false;
    }
    *field = *parsed;
    return true;
}
