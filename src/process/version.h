#pragma once

/// The program's version; CMakeLists.txt names it once.

inline constexpr int velm_version_major = VELM_VERSION_MAJOR;
inline constexpr int velm_version_minor = VELM_VERSION_MINOR;
inline constexpr int velm_version_patch = VELM_VERSION_PATCH;
