#include "velm_challenge_engine.h"

#include <openssl/rand.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <string_view>
#include <utility>
#include <vector>

#include "handles/malloc.h"
#include "logger/fatal.h"
#include "story/reason.h"
#include "text/hex.h"

namespace {

constexpr char log_category[] = "velm_challenge_engine";

constexpr std::size_t random_size = 16;
constexpr std::size_t challenge_size = 2 * random_size + 1; // hexadecimal digits and NUL
constexpr std::time_t lifetime_s = 60;
constexpr std::size_t pending_limit = 1000;

using steady_clock = std::chrono::steady_clock;

struct challenge_entry {
    plain_ptr<char> challenge;
    std::time_t created = 0;
    steady_clock::time_point created_steady = {};
};

struct module_state {
    std::vector<challenge_entry> pending; // in order of issue
};
module_state state;

std::time_t time_now(const char *caller)
{
    const std::time_t now = time(nullptr);
    if (now == static_cast<std::time_t>(-1)) {
        FATAL("%s: cannot get time now", caller);
    }
    return now;
}

/// By either clock. One on the wall that is set back gives a negative age: the challenge still
/// serves, since its phone is on the way, but no longer than it would have without that.
bool challenge_entry_outdated(const challenge_entry &entry, std::time_t now,
                              steady_clock::time_point now_steady)
{
    return now - entry.created > lifetime_s ||
           now_steady - entry.created_steady >= std::chrono::seconds{lifetime_s + 1};
}

void challenge_entries_remove_outdated()
{
    const std::time_t now = time_now(__func__);
    const steady_clock::time_point now_steady = steady_clock::now();
    // NOLINTNEXTLINE(bugprone-lambda-function-name): the capture takes the outer function's name
    std::erase_if(state.pending, [=, caller = __func__](const challenge_entry &entry) {
        const bool outdated = challenge_entry_outdated(entry, now, now_steady);
        if (outdated) {
            LOG_TRACE("%s - removed challenge: %s", caller, entry.challenge.get());
        }
        return outdated;
    });
}

void challenge_entries_remove_all()
{
    for (const challenge_entry &entry : state.pending) {
        LOG_TRACE("%s - removed challenge: %s", __func__, entry.challenge.get());
    }
    state.pending.clear();
}

/// Expands the second half of the buffer into digits from its front on: a pair of digits only ever
/// lands on bytes that are read already.
void expand_to_hexadecimal(char *challenge)
{
    for (std::size_t i = 0; i < random_size; ++i) {
        const auto digits = hex_digits(static_cast<std::uint8_t>(challenge[random_size + i]));
        std::copy(digits.begin(), digits.end(), challenge + 2 * i);
    }
    challenge[2 * random_size] = '\0';
}

challenge_entry challenge_entry_create(plain_ptr<char> challenge)
{
    return {std::move(challenge), time_now(__func__), steady_clock::now()};
}

std::vector<challenge_entry>::iterator challenge_entry_find(const char *challenge)
{
    REQUIRE_NOT_NULL(challenge, "challenge");
    return std::find_if(state.pending.begin(), state.pending.end(),
                        [wanted = std::string_view{challenge}](const challenge_entry &entry) {
                            return wanted == entry.challenge.get();
                        });
}

} // namespace

void velm_challenge_engine_init()
{
    LOG_TRACE("%s", __func__);
    challenge_entries_remove_all();
}

const char *velm_challenge_engine_generate_challenge()
{
    challenge_entries_remove_outdated();
    LOG_TRACE("%s - pending challenges: %d", __func__, static_cast<int>(state.pending.size()));
    if (state.pending.size() >= pending_limit) {
        LOG_WARN("%s - too many pending challenges", __func__);
        return nullptr;
    }
    plain_ptr<char> challenge = try_make_plain<char>(challenge_size);
    REQUIRE_MEMORY(challenge, "challenge");
    auto *random = reinterpret_cast<unsigned char *>(challenge.get() + random_size);
    const int rc = RAND_bytes(random, static_cast<int>(random_size));
    if (rc != 1) {
        FATAL("%s: ssl call failed: %s result: %i loc: %s:%i", __func__,
              "RAND_bytes(challenge + 16, 16)", rc, __FILE__, __LINE__);
    }
    expand_to_hexadecimal(challenge.get());
    challenge_entry entry = challenge_entry_create(std::move(challenge));
    LOG_TRACE("%s - %s", __func__, entry.challenge.get());
    const allocation_name naming{__func__, "entry"};
    state.pending.push_back(std::move(entry));
    return state.pending.back().challenge.get();
}

int velm_challenge_engine_consume_challenge(const char *challenge)
{
    const bool was_there = challenge_entry_find(challenge) != state.pending.end();
    challenge_entries_remove_outdated();
    const auto found = challenge_entry_find(challenge);
    if (found == state.pending.end()) {
        LOG_TRACE("%s - no challenge: %s", __func__, challenge);
        if (was_there) {
            story_reason_set("its challenge is older than 60 s");
        }
        return 0;
    }
    LOG_TRACE("%s - found challenge: %s", __func__, challenge);
    state.pending.erase(found);
    return 1;
}
