#pragma once

#include <chrono>
#include <string>

#include "handles/cjson.h"
#include "tools/control/exchange.h"
#include "tools/options/velmctl_options.h"

/// What the commands that use the control socket begin with. What goes wrong is on standard error.

inline constexpr std::chrono::seconds control_time{10};

/// The path of the control socket; empty when there is none.
[[nodiscard]] std::string control_path_of(const velmctl_options &options);

/// Says why there is no answer; gives the exit status.
[[nodiscard]] int control_complain(const std::string &path, const velmctl_answer &answer);

/// True for an answer with status 200.
[[nodiscard]] bool control_is_good(const velmctl_answer &answer);

struct control_fetched {
    json_ptr document; // null: there is none, and it was said why
    int exit = 0;      // then
};

[[nodiscard]] control_fetched control_fetch(const std::string &path, const std::string &target,
                                            std::chrono::milliseconds limit = control_time);

/// A document that was fetched was not as it should be.
[[nodiscard]] int control_refuse(const std::string &problem);
