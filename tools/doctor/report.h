#pragma once

#include <string>
#include <vector>

/// What the doctor has found: one line for each thing that was looked at. Texts are raw.

enum class doctor_grade { ok, warn, fail };

struct doctor_line {
    doctor_grade grade;
    std::string what;   // "subject: text"
    std::string remedy; // one; empty when all is well
};

class doctor_report {
  public:
    void ok(const std::string &what);
    void warn(const std::string &what, const std::string &remedy);
    void fail(const std::string &what, const std::string &remedy);

    [[nodiscard]] const std::vector<doctor_line> &lines() const
    {
        return lines_;
    }

  private:
    void add(doctor_grade grade, const std::string &what, const std::string &remedy);

    std::vector<doctor_line> lines_;
};

/// The worst of the lines; ok without any.
[[nodiscard]] doctor_grade doctor_worst(const std::vector<doctor_line> &lines);
