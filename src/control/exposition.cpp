#include "control/exposition.h"

#include <cstdio>
#include <utility>

#include "text/utf8.h"

void control_exposition::begin(const char *name, control_metric_kind kind, const char *help)
{
    name_ = name;
    text_ += std::string{"# HELP "} + name + ' ' + help + "\n# TYPE " + name + ' ';
    text_ += kind == control_metric_kind::counter ? "counter\n" : "gauge\n";
}

void control_exposition::label(const char *name, std::string_view value)
{
    labels_ += labels_.empty() ? "{" : ",";
    labels_ += std::string{name} + "=\"";
    for (const char c : utf8_mended(value)) {
        if (c == '\n') {
            labels_ += "\\n";
        } else if (static_cast<unsigned char>(c) < ' ' || c == 0x7f) {
            labels_ += '?'; // nobody's terminal is to obey it
        } else {
            labels_ += c == '"' || c == '\\' ? "\\" : "";
            labels_ += c;
        }
    }
    labels_ += '"';
}

void control_exposition::end_labels()
{
    labels_ += labels_.empty() ? "" : "}";
    text_ += name_ + std::exchange(labels_, {}) + ' ';
}

void control_exposition::sample(std::uint64_t value)
{
    end_labels();
    text_ += std::to_string(value) + '\n';
}

void control_exposition::sample_seconds(double value)
{
    char digits[32];
    std::snprintf(digits, sizeof digits, "%.6f\n", value);
    end_labels();
    text_ += digits;
}

std::string control_exposition::take()
{
    return std::exchange(text_, {});
}
