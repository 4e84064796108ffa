#pragma once

#include <event2/event.h>

#include <cstddef>

/// Calls that run later on the event loop: when the callbacks of this turn have returned (an action call),
/// or after a delay (an action schedule). Loop thread only.
///
/// Action calls run in the order they were made, never inside the call that makes them. When none waits,
/// the first one runs at the end of the turn in which it is made, after everything that the loop has met.
/// The others follow one a loop turn; but what an action queued follows it in the same turn while nothing
/// else waits, up to four in a row. They wait in memory; the pipe only wakes the loop, so any number can
/// be queued from one callback without blocking.

struct common_async_context;

/// `user_data` stays owned by the callback. `events` are libevent's flags. `context` is freed when
/// the callback returns.
using common_async_callback = void (*)(void *user_data, short events,
                                       common_async_context *context);

/// Before common_async_init. The base is borrowed for the life of the process.
void common_async_set_event_base(event_base *base);

/// Makes the pipe and its read event; every failure is fatal.
void common_async_init();

/// Queues a call; 0. A null callback is fatal when its turn comes.
int common_async_action_call(common_async_callback callback, void *user_data);

/// The same for a call that takes milliseconds. Such calls run in their own order, each when no other
/// action waits and input has been looked for, or after 32 others: in between the loop serves whoever
/// is served quickly.
int common_async_action_call_long(common_async_callback callback, void *user_data);

/// Runs the call once after the delay (microseconds below 1000000), on a later loop turn even when
/// the delay is zero; 0.
int common_async_action_schedule(common_async_callback callback, void *user_data, long seconds,
                                 long microseconds);

/// How many action calls wait.
[[nodiscard]] std::size_t common_async_waiting();
