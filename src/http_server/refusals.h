#pragma once

#include <netinet/in.h>

#include <cstddef>

/// How often the log tells that a client was refused before it reached a route. Each refusal is a
/// line at WARN, but a flood of them must not fill the log: of one address that many are told in a
/// minute, and of all together. What was left out is counted and told with the next line of that
/// address. Internal to the server's connections.

inline constexpr std::size_t http_refusals_of_address = 100;
inline constexpr std::size_t http_refusals_of_all = 300;

/// The server begins anew, and so does the counting.
void http_refusals_forget();

/// A client of that address is being refused: true when the caller is to log it.
[[nodiscard]] bool http_refusals_tell(in_addr_t address);

/// The address as text, until the next call.
[[nodiscard]] const char *http_refusals_text(in_addr_t address);
