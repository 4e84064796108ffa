#pragma once

#include <event2/event.h>

/// Tells the supervisor that started the daemon how it is doing. Each message is one datagram to the
/// socket that NOTIFY_SOCKET names, by systemd's protocol. Without the variable nothing is done.
/// Nothing here blocks, and a message that the supervisor does not take is lost; only readiness is told
/// again.

/// Takes NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID out of the environment, so that no child gets
/// them. With a socket SIGTERM tells "STOPPING=1" before it ends the process as it always does.
void process_notify_begin();

/// Sends "WATCHDOG=1" from the loop in half of the time that the supervisor allows. There is no timer
/// when it did not ask for that, or asked another process. The base is borrowed for the life of the
/// process.
void process_notify_set_event_base(event_base *base);

/// What the daemon does now, as a sentence of at most 199 characters. It is sent when it differs from
/// the last one. Control characters become "?", so that nothing can add a line to the message.
[[gnu::format(printf, 1, 2)]] void process_notify_status(const char *format, ...);

/// A reload has begun. Readiness that the supervisor has not taken yet is not told any more.
void process_notify_reloading();

/// All servers have started, or a reload has ended: "READY=1" with the pid and the status. Says so once
/// for each start and reload; a supervisor whose socket is full is told again for 5 s.
void process_notify_ready();
