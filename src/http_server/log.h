#pragma once

/// The category of the lines of the server and its routes. Included by source files of this folder only.
inline constexpr char log_category[] = "velm_http_server";
