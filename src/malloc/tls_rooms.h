#pragma once

#include <cstddef>

/// Rooms for the two large buffers that OpenSSL takes and gives back all the time: one for a record
/// (17 kB) and one for the messages of a handshake (22 kB). On the heap they would lie between objects
/// that live on, and what they leave behind would be full of holes. They also would be resident whole,
/// though a greeting has a tenth of that.
///
/// Here each has pages of its own, and only pages that bytes reached are resident. What is given back
/// is zero, and gone, except for the first rooms, which one connection after another uses.

/// Of which sizes there are rooms.
inline constexpr std::size_t tls_room_least = 12 * 1024;
inline constexpr std::size_t tls_room_most = 24 * 1024;
/// How many there are: address space, not memory.
inline constexpr std::size_t tls_rooms = 32;
/// How many stay resident until tls_rooms_trim: to take pages anew costs a tenth of a resumed connection.
/// One handshake uses two.
inline constexpr std::size_t tls_rooms_at_hand = 8;

/// Null when the size is another, all are taken, or pages do not divide a room: then the allocator is to
/// be asked.
[[nodiscard]] void *tls_room_take(std::size_t size) noexcept;

/// It is a room that was taken.
[[nodiscard]] bool tls_room_is_one(const void *memory) noexcept;

void tls_room_give_back(void *room) noexcept;

/// The rooms at hand that nobody has are no longer resident.
void tls_rooms_trim() noexcept;
