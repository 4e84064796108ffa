/* The public header is C11 as much as C++: it compiles here without any extension, and its
 * structures have the sizes that a C client puts on the wire. */
#include <velm/location_policy.h>

int main(void)
{
    const struct velm_frame_header header = {VELM_LOCATION_REPORT,
                                             sizeof(struct velm_location_report), 1, 2,
                                             VELM_STATUS_NO_PAIRED_DEVICES};
    return header.type == 0xa000 && header.len == 224 && header.status == 3 &&
                   sizeof header + sizeof(struct velm_location_request) == 156
               ? 0
               : 1;
}
