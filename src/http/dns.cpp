#include "http/dns.h"

#include <netinet/in.h>
#include <sys/stat.h>

#include <array>
#include <cstring>
#include <utility>
#include <vector>

#include "handles/argument.h"
#include "handles/libevent.h"
#include "logger/fatal.h"

/// Lives until the resolver has called back, which it does for a cancelled question too.
struct http_client_dns_question {
    http_client_dns_lookup *owner = nullptr; // null: nobody waits any more
    http_client_dns_callback callback = nullptr;
    void *argument = nullptr;
    std::string host;
    evdns_getaddrinfo_request *request = nullptr;

    static void answered(int result, evutil_addrinfo *addresses, void *argument) noexcept;
};

namespace {

constexpr char log_category[] = "http_client";

/// What tells one state of a file from the next; all zero when there is none.
struct file_stamp {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t seconds = 0;
    std::int64_t nanoseconds = 0;
    bool operator==(const file_stamp &) const = default;
};

struct module_state {
    evdns_base_ptr dns;
    http_client_dns_files files;
    std::array<file_stamp, 2> stamps;
};
module_state state;

file_stamp stamp_of(const std::string &path)
{
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        return {};
    }
    return {info.st_dev, info.st_ino, info.st_size, info.st_mtim.tv_sec, info.st_mtim.tv_nsec};
}

std::array<file_stamp, 2> stamps_now()
{
    return {stamp_of(state.files.resolv_conf), stamp_of(state.files.hosts)};
}

void log_resolver_message(int is_warning, const char *message) noexcept
{
    if (is_warning != 0) {
        LOG_WARN("%s - %s", __func__, message);
    }
}

/// No search domains: the names asked for are whole, and a failing one would be asked for again
/// under each of them.
void read_name_servers()
{
    const int rc = evdns_base_resolv_conf_parse(
        state.dns.get(), DNS_OPTION_NAMESERVERS | DNS_OPTION_MISC, state.files.resolv_conf.c_str());
    // 1: no file, 6: no server in it; both fall back to the server on this machine.
    if (rc != 0 && rc != 1 && rc != 6) {
        LOG_WARN("%s - cannot read %s: %d", __func__, state.files.resolv_conf.c_str(), rc);
    }
}

void read_files()
{
    state.stamps = stamps_now();
    evdns_base_clear_host_addresses(state.dns.get());
    evdns_base_load_hosts(state.dns.get(), state.files.hosts.c_str());
    evdns_base_clear_nameservers_and_suspend(state.dns.get());
    read_name_servers();
    // Some routers' resolvers do not answer a question in mixed case.
    evdns_base_set_option(state.dns.get(), "randomize-case:", "0");
    // Some answer for one family only: the other is not waited for longer than this.
    evdns_base_set_option(state.dns.get(), "getaddrinfo-allow-skew:", "1");
    evdns_base_resume(state.dns.get());
}

const evutil_addrinfo *next_of(const evutil_addrinfo *list, int family)
{
    while (list != nullptr && list->ai_family != family) {
        list = list->ai_next;
    }
    return list;
}

/// The families take turns, so that one that leads nowhere costs one head start and not many.
std::vector<http_client_address> in_turns(const evutil_addrinfo *list)
{
    std::vector<http_client_address> all;
    const evutil_addrinfo *now = next_of(list, AF_INET);
    const evutil_addrinfo *other = next_of(list, AF_INET6);
    for (; now != nullptr || other != nullptr; std::swap(now, other)) {
        if (now != nullptr) {
            http_client_address &address = all.emplace_back();
            std::memcpy(&address.bytes, now->ai_addr, now->ai_addrlen);
            address.size = now->ai_addrlen;
            now = next_of(now->ai_next, now->ai_family);
        }
    }
    return all;
}

} // namespace

void http_client_dns_question::answered(int result, evutil_addrinfo *addresses,
                                        void *argument) noexcept
{
    const auto question = adopt<http_client_dns_question>(argument);
    const addrinfo_ptr owned{addresses};
    if (question->owner == nullptr) {
        return;
    }
    question->owner->question_ = nullptr;
    const std::vector<http_client_address> found = in_turns(result == 0 ? addresses : nullptr);
    if (found.empty()) {
        LOG_WARN("%s - cannot resolve %s: %s", __func__, question->host.c_str(),
                 evutil_gai_strerror(result != 0 ? result : EVUTIL_EAI_NODATA));
    }
    question->callback(found, question->argument);
}

http_client_dns_lookup::~http_client_dns_lookup()
{
    if (question_ != nullptr) {
        question_->owner = nullptr;
        evdns_getaddrinfo_cancel(question_->request);
    }
}

void http_client_dns_lookup::start(const char *host, http_client_dns_callback callback,
                                   void *argument)
{
    REQUIRE_NOT_NULL(state.dns, "dns");
    if (state.stamps != stamps_now()) {
        http_client_dns_reload();
    }
    evutil_addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    auto *question = release_new<http_client_dns_question>();
    question->owner = this;
    question->callback = callback;
    question->argument = argument;
    question->host = host;
    question_ = question;
    evdns_getaddrinfo_request *request = evdns_getaddrinfo(
        state.dns.get(), host, nullptr, &hints, http_client_dns_question::answered, question);
    // Null: the answer has already come, and the question with it is gone.
    if (request != nullptr) {
        question->request = request;
    }
}

void http_client_dns_start(event_base *base, const http_client_dns_files &files)
{
    state = {};
    state.files = files;
    evdns_set_log_fn(log_resolver_message);
    // Without the flag that reads the files: with it, a missing file means no resolver at all.
    state.dns.reset(evdns_base_new(base, EVDNS_BASE_DISABLE_WHEN_INACTIVE));
    REQUIRE_MEMORY(state.dns, "dns");
    read_files();
}

void http_client_dns_reload()
{
    // At start-up the files are read when the event base comes.
    if (state.dns != nullptr) {
        read_files();
    }
}
