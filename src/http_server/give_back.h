#pragma once

#include <event2/event.h>

/// Gives memory back to the system that handshakes and requests have freed. It lies between what lives
/// on, where the C library keeps it. What one phone leaves is kept for the next one, and no timer is set for it:
/// 64 KiB of heap and the rooms that are at hand (malloc/tls_rooms.h) at most.

/// Borrows the base. Nothing is given back before. What the start has freed counts as much.
void http_give_back_open(event_base *base);

/// In a second, and once a second at most, when the heap is much longer than it was, or has been since. To be
/// called when a connection has come.
void http_give_back_soon();

/// The same, to be called when a connection is being freed. When the heap has grown much, what it has is
/// given back within milliseconds; rooms that the next handshake is going to use are not.
void http_give_back_after_end();
