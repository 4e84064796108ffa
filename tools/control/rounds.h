#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/control/fields.h"

/// The document /v1/rounds. Lists have the order of the document.

struct control_asked {
    control_moment at;
    std::int64_t pid, uid, request_id, timeout_s;
};

struct control_push_run {
    bool begun;
    std::optional<std::string> why, why_text;
};

struct control_push {
    std::int64_t slot;
    std::string name, model;
    control_moment at;
    std::optional<std::int64_t> milliseconds, status;
    std::optional<std::string> error;
};

/// A phone that came, or what was refused before it became a request.
struct control_visit {
    control_moment at, until;
    std::int64_t times;
    std::string address;
    std::optional<std::string> device_id, route;
    std::optional<std::int64_t> status;
    bool accepted;
    std::optional<std::string> check, why, hint;
};

struct control_report {
    control_moment at;
    std::string device_id, address;
    std::int64_t clients;
};

struct control_round {
    std::int64_t id;
    std::string state;
    control_asked asked;
    std::optional<control_moment> closed;
    std::optional<std::string> cause, cause_text;
    control_push_run run;
    std::vector<control_push> pushes;
    std::vector<control_visit> visits;
    std::vector<control_report> reports;
    std::int64_t forgotten; // of all three lists
};

struct control_rounds {
    control_moment now;
    std::int64_t latest;
    std::vector<control_round> rounds; // newest first
    std::vector<control_visit> visits; // outside of rounds, newest first
};

/// What is not as it should be is in `problem`, and then the result is of no use.
[[nodiscard]] control_rounds control_rounds_read(const cJSON *document, std::string &problem);
