#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "control/request.h"

/// What the control socket answers to which request.

struct control_answer {
    int status = 200;
    std::string body = {};
    const char *type = "text/plain"; // of the body
};

/// The whole answer, as it goes over the wire: the connection ends behind it.
[[nodiscard]] std::string control_answer_text(const control_answer &answer);

/// An answer without a document: one plain line that says why.
[[nodiscard]] control_answer control_refusal(int status, const char *why);

/// How long the answer waits for something new; nothing when it is due at once.
[[nodiscard]] std::optional<control_wait> control_wait_of(const control_request &request);

/// Makes the answer, now.
[[nodiscard]] control_answer control_route(const control_request &request);
