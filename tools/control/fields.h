#pragma once

#include <cjson/cJSON.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/// The members of a document of the daemon. A reader is sticky: the first member that is not as it should
/// be is written down, and from then on every member reads as nothing. So a whole document is read in one
/// go, and the question whether it was right is asked once.

/// A moment by the daemon's clock.
using control_moment = std::chrono::sys_time<std::chrono::milliseconds>;

/// "2026-11-22T12:03:10.123Z"; nothing for another text.
[[nodiscard]] std::optional<control_moment> control_moment_parse(const std::string &text);

class control_fields {
  public:
    /// The object is borrowed; null, or no object, is what is wrong with `place`. Every reader that comes
    /// from this one writes into `problem`, which is empty as long as nothing is wrong.
    control_fields(const cJSON *object, std::string place, std::string &problem);

    [[nodiscard]] std::string text(const char *name) const;
    [[nodiscard]] std::optional<std::string> maybe_text(const char *name) const;
    [[nodiscard]] std::int64_t number(const char *name) const; // whole
    [[nodiscard]] std::optional<std::int64_t> maybe_number(const char *name) const;
    [[nodiscard]] std::optional<double> maybe_measure(const char *name) const;
    [[nodiscard]] bool flag(const char *name) const;
    [[nodiscard]] std::optional<bool> maybe_flag(const char *name) const;
    [[nodiscard]] control_moment moment(const char *name) const;
    [[nodiscard]] std::optional<control_moment> maybe_moment(const char *name) const;
    /// Of texts; empty when the member is not there: earlier daemons have none.
    [[nodiscard]] std::vector<std::string> later_texts(const char *name) const;
    [[nodiscard]] control_fields object(const char *name) const;
    [[nodiscard]] std::optional<control_fields> maybe_object(const char *name) const;

    /// One element for each object of the list, each made by `make`.
    template <typename T>
    [[nodiscard]] std::vector<T> list(const char *name, T (*make)(const control_fields &)) const
    {
        std::vector<T> out;
        each(name, [&](const control_fields &element) { out.push_back(make(element)); });
        return out;
    }

  private:
    [[nodiscard]] const cJSON *find(const char *name) const;
    [[nodiscard]] const cJSON *find_unless_null(const char *name) const;
    [[nodiscard]] std::string place_of(const char *name) const;
    void complain(const char *name, const char *what) const;
    void each(const char *name, const std::function<void(const control_fields &)> &take) const;

    const cJSON *object_;
    std::string place_;
    std::string &problem_;
};
