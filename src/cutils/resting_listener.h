#pragma once

#include <event2/listener.h>
#include <sys/time.h>

#include "handles/libevent.h"

/// A listener that can rest: it takes no connection for a while, and they wait in the kernel. Without
/// descriptors it would stay readable, and the loop would spin.
class resting_listener {
  public:
    /// The listener is borrowed, until `forget` or the end of this object.
    void watch(evconnlistener *listener);
    void forget();

    /// Begins anew when it rests already.
    void rest(const timeval &length);

    [[nodiscard]] evconnlistener *get() const
    {
        return listener_;
    }

  private:
    evconnlistener *listener_ = nullptr;
    event_ptr wake_;
};
