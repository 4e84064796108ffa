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

/// Answers from now on, for the LAN address, HTTP port and MAC address of the configuration. Ends a
/// running server first. With port 0 there is no discovery. With a MAC address that cannot be read,
/// or without a socket, there is none either, and the log says so. If the group cannot be joined,
/// the log says so. While no interface has the LAN address, joining is tried again (lan/wait.h). A
/// port that cannot be bound is fatal.
void ssdp_server_start();

/// An interface has got this address; null: any may have come. If it is the LAN address, the group
/// is joined again. A membership dies with its interface, and the interface that has come may be
/// another one.
void velm_ssdp_server_address_came(const char *address);

/// Ends the server, and the attempts to join the group. Without a server it only logs.
void ssdp_server_stop();

/// True while there is a socket that reads searches, also before the group is joined.
[[nodiscard]] bool velm_ssdp_server_is_listening();
