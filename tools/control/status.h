#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/control/fields.h"

/// The document /v1/status.

struct control_daemon {
    std::string version;
    std::int64_t pid, uptime_s;
    control_moment started;
    std::int64_t reloads;
    std::optional<std::string> configuration_file;
};

struct control_setting {
    std::string key, value, source;
};

struct control_lan {
    std::string interface;
    std::optional<std::string> address;
    std::optional<control_moment> since;
    std::int64_t moves;
};

struct control_connections {
    std::int64_t now, most, limit;
};

struct control_https {
    std::int64_t port;
    bool listening;
    control_connections connections;
};

struct control_discovery {
    std::int64_t port;
    bool listening;
    std::int64_t searches, answered;
};

struct control_local_clients {
    std::string socket;
    bool listening;
    control_connections connections;
    std::int64_t open_requests;
};

struct control_certificate {
    std::string subject, sha256;
    control_moment not_before, not_after;
};

struct control_file {
    std::string key, path;
    std::optional<control_moment> read; // none: never
    bool usable;
    std::optional<std::string> why; // it is not
};

struct control_clock {
    bool plausible;
    std::optional<std::string> why; // it is not
};

struct control_pairing {
    std::int64_t slot;
    std::string device_id, name, model, device_type;
    std::optional<control_moment> last_push;
    std::optional<std::int64_t> last_push_status;
    std::optional<control_moment> last_visit;
    std::optional<bool> last_visit_accepted;
};

struct control_last_report {
    control_moment at;
    std::string device_id, address;
    std::optional<double> accuracy_m;
};

struct control_status {
    control_moment now;
    control_daemon daemon;
    std::vector<control_setting> settings;
    std::vector<std::string> unknown_keys; // of the configuration file
    control_lan lan;
    control_https https;
    control_discovery discovery;
    control_local_clients local_clients;
    std::optional<control_certificate> certificate;
    std::vector<control_file> files;
    control_clock clock;
    std::vector<control_pairing> pairings;
    std::int64_t pairings_limit;
    std::optional<control_last_report> last_report;
};

/// What is not as it should be is in `problem`, and then the result is of no use.
[[nodiscard]] control_status control_status_read(const cJSON *document, std::string &problem);
