#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "logger/common_logger.h"
#include "story/memory.h"
#include "story/view.h"

/// Why no location came.

namespace {

constexpr char log_category[] = "story";

const char *left_out_text(story_cause cause)
{
    switch (cause) {
    case story_cause::busy:
        return "too many requests of its client, or of all clients, wait already";
    case story_cause::no_pairings:
        return "no phone is paired";
    case story_cause::too_soon:
        return "the last push run began less than 60 s before";
    case story_cause::no_key:
        return "there is no service-account key for the push service";
    case story_cause::no_access_token:
        return "no access token for the push service could be had";
    case story_cause::none:
    case story_cause::every_push_failed:
    case story_cause::phones_refused:
    case story_cause::daemon_reloaded:
    case story_cause::client_gone:
    case story_cause::push_pending:
    case story_cause::phone_never_came:
    case story_cause::unknown:
        break;
    }
    return "";
}

[[gnu::format(printf, 1, 2)]] std::string printed(const char *format, ...)
{
    char text[384];
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start is right above
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

/// " (status 403)", or nothing.
std::string status_text(std::int32_t status)
{
    return status == 0 ? std::string{} : printed(" (status %d)", status);
}

bool has_failed_pushes_only(const story_round &round)
{
    return round.pushes > 0 && round.pushes_bad == round.pushes;
}

std::string every_push_failed_text(const story_round &round)
{
    return "the push service took none of the pushes" + status_text(round.push_status);
}

/// A run that was left out or came to nothing does not keep a phone from coming.
std::string refusal_text(const story_round &round)
{
    const std::string refused = printed("a phone came and was refused: %s", round.refused_why);
    if (round.run_left_out != story_cause::none) {
        return refused + "; no push was sent: " + story_run_text(round);
    }
    return has_failed_pushes_only(round) ? refused + "; " + every_push_failed_text(round) : refused;
}

/// The phone that the only push went to; " to " and its name, or nothing.
std::string target_text(const story_round &round)
{
    const story_memory &kept = story_kept();
    const auto push =
        std::find_if(kept.pushes.begin(), kept.pushes.end(), [&round](const story_push &one) {
            return one.number != 0 && one.run == round.run;
        });
    return push == kept.pushes.end() || push->name[0] == '\0' ? std::string{}
                                                              : printed(" to %s", push->name);
}

std::string pushed_text(const story_round &round)
{
    if (round.run == 0) {
        return "no push has left, and no phone came";
    }
    if (round.pushes == 1) {
        return "the push service took the push" + target_text(round) +
               ", but the phone did not come";
    }
    return round.pushes_ok == round.pushes
               ? printed("the push service took %u pushes, but no phone came", round.pushes)
               : printed("the push service took %u of %u pushes, but no phone came",
                         round.pushes_ok, round.pushes);
}

/// What kept a visitor from a route may be why no phone came.
std::string stopped_text(const story_round &round)
{
    return round.stopped_why == nullptr
               ? std::string{}
               : printed("; a visitor was refused before it reached a route: %s",
                         round.stopped_why);
}

} // namespace

const char *story_state_name(story_state state)
{
    switch (state) {
    case story_state::open:
        return "open";
    case story_state::answered:
        return "answered";
    case story_state::expired:
        return "expired";
    case story_state::client_gone:
        return "client gone";
    case story_state::refused:
        return "refused";
    }
    return "open";
}

const char *story_cause_name(story_cause cause)
{
    switch (cause) {
    case story_cause::none:
        return "";
    case story_cause::busy:
        return "busy";
    case story_cause::no_pairings:
        return "no pairings";
    case story_cause::too_soon:
        return "too soon";
    case story_cause::no_key:
        return "no key";
    case story_cause::no_access_token:
        return "no access token";
    case story_cause::every_push_failed:
        return "every push failed";
    case story_cause::phones_refused:
        return "phones refused";
    case story_cause::daemon_reloaded:
        return "daemon reloaded";
    case story_cause::client_gone:
        return "client gone";
    case story_cause::push_pending:
        return "push pending";
    case story_cause::phone_never_came:
        return "phone never came";
    case story_cause::unknown:
        break;
    }
    return "unknown";
}

std::string story_run_text(const story_round &round)
{
    return left_out_text(round.run_left_out) + status_text(round.run_status);
}

story_cause story_cause_of(const story_round &round)
{
    if (round.state == story_state::open || round.state == story_state::answered) {
        return story_cause::none;
    }
    if (round.refused_route != nullptr) {
        return story_cause::phones_refused;
    }
    if (round.run_left_out != story_cause::none) {
        return round.run_left_out;
    }
    if (has_failed_pushes_only(round)) {
        return story_cause::every_push_failed;
    }
    if (round.state == story_state::client_gone) {
        return round.was_cut_off ? story_cause::daemon_reloaded : story_cause::client_gone;
    }
    if (round.push_lacked != nullptr && round.posted == 0) {
        return story_cause::push_pending;
    }
    return round.came == 0 ? story_cause::phone_never_came : story_cause::unknown;
}

std::string story_cause_text(const story_round &round)
{
    switch (story_cause_of(round)) {
    case story_cause::none:
        return {};
    case story_cause::busy:
    case story_cause::no_pairings:
    case story_cause::too_soon:
    case story_cause::no_key:
    case story_cause::no_access_token:
        return story_run_text(round);
    case story_cause::every_push_failed:
        return every_push_failed_text(round);
    case story_cause::phones_refused:
        return refusal_text(round);
    case story_cause::daemon_reloaded:
        return "the daemon ended the client's connection: it was reloaded, or the LAN changed";
    case story_cause::client_gone:
        return "the client ended its connection before a location came";
    case story_cause::push_pending:
        return printed("no push had %s when the time was up: the daemon was still waiting for the "
                       "push service",
                       round.push_lacked) +
               stopped_text(round);
    case story_cause::phone_never_came:
        return pushed_text(round) + stopped_text(round);
    case story_cause::unknown:
        break;
    }
    return round.posted == 0 ? "a phone came, but it posted no location"
                             : "a phone posted a location, but no client has got it";
}

void story_round_log(const story_round &round, const char *how)
{
    if (!common_logger_writes(log_category, LOG_LEVEL_INFO)) {
        return;
    }
    const std::string why = story_cause_text(round);
    LOG_INFO("%s - round %llu (pid %d, request %u) %s: %u pushes, %u visits, %llu reports%s%s%s%s",
             __func__, static_cast<unsigned long long>(round.id), round.pid, round.request_id, how,
             round.pushes, round.visited,
             static_cast<unsigned long long>(story_kept().last_report + 1 - round.reports.begin),
             why.empty() ? "" : "; ", story_cause_name(story_cause_of(round)),
             why.empty() ? "" : ": ", why.c_str());
}
