#pragma once

/// For a text that may be null.
inline const char *text_or_empty(const char *text) noexcept
{
    return text != nullptr ? text : "";
}
