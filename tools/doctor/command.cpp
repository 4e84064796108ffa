#include "tools/doctor/command.h"

#include <algorithm>
#include <csignal>

#include "tools/doctor/checks.h"
#include "tools/terminal/times.h"

namespace {

constexpr void (*checks[])(const doctor_subject &subject, doctor_report &report) = {
    doctor_check_configuration, doctor_check_modes, doctor_check_certificate, doctor_check_clock,
    doctor_check_nvram,         doctor_check_lan,   doctor_check_bssids,      doctor_check_accounts,
    doctor_check_daemon,        doctor_check_ports, doctor_check_info,        doctor_check_search,
    doctor_check_cloud,
};

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
        out += mark_of(line.grade, paint) + line.what + '\n';
        if (!line.remedy.empty()) {
            out += "      " + line.remedy + '\n';
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

int velmctl_doctor(const velmctl_options &options)
{
    std::signal(SIGPIPE, SIG_IGN); // a server that ends its connection must not end us
    const doctor_subject subject = doctor_look_at(options);
    const velmctl_paint paint = velmctl_paint_for_output();
    doctor_report report;
    std::size_t told = 0;
    if (!subject.is_privy) {
        report.warn(
            "doctor: run it as root or as the daemon's user; what it cannot see is left out",
            "Run velmctl doctor as root.");
    }
    for (const auto check : checks) {
        check(subject, report);
        const std::vector<doctor_line> news{
            report.lines().begin() + static_cast<std::ptrdiff_t>(told), report.lines().end()};
        told = report.lines().size();
        if (!velmctl_print(doctor_to_text(news, paint))) {
            return exit_of(doctor_grade::fail);
        }
    }
    if (!velmctl_print(doctor_summary(report.lines()) + '\n')) {
        return exit_of(doctor_grade::fail);
    }
    return exit_of(doctor_worst(report.lines()));
}
