#pragma once

#include <event2/event.h>

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

/// A new IPv4 address on an interface: when the interface is the configured LAN bridge and the
/// address another one than that in use, the servers move to it. Null texts are logged and ignored.
void netlink_ip_address_changed(const char *ifname, const char *address);
