#include "fake_cloud.h"

#include <event2/http.h>
#include <event2/keyvalq_struct.h>

#include <cstring>
#include <deque>
#include <utility>

#include "async/common_async.h"
#include "fuzz_target.h"
#include "handles/libevent.h"
#include "http/headers.h"

std::vector<fake_cloud_request> fake_cloud_requests;

namespace {
std::deque<std::pair<common_async_callback, void *>> actions;
} // namespace

int common_async_action_call(common_async_callback callback, void *user_data)
{
    actions.emplace_back(callback, user_data);
    return 0;
}

int common_async_action_schedule(common_async_callback callback, void *user_data, long, long)
{
    return common_async_action_call(callback, user_data);
}

void http_client_add_header(http_client_request_data *data, const char *name, const char *value)
{
    data->headers.push_back({name, value});
}

int http_request_internal(http_client_method, const http_client_request_data &data,
                          http_client_response_handler handler, void *argument)
{
    fake_cloud_requests.push_back({data, handler, argument});
    return 0;
}

void fake_cloud_turn()
{
    while (!actions.empty()) {
        const auto [callback, user_data] = actions.front();
        actions.pop_front();
        callback(user_data, 0, nullptr);
    }
}

void fake_cloud_answer(int code, const std::string &body)
{
    FUZZ_REQUIRE(!fake_cloud_requests.empty());
    const fake_cloud_request request = fake_cloud_requests.front();
    fake_cloud_requests.erase(fake_cloud_requests.begin());
    request.handler(code, nullptr, body.empty() ? nullptr : body.c_str(), body.size(),
                    request.argument);
}

void fake_cloud_headers_are_clean(const http_client_request_data &data)
{
    std::string head;
    http_client_default_headers defaults;
    defaults.host = "fcm.googleapis.com";
    if (!http_client_headers_add(&head, defaults, data.headers)) {
        return; // refused
    }
    std::size_t lines = 0;
    for (std::string_view left = head; !left.empty(); ++lines) {
        const std::size_t end = left.find("\r\n");
        FUZZ_REQUIRE(end != std::string_view::npos);
        const std::string_view line = left.substr(0, end);
        FUZZ_REQUIRE(line.find_first_of("\r\n") == std::string_view::npos);
        FUZZ_REQUIRE(line.find_first_of(": ") == line.find(": ")); // a name, its colon and a blank
        left.remove_prefix(end + 2);
    }
    FUZZ_REQUIRE(lines <= data.headers.size() + 5); // the client's own: no user agent, no length
}
