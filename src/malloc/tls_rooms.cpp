#include "malloc/tls_rooms.h"

#include <sys/mman.h>
#include <unistd.h>

#include <bit>
#include <cstdint>
#include <cstring>

namespace {

struct module_state {
    unsigned char *begin;
    std::uint32_t taken; // a bit for each
    bool is_reserved;
};
constinit module_state state{};
static_assert(tls_rooms == 32);

constexpr std::size_t all_rooms = tls_rooms * tls_room_most;

/// Null without address space, and where a page is larger than a room's share of them: pages that two
/// rooms have in common cannot be given back. Then the heap serves.
unsigned char *reserve() noexcept
{
    if (tls_room_most % static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) != 0) {
        return nullptr;
    }
    void *const memory = mmap(nullptr, all_rooms, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<unsigned char *>(memory);
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
    }
    const auto first_free = static_cast<std::size_t>(std::countr_one(state.taken));
    if (state.begin == nullptr || first_free == tls_rooms) {
        return nullptr;
    }
    state.taken |= std::uint32_t{1} << first_free;
    return state.begin + first_free * tls_room_most;
}

bool tls_room_is_one(const void *memory) noexcept
{
    const auto at = reinterpret_cast<std::uintptr_t>(memory);
    const auto begin = reinterpret_cast<std::uintptr_t>(state.begin);
    return begin != 0 && at - begin < all_rooms; // below it, the difference is larger than any
}

void tls_room_give_back(void *room) noexcept
{
    const auto number =
        static_cast<std::size_t>(static_cast<unsigned char *>(room) - state.begin) / tls_room_most;
    if (number < tls_rooms_at_hand || madvise(room, tls_room_most, MADV_DONTNEED) != 0) {
        std::memset(room, 0, tls_room_most);
    }
    state.taken &= ~(std::uint32_t{1} << number);
}

void tls_rooms_trim() noexcept
{
    for (std::size_t number = 0; state.begin != nullptr && number < tls_rooms_at_hand; ++number) {
        if ((state.taken & std::uint32_t{1} << number) == 0) {
            madvise(state.begin + number * tls_room_most, tls_room_most, MADV_DONTNEED);
        }
    }
}
