#pragma once

#include <evhtp/evhtp.h>

/// The library makes a parser for each connection, for its whole life, and a parser has a buffer of
/// 8 KiB. But a request is given to it whole, within one call: so all connections have the same one.
/// What it says belongs to the request that was parsed last.

/// Gives the connection the common parser instead of its own.
void http_parser_share(evhtp_connection_t *connection);

/// The connection has a request to be parsed now.
void http_parser_begin(evhtp_connection_t *connection);

/// Makes it say of which version the request was: the reply says that too.
void http_parser_tell_version(const evhtp_request_t *request);

/// The library is about to free the connection and what belongs to it.
void http_parser_leave(evhtp_connection_t *connection);
