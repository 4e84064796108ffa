#pragma once

#include <string>

#include "tools/control/rounds.h"
#include "tools/explain/names.h"

/// Told one after another, a phone that the sentence before was about is "It". Where sentences of others
/// may come between, each has the name.
enum class explain_style { told, alone };

/// One sentence for each thing that happened.
class explain_speaker {
  public:
    explain_speaker(control_moment now, const explain_names &names, explain_style style)
        : now_{now}, names_{names}, style_{style}
    {
    }

    [[nodiscard]] std::string push(const control_push &push);
    [[nodiscard]] std::string visit(const control_visit &visit);
    [[nodiscard]] std::string report(const control_report &report);
    [[nodiscard]] std::string time(control_moment moment) const;

    /// Something else was said: the next sentence has the name.
    void begin_anew()
    {
        last_.clear();
    }

  private:
    [[nodiscard]] bool is_again(const std::string &name);
    [[nodiscard]] std::string subject(const std::string &name);
    [[nodiscard]] std::string place_and_time(const control_visit &visit) const;

    control_moment now_;
    const explain_names &names_;
    explain_style style_;
    std::string last_; // that was spoken of
};
