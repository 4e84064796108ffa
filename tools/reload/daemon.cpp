#include "tools/reload/daemon.h"

#include <cstdlib>
#include <thread>

#include "request/status.h"
#include "tools/control/document.h"
#include "tools/control/exchange.h"
#include "tools/control/place.h"
#include "tools/control/same_file.h"
#include "tools/reload/target.h"
#include "velm_config.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds question_limit{2000};
constexpr milliseconds pause{50};

bool is_busy(const velmctl_answer &answer)
{
    return answer.result == control_result::timed_out || answer.result == control_result::ended ||
           (answer.result == control_result::done && answer.status == http_status_unavailable);
}

/// A daemon with all places taken is asked again until the limit.
reload_asked ask_until_it_answers(const std::string &path)
{
    const auto end = steady_clock::now() + reload_limit;
    reload_asked asked = reload_ask(path);
    while (asked.answer == reload_answer::busy && steady_clock::now() < end) {
        std::this_thread::sleep_for(pause);
        asked = reload_ask(path);
    }
    return asked;
}

std::string default_control_path()
{
    velm_config config{};
    velm_config_set_defaults(&config);
    return config.control_sock;
}

std::optional<pid_t> pid_without_status(const velmctl_options &options)
{
    const char *const main_pid = std::getenv("MAINPID"); // of a supervisor
    const std::optional<pid_t> pid =
        main_pid == nullptr ? std::nullopt : reload_pid_of_text(main_pid);
    return pid.has_value() ? pid : reload_pid_of_file(control_pid_file_of(options.config_path));
}

/// Another daemon may be at the default place: ours reads the file that is meant.
bool reads_file_of(const velmctl_options &options, const control_status &status)
{
    return control_is_same_file(status.daemon.configuration_file.value_or(""),
                                options.config_path.value_or(control_default_config));
}

void take(reload_daemon &daemon, const std::string &path, reload_asked asked)
{
    daemon.is_busy = asked.answer == reload_answer::busy;
    daemon.status = std::move(asked.status);
    if (daemon.status.has_value()) {
        daemon.control_path = path;
        daemon.pid = static_cast<pid_t>(daemon.status->daemon.pid);
    }
}

} // namespace

reload_asked reload_ask(const std::string &path)
{
    if (path.empty()) {
        return {};
    }
    const velmctl_answer answer = control_ask(path, "/v1/status", question_limit);
    if (is_busy(answer)) {
        return {reload_answer::busy, std::nullopt};
    }
    std::string problem;
    const bool is_good = answer.result == control_result::done && answer.status == http_status_ok;
    const json_ptr document = is_good ? control_document_parse(answer.body, problem) : nullptr;
    if (document == nullptr) {
        return {};
    }
    control_status status = control_status_read(document.get(), problem);
    return problem.empty() ? reload_asked{reload_answer::given, std::move(status)} : reload_asked{};
}

reload_daemon reload_find(const velmctl_options &options)
{
    reload_daemon daemon;
    const std::string path = control_place_find(options.control_path, options.config_path).path;
    take(daemon, path, ask_until_it_answers(path));
    const std::string usual = default_control_path();
    if (!daemon.status.has_value() && !daemon.is_busy && !options.control_path.has_value() &&
        usual != path) {
        reload_asked asked = ask_until_it_answers(usual);
        if (asked.status.has_value() && reads_file_of(options, *asked.status)) {
            take(daemon, usual, std::move(asked));
        }
    }
    if (!daemon.status.has_value()) {
        daemon.pid = pid_without_status(options);
    }
    return daemon;
}
