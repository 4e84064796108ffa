#include "tools/doctor/command.h"

#include <algorithm>
#include <chrono>
#include <csignal>

#include "tools/doctor/checks.h"
#include "tools/doctor/json.h"
#include "tools/terminal/text.h"
#include "tools/terminal/times.h"

namespace {

enum class look_from { anywhere, network_of_daemon };

struct check_row {
    void (*check)(const doctor_subject &subject, doctor_report &report);
    look_from from;
};

// clang-format off
constexpr check_row checks[] = {
    {doctor_check_configuration, look_from::anywhere},
    {doctor_check_modes,         look_from::anywhere},
    {doctor_check_log,           look_from::anywhere},
    {doctor_check_certificate,   look_from::anywhere},
    {doctor_check_clock,         look_from::anywhere},
    {doctor_check_nvram,         look_from::anywhere},
    {doctor_check_network,       look_from::anywhere},
    {doctor_check_lan,           look_from::network_of_daemon},
    {doctor_check_bssids,        look_from::anywhere},
    {doctor_check_accounts,      look_from::anywhere},
    {doctor_check_daemon,        look_from::anywhere},
    {doctor_check_ports,         look_from::network_of_daemon},
    {doctor_check_info,          look_from::network_of_daemon},
    {doctor_check_search,        look_from::network_of_daemon},
    {doctor_check_cloud,         look_from::network_of_daemon},
};
// clang-format on

std::string mark_of(doctor_grade grade, const velmctl_paint &paint)
{
    switch (grade) {
    case doctor_grade::ok:
        return paint(velmctl_colour::green, "OK") + "    ";
    case doctor_grade::warn:
        return paint(velmctl_colour::yellow, "WARN") + "  ";
    case doctor_grade::fail:
        break;
    }
    return paint(velmctl_colour::red, "FAIL") + "  ";
}

int exit_of(doctor_grade worst)
{
    constexpr int exits[] = {0, 1, 2};
    return exits[static_cast<std::size_t>(worst)];
}

} // namespace

std::string doctor_to_text(const std::vector<doctor_line> &lines, const velmctl_paint &paint)
{
    std::string out;
    for (const doctor_line &line : lines) {
        out += mark_of(line.grade, paint) + velmctl_text_for_terminal(line.what) + '\n';
        if (!line.remedy.empty()) {
            out += "      " + velmctl_text_for_terminal(line.remedy) + '\n';
        }
    }
    return out;
}

std::string doctor_summary(const std::vector<doctor_line> &lines)
{
    const auto count = [&lines](doctor_grade grade) {
        return std::ranges::count(lines, grade, &doctor_line::grade);
    };
    const auto failures = count(doctor_grade::fail);
    const auto warnings = count(doctor_grade::warn);
    if (failures == 0 && warnings == 0) {
        return "nothing is wrong";
    }
    const std::string failed =
        failures == 0 ? "" : velmctl_count_of(failures, "failure", "failures");
    const std::string warned =
        warnings == 0 ? "" : velmctl_count_of(warnings, "warning", "warnings");
    return failed + (failed.empty() || warned.empty() ? "" : ", ") + warned;
}

namespace {

/// Tells each line as soon as it is known: some take seconds. JSON is told at the end.
class teller {
  public:
    explicit teller(bool json) : json_{json}
    {
    }

    /// False when standard output is gone.
    bool tell_news(const doctor_report &report)
    {
        const std::vector<doctor_line> news{
            report.lines().begin() + static_cast<std::ptrdiff_t>(told_), report.lines().end()};
        told_ = report.lines().size();
        return json_ || velmctl_print(doctor_to_text(news, paint_));
    }

    [[nodiscard]] bool tell_end(const doctor_report &report) const
    {
        using std::chrono::milliseconds;
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        return velmctl_print(
            json_ ? doctor_to_json(report.lines(),
                                   std::chrono::duration_cast<milliseconds>(now).count())
                  : doctor_summary(report.lines()) + '\n');
    }

  private:
    bool json_;
    velmctl_paint paint_ = velmctl_paint_for_output();
    std::size_t told_ = 0;
};

} // namespace

int velmctl_doctor(const velmctl_options &options)
{
    std::signal(SIGPIPE, SIG_IGN); // a server that ends its connection must not end us
    const doctor_subject subject = doctor_look_at(options);
    teller teller{options.json};
    doctor_report report;
    if (!subject.is_privy) {
        report.warn(
            "doctor: run it as root or as the daemon's user; what it cannot see is left out",
            "Run velmctl doctor as root.");
    }
    for (const check_row &row : checks) {
        if (row.from == look_from::anywhere || !subject.is_elsewhere) {
            row.check(subject, report);
        }
        if (!teller.tell_news(report)) {
            return exit_of(doctor_grade::fail);
        }
    }
    return teller.tell_end(report) ? exit_of(doctor_worst(report.lines()))
                                   : exit_of(doctor_grade::fail);
}
