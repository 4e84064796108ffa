#pragma once

#include <string_view>

/// The paths of the phone API. This is their only list: the metrics count by it, the stories name the
/// route by it, and `velmctl explain` has its words from it. A route with another path does not compile.

struct request_path_row {
    const char *path;
    const char *deed; // what a phone did there, for `velmctl explain`
};

// clang-format off
/// In the order in which the metrics list them.
inline constexpr request_path_row request_paths[] = {
    {"/info",      "asked for /info"},
    {"/location",  "posted its location"},
    {"/challenge", "fetched a challenge"},
    {"/pair",      "paired"},
    {"/pairings",  "fetched the list of pairings"},
    {"/unpair",    "ended a pairing"},
};
// clang-format on

/// Never defined. If the compiler names it, a path is not in the list above.
void this_path_is_not_in_request_paths();

/// One of the list. It is made from a literal while the program is compiled.
class request_listed_path {
  public:
    // NOLINTNEXTLINE(google-explicit-constructor): the tables of routes are written with literals
    consteval request_listed_path(const char *path) : path_{path}
    {
        if (!is_listed(path)) {
            this_path_is_not_in_request_paths();
        }
    }

    constexpr operator const char *() const // NOLINT(google-explicit-constructor): it is the text
    {
        return path_;
    }

  private:
    // Not in the constructor: on 32-bit ARM that returns the object, and GCC 12 takes no `return` in it
    // for the end.
    static consteval bool is_listed(std::string_view path)
    {
        for (const request_path_row &row : request_paths) {
            if (path == row.path) {
                return true;
            }
        }
        return false;
    }

    const char *path_;
};
