#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

/// Which client gives way when every place of the location-policy IPC is taken and one more comes.
///
/// A program that forgets to close its connections must not shut the others out. So the user id that
/// holds most places loses one. Of its clients, those without an open request go first. Of these, the
/// one that has been quiet longest goes. Each request and each arrival gets the next number: the client
/// with the lowest number has been quiet longest.

/// How many clients can be connected. Each may have 1024 requests open and 64 packets unread: at most
/// 96 KiB. Local clients are a few programs of the same device.
inline constexpr std::size_t velm_ipc_connection_limit = 32;

struct velm_ipc_place {
    uid_t uid;
    std::uint64_t heard;
    bool has_open_request;
    bool may_go; // not a connection that we made ourselves
};

/// None when none may go. Users with equally many places are looked at together.
[[nodiscard]] std::optional<std::size_t>
velm_ipc_place_to_give(std::span<const velm_ipc_place> places);
