#pragma once

#include "cutils/common_netlink.h"
#include "velm_config.h"

/// Keeps the servers on an address that the LAN bridge has, whatever comes and goes there. Loop
/// thread only.

/// Remembers the record (borrowed). Call it before the servers start: an address that was read may
/// have gone meanwhile, or another may have come. If the platform's LAN bridge has addresses but no
/// longer the one in use, its first address is put into the record.
void velm_lan_settle(velm_config *config, bool platform_has_bridge);

/// The observer of new addresses (common_netlink_callback): moves the servers to one that the bridge
/// still has, and tells servers that wait for an address.
void velm_lan_address_came(const char *ifname, const char *address, void *user_data,
                           common_netlink_observer *observer);

/// The observer of losses (common_netlink_loss_callback): when the address in use has gone, the
/// servers move to the first that the bridge has. Without any they stay.
void velm_lan_address_went(const char *address);
