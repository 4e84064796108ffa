#include "http_server/parser.h"

#include "handles/malloc.h"
#include "http_server/log.h"
#include "logger/fatal.h"

namespace {

using parser_ptr = plain_ptr<htparser>; // the library allocates nothing else for it

struct module_state {
    parser_ptr parser;
};
module_state state;

} // namespace

void http_parser_share(evhtp_connection_t *connection)
{
    const parser_ptr its_own{connection->parser};
    if (state.parser == nullptr) {
        state.parser.reset(htparser_new());
        REQUIRE_MEMORY(state.parser, "parser");
    }
    connection->parser = state.parser.get();
}

void http_parser_begin(evhtp_connection_t *connection)
{
    htparser_init(connection->parser, htp_type_request);
    htparser_set_userdata(connection->parser, connection);
}

void http_parser_tell_version(const evhtp_request_t *request)
{
    htparser *const parser = request->conn->parser;
    htparser_set_major(parser, 1);
    htparser_set_minor(parser, request->proto == EVHTP_PROTO_11 ? 1 : 0);
}

void http_parser_leave(evhtp_connection_t *connection)
{
    connection->parser = nullptr;
}
