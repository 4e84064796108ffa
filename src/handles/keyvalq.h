#pragma once

#include <event2/http.h>
#include <event2/keyvalq_struct.h>

/// A list of headers as libevent keeps it, beginning empty.
class evkeyvalq_list {
  public:
    evkeyvalq_list() noexcept
    {
        list_.tqh_first = nullptr;
        list_.tqh_last = &list_.tqh_first;
    }
    ~evkeyvalq_list()
    {
        evhttp_clear_headers(&list_);
    }
    evkeyvalq_list(const evkeyvalq_list &) = delete; // the list points into itself
    evkeyvalq_list &operator=(const evkeyvalq_list &) = delete;

    [[nodiscard]] evkeyvalq *get() noexcept
    {
        return &list_;
    }

  private:
    evkeyvalq list_{};
};
