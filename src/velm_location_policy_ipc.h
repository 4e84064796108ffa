#pragma once

#include <event2/event.h>

#include <chrono>
#include <optional>
#include <string>

#include "handles/cjson.h"
#include "velm_config.h"
#include "velm_ipc.h"

/// Serves the local location-policy clients: a request becomes a push to the paired phones, and a
/// phone's location a report to every connected client.

/// Before anything else here; the base is borrowed for the life of the process.
void velm_location_policy_ipc_set_event_base(event_base *base);

/// Remembers the configuration (borrowed; null is fatal). Drops the locations that still wait for clients, with
/// a line in the log. Runs again before every start.
void velm_location_policy_ipc_init(const velm_config *config);

/// Starts the IPC server at the configured socket, ending a running one first. From a loop event.
void location_policy_ipc_start();

/// Ends the server with all its connections and their requests. From a loop event.
void location_policy_ipc_stop();

/// Hands a phone's location on; copies its arguments and works later on the loop. The report waits
/// for clients that do not read yet; ask location_queue_has_room (ipc/report_queue.h)
/// first, since a location without room is dropped with a line in the log. Null is fatal.
void velm_location_policy_ipc_send(const char *ip, const cJSON *auth, const cJSON *location);

/// The server; null while there is none.
[[nodiscard]] const velm_ipc *velm_location_policy_ipc_server();

/// The last report that clients were sent: when, from whom, how good. Not where.
struct velm_location_policy_last_report {
    std::chrono::system_clock::time_point at;
    std::string device_id;
    std::string address;
    double accuracy_m = 0; // 0: the phone did not say
};
[[nodiscard]] const std::optional<velm_location_policy_last_report> &
velm_location_policy_ipc_last_report();
