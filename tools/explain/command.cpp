#include "tools/explain/command.h"

#include "tools/control/document.h"
#include "tools/control/fetch.h"
#include "tools/explain/follow.h"
#include "tools/explain/json.h"
#include "tools/explain/source.h"
#include "tools/explain/text.h"
#include "tools/terminal/output.h"

namespace {

/// Good: the newest request was answered, or may be yet.
bool is_good(const control_rounds &rounds)
{
    return !rounds.rounds.empty() && !rounds.rounds.front().cause.has_value();
}

int explain_once(const velmctl_options &options, const std::string &path)
{
    control_fetched fetched = control_fetch(path, "/v1/rounds");
    if (fetched.document == nullptr) {
        return fetched.exit;
    }
    std::string problem;
    const auto material = explain_read(std::move(fetched.document), path, problem);
    if (!material.has_value()) {
        return control_refuse(problem);
    }
    std::string text;
    if (options.json) {
        explain_add_stories(material->document.get(), material->rounds, material->names);
        explain_leave_newest(material->document.get(), options.rounds);
        text = control_document_print(material->document.get());
    } else {
        text = explain_to_text(material->rounds, options.rounds, material->names,
                               velmctl_paint_for_output());
    }
    return velmctl_print(text) && is_good(material->rounds) ? velmctl_exit_good
                                                            : velmctl_exit_wrong;
}

} // namespace

int velmctl_explain(const velmctl_options &options)
{
    const std::string path = control_path_of(options);
    if (path.empty()) {
        return velmctl_exit_unreachable;
    }
    return options.follow ? explain_follow(options, path) : explain_once(options, path);
}
