#pragma once

#include <evhtp/evhtp.h>

#include "handles/malloc.h"

/// The parser of a connection holds a buffer of 8 KiB, and the library makes one for each connection,
/// for its whole life. Only while a request is being read or answered does it look at it.

/// Null without memory.
inline htparser *evhtp_connection_make_parser(evhtp_connection_t *connection) noexcept
{
    if (connection->parser == nullptr) {
        connection->parser = htparser_new();
    }
    if (connection->parser != nullptr) {
        htparser_init(connection->parser, htp_type_request);
        htparser_set_userdata(connection->parser, connection);
    }
    return connection->parser;
}

/// Nothing of a request may be under way.
inline void evhtp_connection_drop_parser(evhtp_connection_t *connection) noexcept
{
    const plain_ptr<htparser> dropped{connection->parser};
    connection->parser = nullptr;
}
