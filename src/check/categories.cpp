#include "check/categories.h"

namespace {

// Each source file names its category itself; a test compares.
constexpr std::string_view log_categories[] = {
    "IAV",
    "IPC",
    "IPC_CMD",
    "IPC_CONN",
    "common_async",
    "common_crypto",
    "common_file",
    "common_logger",
    "common_netlink",
    "conf_file",
    "http_client",
    "launch",
    "main",
    "memory",
    "velm_attestation_engine",
    "velm_challenge_engine",
    "velm_cloud_messaging",
    "velm_config",
    "velm_fcm_messaging",
    "velm_google_auth",
    "velm_google_integrity",
    "velm_http_server",
    "velm_ipc",
    "velm_lan",
    "velm_location_policy_ipc",
    "velm_main",
    "velm_nvram_config",
    "velm_nvram_pairings",
    "velm_request_assert_check",
    "velm_request_device_check",
    "velm_request_pairing_check",
    "velm_request_preprocessor",
    "velm_request_user_pass_check",
    "velm_ssdp_server",
    "velm_sys_params",
    "velm_user_auth_passwd",
    "velm_utils",
};

} // namespace

std::span<const std::string_view> check_log_categories()
{
    return log_categories;
}
