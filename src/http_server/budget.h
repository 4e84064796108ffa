#pragma once

#include <evhtp/evhtp.h>
#include <netinet/in.h>

#include <cstddef>

#include "http_server/intake.h"

/// The memory that connections hold for requests without an answer: how much all of them hold
/// together, how much those of one address, and which connection is closed when it is too much.

struct http_budget_limits {
    std::size_t held = 0;            // by all of them together
    std::size_t held_of_address = 0; // by those of one address
};

/// The part of one connection, which owns it. It joins when the connection begins and leaves when it
/// ends.
struct http_budget_share {
    evhtp_connection_t *connection = nullptr; // the library's
    const http_intake *intake = nullptr;      // tells whether its request is being checked
    in_addr_t address = 0;
    std::size_t counted = 0; // of its memory in the sum of all
};

/// Before the first one joins.
void http_budget_open(const http_budget_limits &limits);

/// Once for each share, which stays where it is until it leaves.
void http_budget_join(http_budget_share *share);

/// Counts the share as 0 and forgets it. A share that has left, or never joined, may leave again.
void http_budget_leave(http_budget_share *share);

/// How much the connection holds now. To be called after every step that may have changed it: to add
/// up all connections each time would cost more than the step.
void http_budget_count(http_budget_share *share, std::size_t size);

/// Closes connections until the limits hold; it may close any of them.
void http_budget_keep();
