#include "ipc/report_queue.h"

#include <charconv>
#include <cstring>
#include <deque>
#include <limits>
#include <string_view>
#include <utility>

#include "logger/fatal.h"
#include "velm_utils.h"

namespace {

constexpr char log_category[] = "velm_location_policy_ipc";

// What a source takes beside its texts, rounded up.
constexpr std::size_t source_overhead = 512;

constexpr const char *kept_members[] = {"deviceId", "bssid"};

/// One source and how many of the waiting locations are its.
struct queued_source {
    location_source source;
    std::size_t size;
    std::size_t locations;
};

struct module_state {
    std::deque<queued_source> sources;
    std::deque<location_values> values;
    std::size_t size = 0;
};
module_state state;

std::string_view text_of(const cJSON *object, const char *member)
{
    const char *const text =
        object == nullptr ? nullptr : velm_utils_get_field_value_from_json_object(object, member);
    return text == nullptr ? std::string_view{} : text;
}

std::size_t source_size(const cJSON *auth)
{
    std::size_t size = source_overhead;
    for (const char *member : kept_members) {
        size += text_of(auth, member).size();
    }
    return size;
}

/// Whatever else a phone put there is not kept. Null when memory is exhausted.
json_ptr copy_auth(const cJSON *auth)
{
    json_ptr copy{cJSON_CreateObject()};
    for (const char *member : kept_members) {
        const char *const text = velm_utils_get_field_value_from_json_object(auth, member);
        if (copy != nullptr && text != nullptr &&
            cJSON_AddStringToObject(copy.get(), member, text) == nullptr) {
            return nullptr;
        }
    }
    return copy;
}

bool is_same(const location_source &source, const char *ip, const cJSON *auth)
{
    if (source.ip != ip) {
        return false;
    }
    for (const char *member : kept_members) {
        const char *const kept =
            velm_utils_get_field_value_from_json_object(source.auth.get(), member);
        const char *const text = velm_utils_get_field_value_from_json_object(auth, member);
        if ((kept == nullptr) != (text == nullptr) ||
            (kept != nullptr && std::strcmp(kept, text) != 0)) {
            return false;
        }
    }
    return true;
}

void source_add(const char *caller, const char *ip, const cJSON *auth)
{
    queued_source added{{}, source_size(auth), 0};
    {
        const allocation_name naming{caller, "d->ip"};
        added.source.ip = ip;
    }
    const allocation_name naming{caller, "d->auth"};
    added.source.auth = copy_auth(auth);
    if (added.source.auth == nullptr) {
        fatal_not_enough_memory(log_category, __FILE__, __LINE__, caller, "d->auth");
    }
    state.size += added.size;
    state.sources.push_back(std::move(added));
}

std::optional<std::uint32_t> time_of(const cJSON *location)
{
    const std::string_view text = text_of(location, "timestamp");
    std::uint32_t time = 0;
    const auto [stopped, error] = std::from_chars(text.data(), text.data() + text.size(), time);
    if (error != std::errc{} || stopped != text.data() + text.size()) {
        return std::nullopt;
    }
    return time;
}

location_values values_of(const cJSON *location)
{
    const auto number = [location](const char *member) {
        return velm_utils_get_number_value_from_json_object(location, member);
    };
    return {number("latitude"),         number("longitude"), number("accuracy"), number("altitude"),
            number("verticalAccuracy"), number("rssi"),      time_of(location)};
}

} // namespace

bool location_queue_has_room(const cJSON *auth, std::size_t locations)
{
    const std::size_t left = location_queue_limit - state.size;
    const std::size_t source = source_size(auth);
    return source <= left && locations <= (left - source) / sizeof(location_values);
}

bool location_queue_add(const char *caller, const char *ip, const cJSON *auth,
                        const cJSON *location)
{
    const bool same = !state.sources.empty() && is_same(state.sources.back().source, ip, auth);
    const std::size_t size = sizeof(location_values) + (same ? 0 : source_size(auth));
    if (size > location_queue_limit - state.size) {
        return false;
    }
    if (!same) {
        source_add(caller, ip, auth);
    }
    const allocation_name naming{caller, "d->location"};
    state.values.push_back(values_of(location));
    ++state.sources.back().locations;
    state.size += sizeof(location_values);
    return true;
}

std::size_t location_queue_size()
{
    return state.values.size();
}

std::size_t location_queue_bytes()
{
    return state.size;
}

const location_source &location_queue_first_source()
{
    return state.sources.front().source;
}

const location_values &location_queue_first_values()
{
    return state.values.front();
}

void location_queue_remove_first()
{
    state.values.pop_front();
    state.size -= sizeof(location_values);
    queued_source &first = state.sources.front();
    if (--first.locations == 0) {
        state.size -= first.size;
        state.sources.pop_front();
    }
}

void location_queue_clear()
{
    state = {};
}
