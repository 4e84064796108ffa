#include "velm_request_pairing_check.h"

#include <optional>

#include "logger/common_logger.h"
#include "request/proof.h"
#include "request/record.h"
#include "velm_nvram_pairings.h"

namespace {

constexpr char log_category[] = "velm_request_pairing_check";
constexpr char check_name[] = "make_pairing_check";

bool is_paired(const char *device_id)
{
    // A deleted slot bears the empty id, so that one is never looked up.
    return device_id != nullptr && *device_id != '\0' &&
           velm_nvram_pairings_select_pairing(device_id) != nullptr;
}

std::optional<int> pairing_check_run(velm_request_preprocessor &p)
{
    const int code = is_paired(p.client_device_id) ? VELM_BREAK_NONE : VELM_BREAK_PAIRING;
    if (code != VELM_BREAK_NONE) {
        p.explained = "no phone with this device id is paired";
    }
    LOG_TRACE("%s [%p] - finished", check_name, static_cast<const void *>(&p));
    return code;
}

} // namespace

void velm_request_pairing_check_init(const velm_config * /*config*/)
{
    LOG_TRACE("%s", __func__);
    velm_request_proof_set_finder(velm_nvram_pairings_select_pairing);
}

void make_pairing_check(velm_request_preprocessor *p)
{
    common_async_action_call(preproc_check_run<pairing_check_run>, p);
}
