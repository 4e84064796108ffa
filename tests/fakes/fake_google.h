#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "async/common_async.h"
#include "http/http_client.h"
#include "velm_google_auth.h"

/// The loop, the HTTPS client and the token endpoint of a sender to Google's services: what is asked
/// of them is kept until the test answers. Defines the functions themselves: include it once per
/// program.

struct sent_request {
    http_client_request_data data;
    http_client_response_handler handler;
    void *argument;
};
inline std::vector<sent_request> sent;
inline int start_result = 0; // of each request; negative: it does not start

struct token_request {
    std::string project_id, scope;
    velm_google_auth_response_handler handler;
    void *context;
};
inline std::vector<token_request> token_requests;

struct scheduled_action {
    common_async_callback callback;
    void *user_data;
    long delay_s;
};
inline std::vector<scheduled_action> actions;

int common_async_action_call(common_async_callback callback, void *user_data)
{
    actions.push_back({callback, user_data, 0});
    return 0;
}

int common_async_action_schedule(common_async_callback callback, void *user_data, long seconds,
                                 long)
{
    actions.push_back({callback, user_data, seconds});
    return 0;
}

int velm_google_auth_request_access_token(const cJSON *private_key, const char *scope,
                                          velm_google_auth_response_handler response_handler,
                                          void *context)
{
    const char *const project_id =
        cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(private_key, "project_id"));
    token_requests.push_back(
        {project_id == nullptr ? "" : project_id, scope, response_handler, context});
    return 0;
}

int http_request_internal(http_client_method method, const http_client_request_data &data,
                          http_client_response_handler handler, void *argument)
{
    EXPECT_EQ(method, HTTP_CLIENT_POST);
    if (start_result == 0) {
        sent.push_back({data, handler, argument});
    }
    return start_result;
}

void http_client_add_header(http_client_request_data *data, const char *header_name,
                            const char *header_value)
{
    data->headers.push_back({header_name, header_value});
}
