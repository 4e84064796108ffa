#include "google/junk.h"

#include <algorithm>
#include <chrono>
#include <vector>

#include "cutils/moment.h"

namespace {

constexpr std::chrono::minutes minute{1};
constexpr std::ptrdiff_t junk_of_one_in_a_minute = 10;
constexpr std::chrono::hours hour{1};
constexpr std::ptrdiff_t junk_of_all_in_an_hour = 60;
constexpr std::size_t remembered_at_most = 1024;

struct question {
    std::uint32_t number;
    in_addr_t address;
    velm_moment asked;
    bool open; // not answered yet
};

struct module_state {
    std::optional<in_addr> asker;
    std::vector<question> questions; // in the order of asking
    std::uint32_t last_number = 0;   // 0 is a question of nobody's
};
module_state state;

bool counts(const question &one, std::chrono::seconds period)
{
    return one.open || velm_moment_is_within(one.asked, period);
}

void forget_old()
{
    std::erase_if(state.questions, [](const question &one) { return !counts(one, hour); });
    if (state.questions.empty()) {
        state.questions = {}; // with its memory
    }
}

bool is_shut_out(in_addr_t address)
{
    const auto begin = state.questions.begin();
    const auto end = state.questions.end();
    const auto last_minute = std::count_if(begin, end, [=](const question &one) {
        return one.address == address && counts(one, minute);
    });
    const auto last_hour = std::count_if(begin, end, [](const question &one) { return !one.open; });
    return last_minute >= junk_of_one_in_a_minute ||
           (last_hour >= junk_of_all_in_an_hour &&
            std::any_of(begin, end,
                        [=](const question &one) { return one.address == address && !one.open; }));
}

std::uint32_t remember(in_addr_t address)
{
    if (state.questions.size() >= remembered_at_most) {
        state.questions.erase(state.questions.begin());
    }
    state.last_number = state.last_number == UINT32_MAX ? 1 : state.last_number + 1;
    state.questions.push_back({state.last_number, address, velm_moment_now(), true});
    return state.last_number;
}

} // namespace

velm_google_asker::velm_google_asker(std::optional<in_addr> address) noexcept : outer_{state.asker}
{
    state.asker = address;
}

velm_google_asker::~velm_google_asker()
{
    state.asker = outer_;
}

std::optional<in_addr> velm_google_asker::current() noexcept
{
    return state.asker;
}

std::optional<std::uint32_t> velm_google_junk_admit(std::optional<in_addr> asker)
{
    if (!asker.has_value()) {
        return 0;
    }
    forget_old();
    if (is_shut_out(asker->s_addr)) {
        return std::nullopt;
    }
    return remember(asker->s_addr);
}

void velm_google_junk_settle(std::uint32_t question_number, bool junk)
{
    const auto found =
        std::find_if(state.questions.begin(), state.questions.end(),
                     [=](const question &one) { return one.number == question_number; });
    if (found == state.questions.end()) {
        return;
    }
    if (junk) {
        found->open = false;
    } else {
        state.questions.erase(found);
    }
}
