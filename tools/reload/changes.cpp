#include "tools/reload/changes.h"

#include <algorithm>

#include "tools/terminal/text.h"

namespace {

using changes = std::vector<std::string>;

std::string shown(const std::string &text)
{
    return text.empty() ? "nothing" : velmctl_text_for_terminal(text);
}

const control_setting *find(const control_status &status, const std::string &key)
{
    const auto found = std::find_if(status.settings.begin(), status.settings.end(),
                                    [&key](const control_setting &one) { return one.key == key; });
    return found == status.settings.end() ? nullptr : &*found;
}

void compare_settings(const control_status &before, const control_status &after, changes &out)
{
    for (const control_setting &now : after.settings) {
        const control_setting *const was = find(before, now.key);
        if (was == nullptr || was->value != now.value) {
            out.push_back(shown(now.key) + ": " + shown(was == nullptr ? "" : was->value) + " -> " +
                          shown(now.value));
        }
    }
}

std::string fingerprint_of(const control_status &status)
{
    return status.certificate.has_value() ? status.certificate->sha256 : "";
}

void compare_certificates(const control_status &before, const control_status &after, changes &out)
{
    if (fingerprint_of(before) != fingerprint_of(after)) {
        out.push_back("certificate: " + shown(fingerprint_of(before)) + " -> " +
                      shown(fingerprint_of(after)));
    }
}

void compare_files(const control_status &before, const control_status &after, changes &out)
{
    for (const control_file &now : after.files) {
        const auto was =
            std::find_if(before.files.begin(), before.files.end(), [&now](const control_file &one) {
                return one.key == now.key && one.path == now.path;
            });
        if (was != before.files.end() && was->usable != now.usable) {
            out.push_back(shown(now.path) +
                          (now.usable ? " can be used now" : " cannot be used now"));
        }
    }
}

} // namespace

std::vector<std::string> reload_changes(const control_status &before, const control_status &after)
{
    changes out;
    compare_settings(before, after, out);
    compare_certificates(before, after, out);
    compare_files(before, after, out);
    return out;
}
