#pragma once

#include <cjson/cJSON.h>

#include "velm_config.h"

/// The parts of the document of "/v1/status". Each adds its members to the document.

/// "settings" and "files": what was configured, and what became of the files that it names.
void control_status_add_settings(cJSON *document, const velm_config &config);

/// "lan", "https", "discovery", "localClients", "certificate".
void control_status_add_servers(cJSON *document, const velm_config &config);

/// "clock": whether it can be right.
void control_status_add_clock(cJSON *document);

/// "pairings", "pairingsLimit", "lastReport".
void control_status_add_phones(cJSON *document, const velm_config &config);
