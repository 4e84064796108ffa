#pragma once

#include <chrono>
#include <string>

/// One question to the daemon's control socket: HTTP/1.1, GET, one request per connection.
///
/// Whatever listens there is not trusted: an answer that is endless, slow or no HTTP ends in a result.

enum class control_result {
    done,
    unreachable, // nobody answers there; the reason is in `why`
    ended,       // it took the connection and ended it without an answer
    timed_out,
    broken, // what came is no answer of such a daemon
};

struct velmctl_answer {
    control_result result = control_result::broken;
    int status = 0; // of HTTP, when done
    std::string body;
    std::string why; // when not done: in words, without a full stop
};

/// Asks for `target`, such as "/v1/status". The whole exchange takes at most `limit`.
[[nodiscard]] velmctl_answer control_ask(const std::string &path, const std::string &target,
                                         std::chrono::milliseconds limit);
