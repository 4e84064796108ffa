#include "tools/explain/names.h"

#include <array>

#include "text/cut.h"
#include "tools/terminal/text.h"

namespace {

/// The daemon's stories keep as much of a name and of an id as fits: whole characters, 47 bytes.
std::string as_kept(const std::string &text)
{
    std::array<char, 48> kept{};
    text_cut_to(kept.data(), kept.size(), text.c_str());
    return kept.data();
}

} // namespace

explain_names::explain_names(const std::vector<control_pairing> &pairings)
{
    for (const control_pairing &pairing : pairings) {
        if (!pairing.name.empty()) {
            phones_.push_back(
                {as_kept(pairing.device_id), velmctl_text_for_terminal(as_kept(pairing.name))});
        }
    }
}

std::string explain_names::of_device(const std::string &device_id) const
{
    for (const known_phone &phone : phones_) {
        if (phone.device_id == device_id) {
            return phone.name;
        }
    }
    return "The phone with the device id " + velmctl_text_for_terminal(device_id);
}

std::string explain_names::of_push(const control_push &push) const
{
    if (!push.name.empty()) {
        return velmctl_text_for_terminal(push.name);
    }
    const std::string model = velmctl_text_for_terminal(push.model);
    return "The phone in slot " + std::to_string(push.slot) +
           (model.empty() ? "" : " (" + model + ')');
}

std::string explain_names::of_visit(const control_visit &visit) const
{
    const std::string id = visit.device_id.value_or("");
    return id.empty() ? "Somebody" : of_device(id);
}

std::string explain_names::of_report(const control_report &report) const
{
    return report.device_id.empty() ? "A phone" : of_device(report.device_id);
}
