#include "tools/control/fields.h"

#include <array>
#include <charconv>
#include <cmath>
#include <ctime>
#include <utility>

#include "text/utc.h"

namespace {

constexpr double largest_whole = 9007199254740991.0; // each whole number up to here has a double

/// The digits of `text` at `at`; less than 0 when there is another character.
int digits(const std::string &text, std::size_t at, std::size_t count)
{
    int value = 0;
    for (std::size_t i = at; i < at + count; ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return -1;
        }
        value = value * 10 + (text[i] - '0');
    }
    return value;
}

} // namespace

std::optional<control_moment> control_moment_parse(const std::string &text)
{
    constexpr std::string_view shape = "0000-00-00T00:00:00.000Z";
    if (text.size() != shape.size()) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const bool is_digit = text[i] >= '0' && text[i] <= '9';
        if (shape[i] == '0' ? !is_digit : text[i] != shape[i]) {
            return std::nullopt;
        }
    }
    std::tm parts{};
    parts.tm_year = digits(text, 0, 4) - 1900;
    parts.tm_mon = digits(text, 5, 2) - 1;
    parts.tm_mday = digits(text, 8, 2);
    parts.tm_hour = digits(text, 11, 2);
    parts.tm_min = digits(text, 14, 2);
    parts.tm_sec = digits(text, 17, 2);
    if (parts.tm_mon < 0 || parts.tm_mon > 11 || parts.tm_mday < 1 || parts.tm_mday > 31 ||
        parts.tm_hour > 23 || parts.tm_min > 59 || parts.tm_sec > 60) {
        return std::nullopt;
    }
    const std::chrono::seconds since{utc_seconds_of(parts)};
    return control_moment{since + std::chrono::milliseconds{digits(text, 20, 3)}};
}

control_fields::control_fields(const cJSON *object, std::string place, std::string &problem)
    : object_{cJSON_IsObject(object) != 0 ? object : nullptr}, place_{std::move(place)},
      problem_{problem}
{
    if (object_ == nullptr && problem_.empty()) {
        problem_ = (place_.empty() ? "the document" : place_) + " is no object";
    }
}

std::string control_fields::place_of(const char *name) const
{
    return place_.empty() ? name : place_ + '.' + name;
}

void control_fields::complain(const char *name, const char *what) const
{
    if (problem_.empty()) {
        problem_ = place_of(name) + what;
    }
}

/// Null, with a complaint, when it is missing.
const cJSON *control_fields::find(const char *name) const
{
    const cJSON *const found =
        object_ == nullptr ? nullptr : cJSON_GetObjectItemCaseSensitive(object_, name);
    if (found == nullptr) {
        complain(name, " is missing");
    }
    return found;
}

const cJSON *control_fields::find_unless_null(const char *name) const
{
    const cJSON *const found = find(name);
    return cJSON_IsNull(found) != 0 ? nullptr : found;
}

std::optional<std::string> control_fields::maybe_text(const char *name) const
{
    const cJSON *const found = find_unless_null(name);
    if (found == nullptr) {
        return std::nullopt;
    }
    if (cJSON_IsString(found) == 0) {
        complain(name, " is no text");
        return std::nullopt;
    }
    return found->valuestring;
}

std::optional<double> control_fields::maybe_measure(const char *name) const
{
    const cJSON *const found = find_unless_null(name);
    if (found == nullptr) {
        return std::nullopt;
    }
    if (cJSON_IsNumber(found) == 0) {
        complain(name, " is no number");
        return std::nullopt;
    }
    return found->valuedouble;
}

std::optional<std::int64_t> control_fields::maybe_number(const char *name) const
{
    const std::optional<double> value = maybe_measure(name);
    if (!value.has_value()) {
        return std::nullopt;
    }
    if (!(std::fabs(*value) <= largest_whole) || std::trunc(*value) != *value) {
        complain(name, " is no whole number");
        return std::nullopt;
    }
    return static_cast<std::int64_t>(*value);
}

std::optional<bool> control_fields::maybe_flag(const char *name) const
{
    const cJSON *const found = find_unless_null(name);
    if (found == nullptr) {
        return std::nullopt;
    }
    if (cJSON_IsBool(found) == 0) {
        complain(name, " is neither true nor false");
        return std::nullopt;
    }
    return cJSON_IsTrue(found) != 0;
}

std::optional<control_moment> control_fields::maybe_moment(const char *name) const
{
    const std::optional<std::string> value = maybe_text(name);
    if (!value.has_value()) {
        return std::nullopt;
    }
    const std::optional<control_moment> moment = control_moment_parse(*value);
    if (!moment.has_value()) {
        complain(name, " is no moment");
    }
    return moment;
}

std::optional<control_fields> control_fields::maybe_object(const char *name) const
{
    const cJSON *const found = find_unless_null(name);
    if (found == nullptr) {
        return std::nullopt;
    }
    return control_fields{found, place_of(name), problem_};
}

std::string control_fields::text(const char *name) const
{
    const auto value = maybe_text(name);
    if (!value.has_value()) {
        complain(name, " is null");
    }
    return value.value_or("");
}

std::int64_t control_fields::number(const char *name) const
{
    const auto value = maybe_number(name);
    if (!value.has_value()) {
        complain(name, " is null");
    }
    return value.value_or(0);
}

bool control_fields::flag(const char *name) const
{
    const auto value = maybe_flag(name);
    if (!value.has_value()) {
        complain(name, " is null");
    }
    return value.value_or(false);
}

control_moment control_fields::moment(const char *name) const
{
    const auto value = maybe_moment(name);
    if (!value.has_value()) {
        complain(name, " is null");
    }
    return value.value_or(control_moment{});
}

control_fields control_fields::object(const char *name) const
{
    return {find(name), place_of(name), problem_};
}

std::vector<std::string> control_fields::later_texts(const char *name) const
{
    std::vector<std::string> out;
    const cJSON *const found = cJSON_GetObjectItemCaseSensitive(object_, name);
    if (!problem_.empty() || found == nullptr) {
        return out;
    }
    if (cJSON_IsArray(found) == 0) {
        complain(name, " is no list");
    }
    const cJSON *element = nullptr;
    cJSON_ArrayForEach(element, found)
    {
        if (cJSON_IsString(element) == 0) {
            complain(name, " has an element that is no text");
            return {};
        }
        out.emplace_back(element->valuestring);
    }
    return out;
}

void control_fields::each(const char *name,
                          const std::function<void(const control_fields &)> &take) const
{
    const cJSON *const found = find(name);
    if (found == nullptr) {
        return;
    }
    if (cJSON_IsArray(found) == 0) {
        complain(name, " is no list");
        return;
    }
    std::size_t index = 0;
    const cJSON *element = nullptr;
    cJSON_ArrayForEach(element, found)
    {
        const std::string place = place_of(name) + '[' + std::to_string(index++) + ']';
        take(control_fields{element, place, problem_});
        if (!problem_.empty()) {
            return;
        }
    }
}
