#pragma once

#include <memory>
#include <utility>

/// Makes an object that crosses a C callback as `void *`; the callback takes it back with `adopt`
/// in its first statement.
template <typename T, typename... Args>
T *release_new(Args &&...args)
{
    return std::make_unique<T>(std::forward<Args>(args)...).release();
}

template <typename T>
std::unique_ptr<T> adopt(void *object) noexcept
{
    return std::unique_ptr<T>{static_cast<T *>(object)};
}
