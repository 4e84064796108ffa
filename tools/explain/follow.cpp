#include "tools/explain/follow.h"

#include <chrono>
#include <cstdio>
#include <set>
#include <thread>
#include <utility>

#include "tools/control/document.h"
#include "tools/control/fetch.h"
#include "tools/explain/json.h"
#include "tools/explain/source.h"
#include "tools/explain/text.h"
#include "tools/terminal/output.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::chrono::seconds wait{30}; // that the daemon is asked to wait for something new
/// A restart takes a few seconds.
constexpr std::chrono::seconds outage_limit{10};
constexpr milliseconds outage_pause{200};
/// Whatever answers at once without anything new is not asked in a hot loop.
constexpr milliseconds shortest_turn{100};

class follower {
  public:
    follower(const velmctl_options &options, const std::string &path)
        : options_{options}, path_{path}
    {
    }

    int run()
    {
        std::optional<int> end;
        while (!end.has_value()) {
            const auto next = steady_clock::now() + shortest_turn;
            end = turn();
            std::this_thread::sleep_until(next);
        }
        return *end;
    }

  private:
    /// One question. Gives the exit status when it was the last one.
    std::optional<int> turn()
    {
        const velmctl_answer answer = ask();
        if (!control_is_good(answer)) {
            return lose(answer);
        }
        std::string problem;
        json_ptr document = control_document_parse(answer.body, problem);
        if (document == nullptr) {
            return control_refuse(problem);
        }
        auto material = explain_read(std::move(document), path_, problem);
        if (!material.has_value()) {
            return control_refuse(problem);
        }
        find();
        latest_ = material->rounds.latest;
        return tell(*material) ? std::nullopt : std::optional<int>{velmctl_exit_wrong};
    }

    velmctl_answer ask() const
    {
        if (!latest_.has_value()) {
            return control_ask(path_, "/v1/rounds", control_time);
        }
        const std::string query =
            "?wait=" + std::to_string(wait.count()) + "&after=" + std::to_string(*latest_);
        return control_ask(path_, "/v1/rounds" + query, wait + control_time);
    }

    /// What may be otherwise in a moment.
    static bool may_pass(const velmctl_answer &answer)
    {
        constexpr int busy = 503;
        return answer.result == control_result::done ? answer.status == busy
                                                     : answer.result != control_result::broken;
    }

    /// A daemon that was there is waited for.
    std::optional<int> lose(const velmctl_answer &answer)
    {
        if (!has_told_ || !may_pass(answer)) {
            return control_complain(path_, answer);
        }
        const auto now = steady_clock::now();
        if (!lost_since_.has_value()) {
            lost_since_ = now;
            latest_.reset();
            std::fprintf(stderr, "velmctl: the daemon %s; waiting for it\n",
                         answer.result == control_result::done ? "is busy" : "has ended");
        }
        if (now - *lost_since_ >= outage_limit) {
            std::fputs("velmctl: the daemon did not come back\n", stderr);
            return velmctl_exit_unreachable;
        }
        std::this_thread::sleep_for(outage_pause);
        return std::nullopt;
    }

    void find()
    {
        if (std::exchange(lost_since_, std::nullopt).has_value()) {
            std::fputs("velmctl: the daemon is back\n", stderr);
        }
    }

    /// False when standard output is gone.
    bool tell(explain_material &material)
    {
        const bool is_first = !std::exchange(has_told_, true);
        return options_.json ? tell_json(material, is_first) : tell_text(material, is_first);
    }

    bool tell_text(const explain_material &material, bool is_first)
    {
        if (is_first) {
            today_ = material.rounds.now;
        }
        std::string news = is_first ? explain_to_text(material.rounds, options_.rounds,
                                                      material.names, velmctl_paint_for_output()) +
                                          '\n'
                                    : "";
        std::set<std::string> now;
        for (std::string &line : explain_to_lines(material.rounds, material.names, today_)) {
            if (!is_first && !seen_.contains(line)) {
                news += line + '\n';
            }
            now.insert(std::move(line));
        }
        seen_ = std::move(now);
        return news.empty() || velmctl_print(news);
    }

    bool tell_json(const explain_material &material, bool is_first)
    {
        cJSON *const document = material.document.get();
        explain_add_stories(document, material.rounds, material.names);
        const bool is_news = explain_leave_new(document, seen_);
        if (is_first) {
            explain_leave_newest(document, options_.rounds);
        }
        return !(is_news || is_first) || velmctl_print(control_document_print(document));
    }

    const velmctl_options &options_;
    const std::string &path_;
    std::optional<std::int64_t> latest_; // none: ask for what there is
    std::optional<steady_clock::time_point> lost_since_;
    bool has_told_ = false;
    control_moment today_{};
    std::set<std::string> seen_; // of the last answer
};

} // namespace

int explain_follow(const velmctl_options &options, const std::string &path)
{
    return follower{options, path}.run();
}
