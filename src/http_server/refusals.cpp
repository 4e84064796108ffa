#include "http_server/refusals.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <chrono>

#include "http_server/log.h"
#include "logger/common_logger.h"

namespace {

using clock = std::chrono::steady_clock;

constexpr std::chrono::minutes window{1};
/// As many as may have connections at a time.
constexpr std::size_t addresses_remembered = 64;

struct refused_address {
    in_addr_t address = 0;
    std::size_t told = 0;     // in the window
    std::size_t left_out = 0; // since the last line
};

struct module_state {
    clock::time_point window_begin;
    std::size_t told = 0; // in the window, of all addresses
    std::array<refused_address, addresses_remembered> addresses;
    std::size_t next = 0;                   // the one that a new address takes the place of
    std::array<char, INET_ADDRSTRLEN> text; // of the address that was asked for last
};
module_state state;

void begin_window_when_due()
{
    const clock::time_point now = clock::now();
    if (now - state.window_begin < window) {
        return;
    }
    state.window_begin = now;
    state.told = 0;
    for (refused_address &one : state.addresses) {
        one.told = 0;
    }
}

refused_address &find(in_addr_t address)
{
    auto *const found = std::find_if(state.addresses.begin(), state.addresses.end(),
                                     [address](const auto &one) { return one.address == address; });
    if (found != state.addresses.end()) {
        return *found;
    }
    refused_address &taken = state.addresses[state.next++ % state.addresses.size()];
    taken = {};
    taken.address = address;
    return taken;
}

} // namespace

void http_refusals_forget()
{
    state = {};
}

bool http_refusals_tell(in_addr_t address)
{
    begin_window_when_due();
    refused_address &one = find(address);
    if (one.told >= http_refusals_of_address || state.told >= http_refusals_of_all) {
        ++one.left_out;
        return false;
    }
    ++one.told;
    ++state.told;
    if (one.left_out != 0) {
        LOG_WARN("%s - %zu refusals of %s were not logged", __func__, one.left_out,
                 http_refusals_text(address));
        one.left_out = 0;
    }
    return true;
}

const char *http_refusals_text(in_addr_t address)
{
    const in_addr in{address};
    return inet_ntop(AF_INET, &in, state.text.data(), state.text.size());
}
