#pragma once

#include <cstdint>

/// Why something was refused, from where it is found out up to where it is told: a reason is set deep
/// inside a call whose result is only yes or no, and taken when that call has returned.

struct story_reason {
    const char *text = nullptr; // a constant of the program; null: none was set
    std::int32_t status = 0;    // of HTTP; 0: none
};

/// Takes the place of one that nobody took.
void story_reason_set(const char *text, std::int32_t status = 0);

/// What was set since it was taken last.
story_reason story_reason_take();
