#pragma once

#include <event2/event.h>

#include <cstdint>
#include <span>

/// Watches the kernel's routing messages for new IPv4 addresses and reports each, in order, to one
/// observer. Loop thread only.
///
/// At most `common_netlink_waiting_limit` reports wait for the loop before the next message is read:
/// what comes meanwhile waits in the kernel. When the kernel had to drop messages, what it holds is
/// thrown away and the addresses are read again: those that were not there before are reported.

struct common_netlink_observer;

inline constexpr unsigned common_netlink_waiting_limit = 256;

/// `ifname` is empty when the interface has gone meanwhile, `address` is dotted. Both are valid
/// during the call only, which comes from the loop and never from inside the reading of a message.
using common_netlink_callback = void (*)(const char *ifname, const char *address, void *user_data,
                                         common_netlink_observer *observer);

/// An address was taken away from some interface, or, with null, the kernel dropped messages and what
/// is new has been reported: addresses may have gone unheard. In order with the reports.
using common_netlink_loss_callback = void (*)(const char *address);

/// Before common_netlink_observe. The base is borrowed for the life of the process.
void common_netlink_set_event_base(event_base *base);

/// Opens the socket and begins to watch; every failure is fatal. Without a callback addresses are
/// only logged. Called once; another call takes the place of the first.
void common_netlink_observe(common_netlink_callback callback, void *user_data);

/// From now on losses are reported too; null ends that.
void common_netlink_observe_losses(common_netlink_loss_callback callback);

/// Handles one datagram of the kernel; any bytes will do.
void common_netlink_read_datagram(std::span<const std::uint8_t> datagram);
