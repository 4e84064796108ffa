#pragma once

#include <event2/event.h>

/// Gives memory back to the system that handshakes and requests have freed. It lies between what lives
/// on, where the C library keeps it.

/// Borrows the base. Nothing is given back before.
void http_give_back_open(event_base *base);

/// In a second, and once a second at most. To be called when a connection has come: nothing is done, and
/// no timer set, while none comes or goes.
void http_give_back_soon();

/// The same, to be called when a connection is being freed. When the heap has grown much, what it has is
/// given back within milliseconds; rooms that the next handshake is going to use are not.
void http_give_back_after_end();
