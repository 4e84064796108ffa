#include "tools/explain/source.h"

#include <utility>

#include "tools/control/document.h"
#include "tools/control/fetch.h"
#include "tools/control/status.h"

namespace {

/// Without names the story has device ids: that is no reason to fail.
explain_names ask_names(const std::string &path)
{
    std::string problem;
    const velmctl_answer answer = control_ask(path, "/v1/status", control_time);
    const json_ptr document =
        control_is_good(answer) ? control_document_parse(answer.body, problem) : nullptr;
    if (document == nullptr) {
        return {};
    }
    const control_status status = control_status_read(document.get(), problem);
    return problem.empty() ? explain_names{status.pairings} : explain_names{};
}

} // namespace

std::optional<explain_material> explain_read(json_ptr document, const std::string &path,
                                             std::string &problem)
{
    control_rounds rounds = control_rounds_read(document.get(), problem);
    if (!problem.empty()) {
        return std::nullopt;
    }
    return explain_material{std::move(document), std::move(rounds), ask_names(path)};
}
