#pragma once

#include <cstddef>

/// Memory for the objects of a request's JSON body, which are made and freed within one turn of the
/// loop. On the heap a thousand of them would lie between objects that live on, and leave it full of
/// holes that stay resident. Here they have pages of their own. Only pages that they reached are
/// resident.
///
/// A piece that is freed is not used again. When the last piece is freed, everything is overwritten, since
/// a password was in it, and all pages but the first are given back.

/// Address space, not memory: a body of 8 KiB with 1000 values takes 90 kB. When it is full, the heap
/// serves.
inline constexpr std::size_t json_arena_size = 128 * 1024;
/// What stays resident. A request for one location takes 3 kB, and a list of 20 takes 15.
inline constexpr std::size_t json_arena_at_hand = 16 * 1024;

/// cJSON takes its memory from here while a use lives, and from the heap otherwise. It gives each piece
/// back to where it is from. May be called at any time, and again.
void json_arena_install() noexcept;

/// While it lives, what cJSON makes is made here. It may be freed later, but not kept for long: others
/// have no room then.
class json_arena_use {
  public:
    json_arena_use() noexcept;
    ~json_arena_use();
    json_arena_use(const json_arena_use &) = delete;
    json_arena_use &operator=(const json_arena_use &) = delete;
};

/// How much is taken, pieces that are freed included; 0 when the last one has been.
[[nodiscard]] std::size_t json_arena_used() noexcept;
