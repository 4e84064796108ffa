#pragma once

#include <string>

#include "handles/cjson.h"

/// What a phone's pairing held when the phone proved itself. Other checks run after the proof, and other
/// requests may change the pairing. So it is looked at again before the work of the route.
struct velm_request_proof {
    bool paired = false;
    std::string attestation_key; // empty: the pairing has none, or there is none
};

/// Gives the pairing of a device id, or null. The pairing check, which is the one of the checks that
/// knows where pairings are kept, tells how to find them; until then nobody is paired.
using velm_request_pairing_finder = json_ptr (*)(const char *device_id);
void velm_request_proof_set_finder(velm_request_pairing_finder finder);

/// As it is now.
[[nodiscard]] velm_request_proof velm_request_proof_take(const char *device_id);

/// False when the key is another one now, or the pairing that was there has gone.
[[nodiscard]] bool velm_request_proof_holds(const velm_request_proof &proof, const char *device_id);
