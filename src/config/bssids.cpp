#include "config/bssids.h"

#include "logger/fatal.h"

namespace {
constexpr char log_category[] = "velm_config";
} // namespace

json_ptr velm_config_bssids_copy(const velm_config &config)
{
    json_ptr bssids{config.bssids_list != nullptr ? cJSON_Duplicate(config.bssids_list.get(), 1)
                                                  : cJSON_CreateArray()};
    REQUIRE_MEMORY(bssids, "bssids");
    return bssids;
}
