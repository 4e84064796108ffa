#pragma once

#include <string>

/// The document of "/v1/metrics": counters and gauges in the text format of Prometheus, version 0.0.4.
[[nodiscard]] std::string control_metrics_text();
