#pragma once

#include <event2/event.h>

#include "velm_config.h"

/// Discovery: phones multicast an SSDP search for our device type and are told where /info is.
/// Only searches that came in on the interface that has the LAN address are answered, multicast or
/// not, and the answers leave by it. Loop thread only.

/// Before anything else here; the base is borrowed for the life of the process.
void velm_ssdp_server_set_event_base(event_base *base);

/// Remembers the configuration (borrowed). Runs again before every start.
void velm_ssdp_server_init(const velm_config *config);

/// Answers from now on, for the LAN address, HTTP port and MAC address of the configuration; ends a
/// running server first. With port 0, or when the MAC address cannot be read or no socket be made,
/// there is none, with a line in the log. A group that cannot be joined is logged; while no interface
/// has the LAN address, joining is tried again (lan/wait.h). A port that cannot be bound is fatal.
void ssdp_server_start();

/// An interface has got this address; null: any may have come. When it is the LAN address, the group
/// is joined again: a membership dies with its interface, and the one that has come may be another.
void velm_ssdp_server_address_came(const char *address);

void ssdp_server_stop();

[[nodiscard]] bool velm_ssdp_server_is_listening();
