#pragma once

#include "tools/control/status.h"

/// True for a setting whose value is what it would be without anybody's doing.
[[nodiscard]] bool velmctl_setting_is_standard(const control_setting &setting);
