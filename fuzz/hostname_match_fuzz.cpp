#include <algorithm>
#include <string>
#include <vector>

#include "allocation_meter.h"
#include "fuzz_target.h"
#include "http/hostname.h"

namespace {

std::string lower(std::string_view text)
{
    std::string result{text};
    for (char &c : result) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
    }
    return result;
}

/// The first label, and the rest with its dot.
std::pair<std::string, std::string> split(const std::string &name)
{
    const std::size_t dot = std::min(name.find('.'), name.size());
    return {name.substr(0, dot), name.substr(dot)};
}

/// The rule once more: equal, or one "*" of the first label stands for one character or more.
/// Whatever stands in the other labels is compared as it is.
bool rule(std::string_view pattern_text, std::string_view host_text)
{
    const std::string pattern = lower(pattern_text);
    const std::string host = lower(host_text);
    if (pattern.empty() || host.empty()) {
        return false;
    }
    if (pattern == host) {
        return true;
    }
    const auto [label, domain] = split(pattern);
    const auto [host_label, host_domain] = split(host);
    const std::size_t star = label.find('*');
    if (star == std::string::npos || std::count(domain.begin(), domain.end(), '.') < 2 ||
        domain != host_domain || label.starts_with("xn--") || host_label.size() < label.size()) {
        return false;
    }
    return host_label.starts_with(label.substr(0, star)) &&
           host_label.ends_with(label.substr(star + 1));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_input in{data, size};
    const std::string_view pattern = in.text_until('\n');
    const std::string_view host = fuzz_text(in.rest());
    bool matches = false;
    {
        const allocation_meter meter;
        matches = http_client_hostname_match(pattern, host);
        FUZZ_REQUIRE(meter.peak() == 0);
    }
    FUZZ_REQUIRE(matches == rule(pattern, host));
    FUZZ_REQUIRE(http_client_hostname_match(lower(pattern), host) == matches);
    return 0;
}
