#pragma once

#include <event2/event.h>

#include <optional>
#include <string>

/// Asks the platform for the addresses of the LAN bridge while the loop goes on serving: the command
/// that prints them may be slow, or hang. Loop thread only.

struct velm_lan_answer {
    bool was_asked = false;               // the platform has a LAN bridge, so there was a command
    std::optional<std::string> addresses; // one a line; nothing when it failed or printed nothing
};

using velm_lan_answer_callback = void (*)(velm_lan_answer answer);

/// Before velm_lan_query_begin. The base is borrowed for the life of the process.
void velm_lan_query_set_event_base(event_base *base);

/// Starts the command and calls `callback` once. The call comes from the loop when the command has
/// ended or its time is over. If there is nothing to wait for, it comes inside this call. One query
/// at a time.
void velm_lan_query_begin(velm_lan_answer_callback callback);

/// True from velm_lan_query_begin to the call of its callback.
[[nodiscard]] bool velm_lan_query_is_under_way();

/// For start-up: runs the command and waits for its end. Calls `meanwhile` before it waits.
[[nodiscard]] velm_lan_answer velm_lan_query_wait(void (*meanwhile)());
