#pragma once

#include <velm/location_policy.h>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

/// What velmctl writes to standard output, as text. Nothing that the daemon sends can forge a line,
/// break the JSON or command the terminal: text fields end at their own size, bytes that are no
/// UTF-8 become U+FFFD, control characters "?" in text and an escape in JSON.

/// Lines of "name: value" and an empty line.
[[nodiscard]] std::string velmctl_report_to_text(const velm_frame_header &header,
                                                 const velm_location_report &report);

/// One object with every field, on one line.
[[nodiscard]] std::string velmctl_report_to_json(const velm_frame_header &header,
                                                 const velm_location_report &report);

/// The same for a frame whose payload says nothing: an answer.
[[nodiscard]] std::string velmctl_answer_to_json(const velm_frame_header &header);

[[nodiscard]] std::string velmctl_time_to_text(std::uint32_t time);

/// The field up to its terminator, or all of it.
[[nodiscard]] std::string_view velmctl_field(std::span<const char> field);
