#include "tools/doctor/report.h"

#include <algorithm>

void doctor_report::add(doctor_grade grade, const std::string &what, const std::string &remedy)
{
    lines_.push_back({grade, what, remedy});
}

void doctor_report::ok(const std::string &what)
{
    add(doctor_grade::ok, what, "");
}

void doctor_report::warn(const std::string &what, const std::string &remedy)
{
    add(doctor_grade::warn, what, remedy);
}

void doctor_report::fail(const std::string &what, const std::string &remedy)
{
    add(doctor_grade::fail, what, remedy);
}

doctor_grade doctor_worst(const std::vector<doctor_line> &lines)
{
    doctor_grade worst = doctor_grade::ok;
    for (const doctor_line &line : lines) {
        worst = std::max(worst, line.grade);
    }
    return worst;
}
