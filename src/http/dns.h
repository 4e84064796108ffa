#pragma once

#include <event2/event.h>

#include <span>
#include <string>

#include "http/race.h"

/// Names to addresses without blocking the loop: literals and the hosts file at once, all else by
/// questions to the name servers. Both files are read again when they have changed.

struct http_client_dns_files {
    std::string resolv_conf = "/etc/resolv.conf";
    std::string hosts = "/etc/hosts";
};

/// Replaces what an earlier call made; that one's event base must still live. A file that is not
/// there (normal at boot) stands for the name server on this machine, or for localhost alone.
void http_client_dns_start(event_base *base, const http_client_dns_files &files);

/// Reads the files again now. Questions under way go to the new name servers.
void http_client_dns_reload();

/// Every address of both families, which take turns; empty when there is none. May run inside the
/// call that asks.
using http_client_dns_callback = void (*)(std::span<const http_client_address> addresses,
                                          void *argument);

struct http_client_dns_question;

/// One question. Once the object is gone, its callback does not come.
class http_client_dns_lookup {
  public:
    http_client_dns_lookup() = default;
    ~http_client_dns_lookup();
    http_client_dns_lookup(const http_client_dns_lookup &) = delete;
    http_client_dns_lookup &operator=(const http_client_dns_lookup &) = delete;

    /// At most once per object.
    void start(const char *host, http_client_dns_callback callback, void *argument);

  private:
    friend struct http_client_dns_question;
    http_client_dns_question *question_ = nullptr; // freed by its own end
};
