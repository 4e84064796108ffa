#pragma once

#include <ifaddrs.h>

#include "handles/handle.h"

/// The addresses of all interfaces, as getifaddrs lists them.
using ifaddrs_ptr = handle<ifaddrs, freeifaddrs>;
