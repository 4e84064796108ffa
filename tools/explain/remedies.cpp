#include "tools/explain/remedies.h"

#include <algorithm>

#include "google/push_answer.h"

namespace {

// clang-format off
constexpr explain_remedy causes[] = {
    {"busy", "Too many requests waited already",
     "Ask less often: one request in a minute is enough, and every client gets the reports of all."},
    {"no pairings", "No phone is paired",
     "Pair a phone: open the app on a phone in this Wi-Fi, and let it find the access point."},
    {"too soon", "The last push run was less than a minute before",
     "Ask again a minute after the last request. The reports of the first request go to every client."},
    {"no key", "There is no service-account key for the push service",
     "Put the service-account key where cloudmessaging.firebase.privatekey.path says, and reload the daemon."},
    {"no access token", "The push service gave no access token",
     "Look at the uplink, the DNS, the clock and http.client.ca_cert.path. With a status 400 or 401 the service-account key is not valid any more: get a new one."},
    {"every push failed", "The push service took no push", ""},
    {"phones refused", "Each phone that came was refused", ""},
    {"daemon reloaded", "The daemon ended the client's connection",
     "Ask again: the daemon was reloaded, or the LAN changed, while the request waited."},
    {"push pending", "No push had been taken when the time was up",
     "Look at the uplink, the DNS and the clock: velmctl doctor tries the way to the push service."},
    {"phone never came", "The phone was pushed to and did not come",
     "Look at the phone: it must be switched on and in the Wi-Fi of this access point, and the app must be allowed to run in the background, to notify and to use the location."},
    {"client gone", "The client that asked did not wait",
     "Let the client keep its connection until a report comes or its time is up."},
    {"unknown", "The daemon does not know why", "Set logger.level to debug, reload the daemon and ask again."},
};

constexpr explain_remedy checks[] = {
    {"request_check", "the check of the request",
     "The app sent a request that is not whole or too long: update the app."},
    {"assertion_check", "the proof that it is the genuine app",
     "Let the app ask for a new challenge and try again within a minute. If that fails again, unpair the phone and pair it anew. The clocks of the phone and the access point must be right."},
    {"user_pass_check", "the login",
     "Enter the name and the password of the access point's account in the app. After too many wrong passwords wait a minute."},
    {"paired_app_check", "the check of its pairing",
     "Pair this phone with the access point: it is not paired, or was paired under another device id."},
    {"device_check", "the check of its BSSID",
     "Connect the phone to the Wi-Fi of this access point itself, not to another access point or a repeater. If it was, compare the BSSIDs that the platform gives: wlN_hwaddr in nvram."},
    {"endpoint", "the work itself, after all checks",
     "Look at the reason: the request was let in, but it could not be done."},
    {"location_check", "the check of its location",
     "The location has a value that cannot be: switch the phone's location off and on again, or update the app."},
    {"path", "the list of paths",
     "A program asked for a path that the daemon does not have: an old or a wrong app, or a stranger."},
    {"gone", "nobody: the phone left before it was answered",
     "Look at the Wi-Fi: the phone's connection ended while the daemon worked."},
    {"http", "the reader of HTTP",
     "What came is no request of the app: update the app, or look who is at that address."},
    {"tls", "TLS",
     "The phone and the daemon did not agree: look whether the certificate is valid, and whether the phone knows it."},
    {"connections", "the limits on connections",
     "Too many connections were open, or this one was too slow: look for a program on the LAN that holds connections, and at the Wi-Fi."},
};
// clang-format on

constexpr char old_challenge_remedy[] = "The app took longer than 60 s between the challenge and "
                                        "the location: it was probably stopped in "
                                        "the background. Open the app and ask again.";

struct push_row {
    std::int64_t first, last; // statuses
    const char *remedy;
};

// clang-format off
constexpr push_row pushes[] = {
    {400, 400, "The push service calls the push malformed: open the app so that it gets a new push token, and pair again."},
    {401, 401, "The service-account key is not valid any more: get a new one for cloudmessaging.firebase.privatekey.path, and look at the clock."},
    {403, 403, "The service account may not push to this app: use the key of the project that the app belongs to."},
    {404, 404, "The phone's push token is not known any more, and the daemon has unpaired the phone: open the app and pair again."},
    {429, 429, "The push service was asked too often: wait some minutes."},
    {500, 599, "The push service has a problem of its own: try again in some minutes."},
};
// clang-format on

constexpr char no_answer_remedy[] =
    "The push service could not be reached: look at the uplink, the DNS, the clock and "
    "http.client.ca_cert.path.";
constexpr char renewed_remedy[] = "The phone is paired still, by a newer push token: ask again.";
constexpr char stays_remedy[] =
    "The phone is paired still. Look whether the project of the service-account key exists and may "
    "use the push service, and whether something on the way answers in its place.";
constexpr char other_answer_remedy[] =
    "Look whether something between the access point and the push service answers in its place.";

const explain_remedy *find(std::span<const explain_remedy> rows, const std::string &code)
{
    const auto row = std::find_if(rows.begin(), rows.end(),
                                  [&code](const explain_remedy &one) { return one.code == code; });
    return row == rows.end() ? nullptr : &*row;
}

} // namespace

std::span<const explain_remedy> explain_causes()
{
    return causes;
}

std::span<const explain_remedy> explain_checks()
{
    return checks;
}

const explain_remedy *explain_cause(const std::string &code)
{
    return find(causes, code);
}

bool explain_is_old_challenge(const std::string &why)
{
    return why.starts_with("its challenge is older than");
}

const char *explain_check_remedy(const std::string &check, const std::string &why)
{
    if (explain_is_old_challenge(why)) {
        return old_challenge_remedy;
    }
    const explain_remedy *const row = explain_check(check);
    return row != nullptr ? row->remedy : "";
}

const explain_remedy *explain_check(const std::string &code)
{
    return find(checks, code);
}

const char *explain_push_remedy(std::optional<std::int64_t> status, const std::string &error)
{
    if (!status.has_value()) {
        return no_answer_remedy;
    }
    if (error == velm_fcm_words_renewed) {
        return renewed_remedy;
    }
    if (error == velm_fcm_words_stays) {
        return stays_remedy;
    }
    for (const push_row &row : pushes) {
        if (*status >= row.first && *status <= row.last) {
            return row.remedy;
        }
    }
    return other_answer_remedy;
}
