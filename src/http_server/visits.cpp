#include "http_server/visits.h"

#include "request/input.h"
#include "velm_utils.h"

void http_visit_tell(const evhtp_request_t *request, story_visit_note visit)
{
    visit.address = request_peer_address(request).value_or(in_addr{}).s_addr;
    story_visit_came(visit);
}

const char *http_visit_device_id(const cJSON *auth)
{
    return auth == nullptr ? nullptr
                           : velm_utils_get_field_value_from_json_object(auth, "deviceId");
}
