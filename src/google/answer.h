#pragma once

#include <cstddef>

#include "handles/cjson.h"

/// The JSON object of an answer with status 200, else null; either way logged, under the category
/// and the name of the function that asked and with the address of its request. A body is followed by
/// a NUL, which its length leaves out.
[[nodiscard]] json_ptr velm_google_answer_parse(int code, const char *body, std::size_t length,
                                                const char *log_category, const char *function,
                                                const void *request);
