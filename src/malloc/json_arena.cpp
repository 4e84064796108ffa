#include "malloc/json_arena.h"

#include <cjson/cJSON.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

struct module_state {
    unsigned char *begin;
    std::size_t used;
    std::size_t pieces; // that are not freed yet
    bool in_use;
};
constinit module_state state{};

/// cJSON makes its objects and texts, and nothing that needs more.
constexpr std::size_t alignment = alignof(cJSON);

void *take(std::size_t size) noexcept
{
    if (!state.in_use || state.begin == nullptr || size > json_arena_size - state.used) {
        return std::malloc(size);
    }
    void *const piece = state.begin + state.used;
    state.used = (state.used + size + alignment - 1) / alignment * alignment;
    ++state.pieces;
    return piece;
}

/// Pages are zero when they come again. Where they are so large that they cannot be given back, they
/// are overwritten.
void wipe() noexcept
{
    if (state.used > json_arena_at_hand &&
        madvise(state.begin + json_arena_at_hand, state.used - json_arena_at_hand, MADV_DONTNEED) ==
            0) {
        state.used = json_arena_at_hand;
    }
    std::memset(state.begin, 0, state.used);
    state.used = 0;
}

bool is_piece(const void *memory) noexcept
{
    const auto at = reinterpret_cast<std::uintptr_t>(memory);
    const auto begin = reinterpret_cast<std::uintptr_t>(state.begin);
    return begin != 0 &&
           at - begin < json_arena_size; // below it, the difference is larger than any
}

void give_back(void *memory) noexcept
{
    if (!is_piece(memory)) {
        std::free(memory);
    } else if (--state.pieces == 0) {
        wipe();
    }
}

} // namespace

void json_arena_install() noexcept
{
    if (state.begin == nullptr) {
        void *const memory = mmap(nullptr, json_arena_size, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        state.begin = memory == MAP_FAILED ? nullptr : static_cast<unsigned char *>(memory);
    }
    cJSON_Hooks hooks{take, give_back};
    cJSON_InitHooks(&hooks);
}

json_arena_use::json_arena_use() noexcept
{
    state.in_use = true;
}

json_arena_use::~json_arena_use()
{
    state.in_use = false;
}

std::size_t json_arena_used() noexcept
{
    return state.used;
}
