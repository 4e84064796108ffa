#pragma once

/// The names of what refuses a visit, as the control socket gives them.

inline constexpr char story_request_check[] = "request_check";     // texts of the body and headers
inline constexpr char story_assertion_check[] = "assertion_check"; // is it the app, on a device?
inline constexpr char story_user_pass_check[] = "user_pass_check"; // the login
inline constexpr char story_paired_app_check[] = "paired_app_check";
inline constexpr char story_device_check[] = "device_check"; // the BSSID
inline constexpr char story_endpoint[] = "endpoint"; // the route's own work, after all checks
inline constexpr char story_location_check[] =
    "location_check";                        // a location that was accepted at first
inline constexpr char story_path[] = "path"; // no route has it
inline constexpr char story_gone[] = "gone"; // the phone left before it was answered
// Before a route:
inline constexpr char story_http[] = "http";               // head or body
inline constexpr char story_tls[] = "tls";                 // the handshake
inline constexpr char story_connections[] = "connections"; // too many, or too slow

inline constexpr const char *story_checks[] = {
    story_request_check,
    story_assertion_check,
    story_user_pass_check,
    story_paired_app_check,
    story_device_check,
    story_endpoint,
    story_location_check,
    story_path,
    story_gone,
    story_http,
    story_tls,
    story_connections,
};
