#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>

/// The texts of SSDP: which search is meant for us, and what it is answered with. No sockets here.

/// What phones search for, and what we call ourselves in the answer.
inline constexpr char velm_ssdp_device_type[] = "urn:schemas-upnp-org:device:velmd:1";

/// True when the text is an M-SEARCH with an "ST" header that names our device type; "ssdp:all" and
/// every other target are none of ours. Lines end with CR LF, and the last one may end with the
/// text. `text` holds anything up to its terminator and is cut to pieces meanwhile.
[[nodiscard]] bool velm_ssdp_message_is_search(char *text);

/// Far more than the longest answer.
inline constexpr std::size_t velm_ssdp_reply_size = 1024;

struct velm_ssdp_reply_fields {
    std::time_t time;
    const char *address; // where /info is
    std::uint16_t port;
    const char *uuid;
};

/// Writes the answer and returns its length.
std::size_t velm_ssdp_message_write_reply(std::span<char, velm_ssdp_reply_size> reply,
                                          const velm_ssdp_reply_fields &fields);
