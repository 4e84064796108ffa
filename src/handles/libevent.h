#pragma once

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/dns.h>
#include <event2/event-config.h>
#include <event2/event.h>
#include <event2/http.h>
#include <event2/listener.h>

#include <ctime>

#include "handles/handle.h"

// Else each struct timeval would be read in another way than it was written, without any error.
// The header that libevent's CMake build makes does not say it.
#ifdef EVENT__SIZEOF_TIME_T
static_assert(sizeof(std::time_t) == EVENT__SIZEOF_TIME_T,
              "libevent was built with another time_t: build both with -D_TIME_BITS=64 or none");
#endif

using event_base_ptr = handle<event_base, event_base_free>;
using event_config_ptr = handle<event_config, event_config_free>;
using event_ptr = handle<event, event_free>;             // removes the event first
using evbuffer_handle = handle<evbuffer, evbuffer_free>; // evbuffer_ptr is a position in one
using bufferevent_handle = handle<bufferevent, bufferevent_free>;
using evconnlistener_ptr = handle<evconnlistener, evconnlistener_free>;
using evhttp_uri_ptr = handle<evhttp_uri, evhttp_uri_free>;

/// Requests that wait for an answer end with an error first.
struct evdns_base_deleter {
    void operator()(evdns_base *base) const noexcept
    {
        evdns_base_free(base, 1);
    }
};
using evdns_base_ptr = std::unique_ptr<evdns_base, evdns_base_deleter>;
using addrinfo_ptr = handle<evutil_addrinfo, evutil_freeaddrinfo>;
