#pragma once

#include <event2/event.h>

#include <cstddef>

#include "handles/libevent.h"

/// A server that needs an address which no interface can give yet tries again after 1, 2, 5, 10, 20,
/// 50 … and then every 1000 ms. The kernel announces an address a moment before it can be used, and
/// a bridge may get its own long after the daemon has started. Loop thread only.
class velm_lan_wait {
  public:
    /// Calls `attempt` when the next delay is over. The base is borrowed.
    void again(event_base *base, event_callback_fn attempt);

    /// The next delay is the first one again: an address has come.
    void restart() noexcept
    {
        tries_ = 0;
    }

    /// No attempt follows.
    void end() noexcept;

    [[nodiscard]] bool is_waiting() const noexcept
    {
        return timer_ != nullptr;
    }

  private:
    event_ptr timer_;
    std::size_t tries_ = 0;
};
