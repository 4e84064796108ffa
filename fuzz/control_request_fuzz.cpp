#include <cctype>
#include <string>
#include <vector>

#include "allocation_meter.h"
#include "control/request.h"
#include "fuzz_target.h"

/// The head of a request on the control socket.

namespace {

/// The rule once more: the lines of a head, each without its end; nothing when the empty line is missing.
struct cut_head {
    std::vector<std::string> lines;
    bool is_whole = false;
};

cut_head cut(const std::string &text)
{
    cut_head head;
    std::string line;
    for (const char c : text) {
        if (c != '\n') {
            line += c;
            continue;
        }
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.empty() && !head.lines.empty()) {
            head.is_whole = true;
            return head;
        }
        head.lines.push_back(line);
        line.clear();
    }
    head.lines.push_back(line);
    return head;
}

bool is_name(const std::string &text)
{
    for (const char c : text) {
        if (isalnum(static_cast<unsigned char>(c)) == 0 &&
            std::string{"!#$%&'*+-.^_`|~"}.find(c) == std::string::npos) {
            return false;
        }
    }
    return !text.empty();
}

/// METHOD SP /TARGET SP HTTP/1.DIGIT
bool is_request_line(const std::string &line)
{
    const std::size_t one = line.find(' ');
    const std::size_t two = one == std::string::npos ? one : line.find(' ', one + 1);
    if (two == std::string::npos || !is_name(line.substr(0, one)) || line[one + 1] != '/') {
        return false;
    }
    for (std::size_t i = one + 1; i < two; ++i) {
        if (line[i] < '!' || line[i] > '~') {
            return false;
        }
    }
    const std::string version = line.substr(two + 1);
    return version.size() == 8 && version.compare(0, 7, "HTTP/1.") == 0 && version[7] >= '0' &&
           version[7] <= '9';
}

bool is_header(const std::string &line)
{
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos || !is_name(line.substr(0, colon))) {
        return false;
    }
    for (const char c : line) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < 0x20 && c != '\t') || byte == 0x7f) {
            return false;
        }
    }
    return true;
}

/// For a head that came whole.
bool is_good(const std::vector<std::string> &lines)
{
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (i == 0 ? !is_request_line(lines[i]) : !is_header(lines[i])) {
            return false;
        }
    }
    return true;
}

void request_is_what_the_line_says(const control_request &request, const std::string &line)
{
    const std::string target =
        std::string{request.path} +
        (line.find('?') != std::string::npos ? "?" + std::string{request.query} : "");
    FUZZ_REQUIRE(line.find(' ' + target + ' ') != std::string::npos);
    FUZZ_REQUIRE(request.is_get == line.starts_with("GET "));
    FUZZ_REQUIRE(request.path.starts_with('/') && request.path.find('?') == std::string::npos);
    const auto wanted = control_wait_read(request.query);
    FUZZ_REQUIRE(!wanted || wanted->seconds <= control_wait_limit);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text{fuzz_text({data, size})};
    const allocation_meter meter;
    const control_head head = control_request_read(text);
    FUZZ_REQUIRE(meter.peak() == 0);
    const cut_head rule = cut(text);
    const bool is_whole = rule.is_whole && is_good(rule.lines);
    FUZZ_REQUIRE((head.state == control_head_state::whole) == is_whole);
    if (is_whole) {
        request_is_what_the_line_says(head.request, rule.lines.front());
    } else if (rule.is_whole) {
        FUZZ_REQUIRE(head.state == control_head_state::bad);
    }
    if (head.state == control_head_state::bad) {
        // Whatever follows.
        FUZZ_REQUIRE(control_request_read(text + "\r\n\r\n").state == control_head_state::bad);
    }
    return 0;
}
