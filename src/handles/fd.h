#pragma once

#include <unistd.h>

#include <utility>

/// Owns a file descriptor; -1 is none.
class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) noexcept : fd_{fd}
    {
    }
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    unique_fd(unique_fd &&other) noexcept : fd_{other.release()}
    {
    }
    unique_fd &operator=(unique_fd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~unique_fd()
    {
        reset();
    }

    [[nodiscard]] int get() const noexcept
    {
        return fd_;
    }
    explicit operator bool() const noexcept
    {
        return fd_ >= 0;
    }
    int release() noexcept
    {
        return std::exchange(fd_, -1);
    }
    void reset(int fd = -1) noexcept
    {
        const int old = std::exchange(fd_, fd);
        if (old >= 0) {
            ::close(old);
        }
    }

  private:
    int fd_ = -1;
};
