#pragma once

#include <sys/resource.h>

#include <cstdlib>

/// As long as it lives, this process gets no new descriptor; those that it has stay.
class no_descriptors {
  public:
    /// Numbers below `first_refused` may still be given. With 0 the kernel refuses poll as well.
    explicit no_descriptors(rlim_t first_refused = 0)
    {
        if (getrlimit(RLIMIT_NOFILE, &usual_) != 0) {
            std::abort();
        }
        set({first_refused, usual_.rlim_max});
    }
    ~no_descriptors()
    {
        set(usual_);
    }
    no_descriptors(const no_descriptors &) = delete;
    no_descriptors &operator=(const no_descriptors &) = delete;

  private:
    static void set(const rlimit &limit)
    {
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
            std::abort();
        }
    }

    rlimit usual_{};
};
