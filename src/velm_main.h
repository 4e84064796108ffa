#pragma once

#include <event2/event.h>

#include <ctime>

#include "velm_config.h"

/// The network servers as one: the HTTP server, discovery and the location-policy IPC. Loop
/// thread only.

/// Hands the base on, before velm_main_init.
void velm_main_set_event_base(event_base *base);

/// Initialises the servers. Runs again before every start.
void velm_main_init(velm_config *config);

/// Queues the start of the servers, so that they start from inside the loop.
void velm_main_start();

/// Stops the servers that run.
void velm_main_deinit();

/// When the first line of the record's LAN address became what it is; 0 before the first start.
[[nodiscard]] std::time_t velm_main_address_since();

/// A new IPv4 address on an interface: when the interface is the configured LAN bridge and the
/// address another one than that in use, the servers move to it. Null texts are logged and ignored.
void netlink_ip_address_changed(const char *ifname, const char *address);
