#include "tools/explain/sentences.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "request/paths.h"
#include "tools/explain/remedies.h"
#include "tools/terminal/text.h"
#include "tools/terminal/times.h"

namespace {

std::string deed_of(const control_visit &visit)
{
    const std::string route = visit.route.value_or("");
    const auto *const row =
        std::find_if(std::begin(request_paths), std::end(request_paths),
                     [&route](const request_path_row &one) { return route == one.path; });
    return row == std::end(request_paths) ? "came" : row->deed;
}

std::string shown(const std::optional<std::string> &text)
{
    return velmctl_text_for_terminal(text.value_or(""));
}

/// A reason of the daemon ends without a full stop; a foreign one may not.
std::string without_full_stop(std::string text)
{
    while (!text.empty() && (text.back() == '.' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

std::string reason_of(const control_visit &visit)
{
    const std::string hint = shown(visit.hint);
    const std::string why = without_full_stop(shown(visit.why));
    const std::string saw = hint.empty() ? "" : " (" + hint + ')';
    return why.empty() ? saw : ": " + why + saw;
}

/// For a phone that named a BSSID that is not ours: the daemon gives both. Else empty.
std::string bssid_reason_of(const control_visit &visit)
{
    constexpr std::string_view device_check = "device_check";
    constexpr std::string_view named = "named ";
    constexpr std::string_view ours = ", ours: ";
    const std::string hint = shown(visit.hint);
    const std::size_t end = hint.find(ours);
    if (visit.check != device_check || !hint.starts_with(named) || end == std::string::npos) {
        return "";
    }
    return ": its BSSID " + hint.substr(named.size(), end - named.size()) +
           " is none of this access point's (" + hint.substr(end + ours.size()) + ')';
}

std::string by_what(const control_visit &visit)
{
    const explain_remedy *const row = explain_check(visit.check.value_or(""));
    const std::string what = row != nullptr ? row->what : shown(visit.check);
    return what.empty() ? "" : " by " + what;
}

/// A reason beside which neither the check nor the route nor a number tells anything.
bool says_all(const control_visit &visit)
{
    return explain_is_old_challenge(visit.why.value_or("")) ||
           visit.why == "its user name or password is wrong";
}

std::string outcome_of(const control_visit &visit)
{
    const std::string bssid = bssid_reason_of(visit);
    if (!bssid.empty()) {
        return " and was refused" + bssid + '.';
    }
    if (says_all(visit)) {
        return " and was refused" + reason_of(visit) + '.';
    }
    const std::string status =
        visit.status.has_value() ? " (" + std::to_string(*visit.status) + ')' : "";
    return " and was refused" + by_what(visit) + status + reason_of(visit) + '.';
}

} // namespace

std::string explain_speaker::time(control_moment moment) const
{
    return velmctl_time_of(moment, now_);
}

/// True when the sentence before was about the same phone.
bool explain_speaker::is_again(const std::string &name)
{
    return std::exchange(last_, name) == name && style_ == explain_style::told;
}

std::string explain_speaker::subject(const std::string &name)
{
    return is_again(name) ? "It" : name;
}

std::string explain_speaker::push(const control_push &push)
{
    constexpr std::int64_t ok = 200;
    last_ = names_.of_push(push);
    const std::string what = last_ + " was pushed to at " + time(push.at);
    const std::string error = without_full_stop(shown(push.error));
    if (!push.status.has_value() && error.empty()) {
        return what + ", and the push service has not answered yet.";
    }
    if (!push.status.has_value()) {
        return what + ", and the push failed: " + error + '.';
    }
    const std::string status = " (" + std::to_string(*push.status) + ')';
    if (*push.status == ok && error.empty()) {
        return what + status + '.';
    }
    return what + ", and the push service did not take it" + status +
           (error.empty() ? "" : ": " + error) + '.';
}

std::string explain_speaker::place_and_time(const control_visit &visit) const
{
    std::string out = visit.address.empty() ? "" : " from " + shown(visit.address);
    out += " at " + time(visit.at);
    if (visit.times > 1) {
        out += ", " + std::to_string(visit.times) + " times until " + time(visit.until) + ',';
    }
    return out;
}

std::string explain_speaker::visit(const control_visit &visit)
{
    const std::string who = subject(names_.of_visit(visit));
    if (visit.accepted) {
        std::string out = who + ' ' + deed_of(visit) + place_and_time(visit);
        if (out.back() == ',') {
            out.pop_back();
        }
        return out + '.';
    }
    const bool has_route =
        visit.route.has_value() && *visit.route != "/location" && !says_all(visit);
    const std::string route = has_route ? " with " + shown(visit.route) : "";
    return who + " came" + place_and_time(visit) + route + outcome_of(visit);
}

std::string explain_speaker::report(const control_report &report)
{
    const std::string name = names_.of_report(report);
    const std::string whose = is_again(name) ? "Its location" : "The location of " + name;
    return whose + " went to " + velmctl_count_of(report.clients, "local client", "local clients") +
           " at " + time(report.at) + '.';
}
