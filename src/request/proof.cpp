#include "request/proof.h"

#include "velm_utils.h"

namespace {

struct module_state {
    velm_request_pairing_finder finder = nullptr;
};
module_state state;

} // namespace

void velm_request_proof_set_finder(velm_request_pairing_finder finder)
{
    state.finder = finder;
}

velm_request_proof velm_request_proof_take(const char *device_id)
{
    const json_ptr pairing = state.finder != nullptr ? state.finder(device_id) : nullptr;
    if (pairing == nullptr) {
        return {};
    }
    const char *const key =
        velm_utils_get_field_value_from_json_object(pairing.get(), "attestation_key");
    return {true, key != nullptr ? key : ""};
}

bool velm_request_proof_holds(const velm_request_proof &proof, const char *device_id)
{
    const velm_request_proof now = velm_request_proof_take(device_id);
    return now.attestation_key == proof.attestation_key && (now.paired || !proof.paired);
}
