#pragma once

#include <event2/event.h>

/// Gives memory back to the system that handshakes and requests have freed. It lies between what lives
/// on, where the C library keeps it.

/// Borrows the base. Nothing is given back before.
void http_give_back_open(event_base *base);

/// In a second, and once a second at most. To be called when a connection has come or gone: nothing is
/// done, and no timer set, while none does.
void http_give_back_soon();
