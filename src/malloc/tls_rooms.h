#pragma once

#include <cstddef>
#include <cstdint>

/// Rooms for the two large buffers that OpenSSL takes and gives back all the time: one for a record
/// (17 kB) and one for the messages of a handshake (22 kB). On the heap they would lie between objects
/// that live on, and what they leave behind would be full of holes. They also would be resident whole,
/// though a greeting has a tenth of that.
///
/// Here each has pages of its own, and only pages that bytes reached are resident. What is given back
/// is gone, except for the first rooms of either kind, which one connection after another uses. A room
/// for a record is overwritten then. One for messages OpenSSL has overwritten itself (`BUF_MEM_free`).

/// Of which sizes there are rooms.
inline constexpr std::size_t tls_room_least = 12 * 1024;
inline constexpr std::size_t tls_room_most = 24 * 1024;
/// Up to here it is a record. A record has rooms of its own, since hardly any fills more than a page,
/// while OpenSSL overwrites the whole room of messages.
inline constexpr std::size_t tls_room_record_most = 20 * 1024;
/// How many there are of either kind: address space, not memory.
inline constexpr std::size_t tls_rooms = 16;
/// How many of them stay resident until tls_rooms_trim: to take pages anew costs a tenth of a resumed
/// connection. One handshake uses one of either kind, and one address has two handshakes at a time: so two
/// phones that come at once find theirs. A record stays resident only as far as bytes reached it.
inline constexpr std::size_t tls_rooms_at_hand_for_records = 4;
inline constexpr std::size_t tls_rooms_at_hand_for_messages = 4;

/// Null when the size is another, all are taken, or pages do not divide a room: then the allocator is to
/// be asked.
[[nodiscard]] void *tls_room_take(std::size_t size) noexcept;

/// Address space of all rooms, and where it begins. While there is none, that is the end of what can be
/// addressed, where no block lies.
inline constexpr std::size_t tls_rooms_size = 2 * tls_rooms * tls_room_most;
[[gnu::visibility("hidden")]] extern constinit std::uintptr_t tls_rooms_at;

/// It is a room that was taken. A handshake asks for each of thousands of blocks.
[[nodiscard]] inline bool tls_room_is_one(const void *memory) noexcept
{
    // Of what lies below, the difference is larger than any.
    return reinterpret_cast<std::uintptr_t>(memory) - tls_rooms_at < tls_rooms_size;
}

/// Bytes have been put there. Whoever says so of a room says it of all that is written into it: only that
/// far it is overwritten when it is given back. A room for a record of which nobody says so is overwritten
/// whole. Nothing is done for memory that is no room.
void tls_room_reached(const void *begin, std::size_t size) noexcept;

void tls_room_give_back(void *room) noexcept;

/// The rooms at hand that nobody has are no longer resident.
void tls_rooms_trim() noexcept;
