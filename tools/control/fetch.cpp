#include "tools/control/fetch.h"

#include <cstdio>

#include "request/status.h"
#include "tools/control/document.h"
#include "tools/control/place.h"
#include "tools/terminal/output.h"
#include "tools/terminal/text.h"

std::string control_path_of(const velmctl_options &options)
{
    const control_place place = control_place_find(options.control_path, options.config_path);
    if (place.path.empty()) {
        const std::string problem = velmctl_text_for_terminal(place.problem);
        std::fprintf(stderr, "velmctl: %s\n", problem.c_str());
    }
    return place.path;
}

bool control_is_good(const velmctl_answer &answer)
{
    return answer.result == control_result::done && answer.status == http_status_ok;
}

int control_complain(const std::string &path, const velmctl_answer &answer)
{
    const std::string shown = velmctl_text_for_terminal(path);
    switch (answer.result) {
    case control_result::unreachable:
        std::fprintf(stderr, "velmctl: no daemon answers at %s: %s\n", shown.c_str(),
                     answer.why.c_str());
        return velmctl_exit_unreachable;
    case control_result::ended:
    case control_result::timed_out:
        std::fprintf(stderr, "velmctl: the daemon at %s gave no answer: %s\n", shown.c_str(),
                     answer.why.c_str());
        return velmctl_exit_unreachable;
    case control_result::broken:
        return control_refuse(answer.why);
    case control_result::done:
        break;
    }
    if (answer.status == http_status_unavailable) {
        std::fputs(
            "velmctl: the daemon is busy: other programs use its control socket; try again\n",
            stderr);
    } else {
        std::fprintf(stderr, "velmctl: the daemon answered with status %d\n", answer.status);
    }
    return velmctl_exit_wrong;
}

int control_refuse(const std::string &problem)
{
    std::fprintf(stderr, "velmctl: this is no answer of velmd: %s\n", problem.c_str());
    return velmctl_exit_wrong;
}

control_fetched control_fetch(const std::string &path, const std::string &target,
                              std::chrono::milliseconds limit)
{
    const velmctl_answer answer = control_ask(path, target, limit);
    if (!control_is_good(answer)) {
        return {nullptr, control_complain(path, answer)};
    }
    std::string problem;
    json_ptr document = control_document_parse(answer.body, problem);
    return {std::move(document), problem.empty() ? 0 : control_refuse(problem)};
}
