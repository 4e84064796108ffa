#pragma once

#include <string>
#include <vector>

#include "http/http_client.h"

/// Stands in for the HTTP client and for the loop's queue of actions: requests are kept until the
/// target answers them.

struct fake_cloud_request {
    http_client_request_data data;
    http_client_response_handler handler;
    void *argument;
};

/// The requests that wait, oldest first.
extern std::vector<fake_cloud_request> fake_cloud_requests;

/// Runs the queued actions until there are none.
void fake_cloud_turn();

/// Answers the oldest request; the body is terminated, as the client's is.
void fake_cloud_answer(int code, const std::string &body);

/// Requires that the client refuses the headers of the request, or sends one line for each: no text
/// from outside can forge a header of its own.
void fake_cloud_headers_are_clean(const http_client_request_data &data);
