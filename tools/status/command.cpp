#include "tools/status/command.h"

#include "tools/control/document.h"
#include "tools/control/fetch.h"
#include "tools/control/rounds.h"
#include "tools/control/status.h"
#include "tools/status/print.h"
#include "tools/status/problems.h"
#include "tools/terminal/output.h"
#include "tools/terminal/text.h"

namespace {

/// Without the rounds there is still the status.
std::string text_of(const control_status &status, const std::string &path)
{
    std::string problem;
    const velmctl_answer answer = control_ask(path, "/v1/rounds", control_time);
    const json_ptr document =
        control_is_good(answer) ? control_document_parse(answer.body, problem) : nullptr;
    const control_rounds rounds =
        document == nullptr ? control_rounds{} : control_rounds_read(document.get(), problem);
    const bool is_known = document != nullptr && problem.empty();
    return velmctl_status_to_text(status, is_known ? &rounds : nullptr, velmctl_paint_for_output());
}

} // namespace

int velmctl_status(const velmctl_options &options)
{
    const std::string path = control_path_of(options);
    if (path.empty()) {
        return velmctl_exit_unreachable;
    }
    const control_fetched fetched = control_fetch(path, "/v1/status");
    if (fetched.document == nullptr) {
        return fetched.exit;
    }
    std::string problem;
    const control_status status = control_status_read(fetched.document.get(), problem);
    if (!problem.empty()) {
        return control_refuse(problem);
    }
    const std::string text =
        options.json ? control_document_print(fetched.document.get()) : text_of(status, path);
    const bool is_good = velmctl_status_problems(status).empty();
    return velmctl_print(text) && is_good ? velmctl_exit_good : velmctl_exit_wrong;
}

int velmctl_metrics(const velmctl_options &options)
{
    const std::string path = control_path_of(options);
    if (path.empty()) {
        return velmctl_exit_unreachable;
    }
    const velmctl_answer answer = control_ask(path, "/v1/metrics", control_time);
    if (!control_is_good(answer)) {
        return control_complain(path, answer);
    }
    return velmctl_print(velmctl_lines_for_terminal(answer.body)) ? velmctl_exit_good
                                                                  : velmctl_exit_wrong;
}
