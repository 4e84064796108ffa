#include "malloc/tls_rooms.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <utility>

constinit std::uintptr_t tls_rooms_at = 0 - tls_rooms_size;

namespace {

/// Of one kind. They follow one another.
struct rooms {
    std::size_t at_hand;     // how many stay resident
    std::uint16_t taken = 0; // a bit for each
    /// How far bytes may have reached each; what lies behind it is zero.
    std::array<std::uint16_t, tls_rooms> reached{};
    std::array<bool, tls_rooms> is_told{};
};

struct module_state {
    unsigned char *begin = nullptr;
    rooms of_records{tls_rooms_at_hand_for_records}; // the first ones
    rooms of_messages{tls_rooms_at_hand_for_messages};
    bool is_reserved = false;
};
constinit module_state state{};
static_assert(tls_rooms == 16 && tls_room_most < UINT16_MAX);

/// Null without address space, and where a page is larger than a room's share of them: pages that two
/// rooms have in common cannot be given back. Then the heap serves.
unsigned char *reserve() noexcept
{
    if (tls_room_most % static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) != 0) {
        return nullptr;
    }
    void *const memory = mmap(nullptr, tls_rooms_size, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<unsigned char *>(memory);
}

/// A room, among those of its kind.
struct place {
    rooms *kind;
    std::size_t number;
    unsigned char *begin;
};

place place_of(const void *memory) noexcept
{
    const auto at =
        static_cast<std::size_t>(static_cast<const unsigned char *>(memory) - state.begin);
    const std::size_t number = at / tls_room_most;
    return {number < tls_rooms ? &state.of_records : &state.of_messages, number % tls_rooms,
            state.begin + number * tls_room_most};
}

/// The kernel is asked once for rooms that follow one another.
void trim(const rooms &kind, unsigned char *begin) noexcept
{
    std::size_t free = 0; // right before `number`
    for (std::size_t number = 0; number <= kind.at_hand; ++number) {
        if (number < kind.at_hand && (kind.taken & 1U << number) == 0) {
            ++free;
        } else if (free > 0) {
            madvise(begin + (number - free) * tls_room_most, free * tls_room_most, MADV_DONTNEED);
            free = 0;
        }
    }
}

} // namespace

void *tls_room_take(std::size_t size) noexcept
{
    if (size < tls_room_least || size > tls_room_most) {
        return nullptr;
    }
    if (!state.is_reserved) {
        state.is_reserved = true;
        state.begin = reserve();
        if (state.begin != nullptr) {
            tls_rooms_at = reinterpret_cast<std::uintptr_t>(state.begin);
        }
    }
    const bool is_record = size <= tls_room_record_most;
    rooms &kind = is_record ? state.of_records : state.of_messages;
    const auto first_free = static_cast<std::size_t>(std::countr_one(kind.taken));
    if (state.begin == nullptr || first_free == tls_rooms) {
        return nullptr;
    }
    kind.taken = static_cast<std::uint16_t>(kind.taken | 1U << first_free);
    kind.reached[first_free] = tls_room_most;
    kind.is_told[first_free] = false;
    return state.begin + ((is_record ? 0 : tls_rooms) + first_free) * tls_room_most;
}

void tls_room_reached(const void *begin, std::size_t size) noexcept
{
    if (!tls_room_is_one(begin)) {
        return;
    }
    const place room = place_of(begin);
    const std::size_t end =
        static_cast<std::size_t>(static_cast<const unsigned char *>(begin) - room.begin) + size;
    std::uint16_t &reached = room.kind->reached[room.number];
    if (!std::exchange(room.kind->is_told[room.number], true)) {
        reached = 0;
    }
    reached = static_cast<std::uint16_t>(std::clamp<std::size_t>(end, reached, tls_room_most));
}

void tls_room_give_back(void *room) noexcept
{
    const place given = place_of(room);
    const bool stays =
        given.number < given.kind->at_hand || madvise(room, tls_room_most, MADV_DONTNEED) != 0;
    if (stays && given.kind == &state.of_records) {
        std::memset(room, 0, given.kind->reached[given.number]);
    }
    given.kind->taken = static_cast<std::uint16_t>(given.kind->taken & ~(1U << given.number));
}

void tls_rooms_trim() noexcept
{
    if (state.begin != nullptr) {
        trim(state.of_records, state.begin);
        trim(state.of_messages, state.begin + tls_rooms * tls_room_most);
    }
}
