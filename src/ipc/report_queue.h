#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "handles/cjson.h"

/// The locations of phones that were answered with 200, in the order in which they came, until every
/// client has room for their reports. Loop thread only.
///
/// The queue keeps the values of each location. Neighbouring locations with the same address, device id and
/// BSSID share one source. docs/limits.md says how many locations fit. A caller that asks for room first
/// loses none.

inline constexpr std::size_t location_queue_limit = std::size_t{512} * 1024;

/// The sender: the address, and "deviceId" and "bssid" of the request, each if it is a text.
struct location_source {
    std::string ip;
    json_ptr auth;
};

/// A missing number is 0, and so is a member of another kind. A missing time stays empty.
struct location_values {
    double latitude, longitude, accuracy, altitude, vertical_accuracy, rssi;
    std::optional<std::uint32_t> time; // only a whole number from 0 to 2^32-1
};

/// Whether that many locations of one request would all be taken.
[[nodiscard]] bool location_queue_has_room(const cJSON *auth, std::size_t locations);

/// Copies its arguments; `caller` names the fatal line of exhausted memory. False, and nothing is
/// kept, when there is no room.
bool location_queue_add(const char *caller, const char *ip, const cJSON *auth,
                        const cJSON *location);

[[nodiscard]] std::size_t location_queue_size();

/// What they hold together, of the limit.
[[nodiscard]] std::size_t location_queue_bytes();

/// Of the oldest one; there must be one. Valid until it is removed.
[[nodiscard]] const location_source &location_queue_first_source();
[[nodiscard]] const location_values &location_queue_first_values();
void location_queue_remove_first();

void location_queue_clear();
