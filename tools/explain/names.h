#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/control/rounds.h"
#include "tools/control/status.h"

/// How the story calls a phone, fit for a terminal.

class explain_names {
  public:
    explain_names() = default;
    explicit explain_names(const std::vector<control_pairing> &pairings);

    /// Its name, or what else is known of it.
    [[nodiscard]] std::string of_push(const control_push &push) const;
    [[nodiscard]] std::string of_visit(const control_visit &visit) const;
    [[nodiscard]] std::string of_report(const control_report &report) const;

  private:
    [[nodiscard]] std::string of_device(const std::string &device_id) const;

    struct known_phone {
        std::string device_id, name;
    };
    std::vector<known_phone> phones_;
};
