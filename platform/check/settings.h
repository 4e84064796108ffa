#pragma once

#include <optional>
#include <string>

/// The looks at nvram. All of them write settings whose names begin with "zelkad_platform_check", and
/// empty them at the end.

inline constexpr char check_setting[] = "zelkad_platform_check";

/// The value; nothing when it is absent. Frees what the platform gave.
[[nodiscard]] std::optional<std::string> setting(const std::string &name);

void check_ownership(); // first: if it fails, nothing else may free a value
void check_absent();
void check_values();
void check_room();
void check_commit();
void check_other_process(const char *program);
void check_speed();
