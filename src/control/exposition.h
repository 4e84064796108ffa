#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// Writes the text format of Prometheus.

enum class control_metric_kind { counter, gauge };

class control_exposition {
  public:
    /// A metric begins: its help is one line, a constant without backslashes.
    void begin(const char *name, control_metric_kind kind, const char *help);

    /// A label of the next sample of it. The value may come from outside: any bytes.
    void label(const char *name, std::string_view value);

    void sample(std::uint64_t value);
    void sample_seconds(double value);

    [[nodiscard]] std::string take();

  private:
    void end_labels();

    const char *name_ = "";
    std::string labels_;
    std::string text_;
};
