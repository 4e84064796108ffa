#include <string>

#include "logger/common_logger.h"
#include "story/memory.h"
#include "story/view.h"

/// Why no location came.

namespace {

constexpr char log_category[] = "story";

std::string counted(std::uint32_t count, const char *one, const char *many)
{
    return std::to_string(count) + ' ' + (count == 1 ? one : many);
}

std::string with_status(const char *text, std::int32_t status)
{
    return status == 0 ? text : std::string{text} + " (status " + std::to_string(status) + ')';
}

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
    case story_cause::client_gone:
    case story_cause::phone_never_came:
    case story_cause::unknown:
        break;
    }
    return "";
}

std::string push_text(const story_round &round)
{
    if (round.run == 0) {
        return "no push has left";
    }
    return counted(round.pushes, "push", "pushes") + " left, the push service took " +
           std::to_string(round.pushes_ok);
}

/// A run that was left out or came to nothing does not keep a phone from coming.
std::string refusal_text(const story_round &round)
{
    return round.refused_why == nullptr
               ? std::string{}
               : std::string{"; a phone came and was refused: "} + round.refused_why;
}

std::string never_came_text(const story_round &round)
{
    std::string text = push_text(round) + ", and no phone came";
    if (round.stopped_why != nullptr) {
        text = text + "; a visitor was refused before it reached a route: " + round.stopped_why;
    }
    return text;
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
    case story_cause::client_gone:
        return "client gone";
    case story_cause::phone_never_came:
        return "phone never came";
    case story_cause::unknown:
        break;
    }
    return "unknown";
}

std::string story_run_text(const story_round &round)
{
    return with_status(left_out_text(round.run_left_out), round.run_status);
}

story_cause story_cause_of(const story_round &round)
{
    if (round.state == story_state::open || round.state == story_state::answered) {
        return story_cause::none;
    }
    if (round.run_left_out != story_cause::none) {
        return round.run_left_out;
    }
    if (round.pushes > 0 && round.pushes_bad == round.pushes) {
        return story_cause::every_push_failed;
    }
    if (round.refused_route != nullptr) {
        return story_cause::phones_refused;
    }
    if (round.state == story_state::client_gone) {
        return story_cause::client_gone;
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
        return story_run_text(round) + refusal_text(round);
    case story_cause::every_push_failed:
        return with_status("the push service took none of the pushes", round.push_status) +
               refusal_text(round);
    case story_cause::phones_refused:
        return refusal_text(round).substr(2);
    case story_cause::client_gone:
        return "the client ended its connection before a location came";
    case story_cause::phone_never_came:
        return never_came_text(round);
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
