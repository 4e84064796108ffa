#pragma once

/// What the checks of a request found out, for whoever answers it.
struct story_told {
    const char *device_id = nullptr; // may be null, like the others
    const char *check = nullptr;     // that refused it
    const char *why = nullptr;       // a constant of the program
    const char *hint = nullptr;
};

/// Lent by the preprocessor while the result callback runs, whose arguments are fixed.
class story_telling {
  public:
    explicit story_telling(const story_told &told);
    ~story_telling();
    story_telling(const story_telling &) = delete;
    story_telling &operator=(const story_telling &) = delete;
};

/// All null when nothing is told.
[[nodiscard]] const story_told &story_told_now();
