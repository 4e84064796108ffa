#pragma once

#include <string>

/// OpenSSL keeps the failures of its calls in a queue, the cause first.

struct openssl_error {
    unsigned long code = 0; // 0: it gives no reason
    std::string text;
};

[[nodiscard]] std::string openssl_error_text(unsigned long code);

/// The cause; it is taken out of the queue.
[[nodiscard]] openssl_error openssl_take_oldest_error();

/// What was noted last; it stays in the queue.
[[nodiscard]] openssl_error openssl_last_error();
