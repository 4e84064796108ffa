#include <chrono>
#include <string_view>
#include <vector>

#include "control/members.h"
#include "control/status_parts.h"
#include "json/text.h"
#include "story/view.h"
#include "velm_location_policy_ipc.h"
#include "velm_nvram_pairings.h"

namespace {

/// What was heard last of a paired phone, as far as it is remembered.
struct last_contact {
    const story_push *push = nullptr;
    const story_visit *visit = nullptr;
};

/// The slot may have been another phone's: of a push the names tell.
bool is_push_to(const story_push &push, int slot, const cJSON *pairing)
{
    const std::string_view name = json_text_or_empty(pairing, "name");
    return push.slot == slot && name.starts_with(push.name);
}

/// Ids are kept as far as they fit.
bool is_visit_of(const story_visit &visit, const cJSON *pairing)
{
    const std::string_view id = json_text_or_empty(pairing, "dev_id");
    const std::string_view kept = visit.device_id;
    return !kept.empty() &&
           (kept == id || (kept.size() + 1 == sizeof visit.device_id && id.starts_with(kept)));
}

void take_later_visit(const story_visit *&last, const std::vector<const story_visit *> &visits,
                      const cJSON *pairing)
{
    for (const story_visit *const visit : visits) {
        if (is_visit_of(*visit, pairing) && (last == nullptr || visit->until > last->until)) {
            last = visit;
        }
    }
}

last_contact find_last_contact(const story_view &seen, int slot, const cJSON *pairing)
{
    last_contact last;
    take_later_visit(last.visit, seen.visits, pairing);
    for (const story_round_view &round : seen.rounds) {
        take_later_visit(last.visit, round.visits, pairing);
        for (const story_push *const push : round.pushes) {
            if (is_push_to(*push, slot, pairing) &&
                (last.push == nullptr || push->number > last.push->number)) {
                last.push = push;
            }
        }
    }
    return last;
}

void add_last_contact(cJSON *object, const last_contact &last)
{
    const bool was_pushed = last.push != nullptr;
    control_add_moment(object, "lastPush", was_pushed ? last.push->at : 0);
    control_add_number_or_null(object, "lastPushStatus", was_pushed && last.push->status > 0,
                               was_pushed ? last.push->status : 0);
    control_add_moment(object, "lastVisit", last.visit != nullptr ? last.visit->until : 0);
    if (last.visit != nullptr) {
        control_add_bool(object, "lastVisitAccepted", last.visit->check == nullptr);
    } else {
        control_add_null(object, "lastVisitAccepted");
    }
}

json_ptr pairing_object(const story_view &seen, int slot, const cJSON *pairing)
{
    json_ptr object = control_object();
    control_add_number(object.get(), "slot", slot);
    control_add_text(object.get(), "deviceId", json_text_or_empty(pairing, "dev_id"));
    control_add_text(object.get(), "name", json_text_or_empty(pairing, "name"));
    control_add_text(object.get(), "model", json_text_or_empty(pairing, "dev_model"));
    control_add_text(object.get(), "deviceType", json_text_or_empty(pairing, "dev_type"));
    add_last_contact(object.get(), find_last_contact(seen, slot, pairing));
    return object;
}

void add_last_report(cJSON *document)
{
    const auto &last = velm_location_policy_ipc_last_report();
    if (!last) {
        control_add_null(document, "lastReport");
        return;
    }
    using std::chrono::milliseconds;
    const auto at = std::chrono::duration_cast<milliseconds>(last->at.time_since_epoch());
    cJSON *const report = control_add_object(document, "lastReport");
    control_add_moment(report, "at", at.count());
    control_add_text(report, "deviceId", last->device_id);
    control_add_text(report, "address", last->address);
    control_add_number_or_null(report, "accuracyMeters", last->accuracy_m != 0, last->accuracy_m);
}

} // namespace

void control_status_add_phones(cJSON *document, const velm_config &config)
{
    const story_view seen = story_look();
    cJSON *const pairings = control_add_list(document, "pairings");
    for (int slot = 0; slot < config.pairings_limit; ++slot) {
        const json_ptr pairing = velm_nvram_pairings_select_live_pairing(slot);
        if (pairing != nullptr) {
            control_append(pairings, pairing_object(seen, slot, pairing.get()));
        }
    }
    control_add_number(document, "pairingsLimit", config.pairings_limit);
    add_last_report(document);
}
