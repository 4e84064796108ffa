#pragma once

#include <cstdint>

#include "handles/cjson.h"

/// All settings of the daemon; config/settings.h has the table of their names and defaults. There is one
/// record, made by main and rewritten in place on reload. Modules keep a pointer to it and read its fields
/// when they need them. Texts are always terminated; a longer value is cut to the field.
struct velm_config {
    bool daemonize;
    char pid_file_path[256];
    char http_client_ca_cert_path[256];
    char http_server_cert_path[256];
    char http_server_key_path[256];
    std::uint16_t http_server_port; // 0: no HTTP server
    std::uint16_t ssdp_server_port; // 0: no SSDP
    std::uint16_t pairings_limit;
    char app_android_package_name[256];
    char app_android_integrity_d_key_path[256];
    char app_android_integrity_v_key_path[256];
    char app_android_integrity_privatekey_path[256];
    char app_android_integrity_method[50];
    bool app_android_integrity_enabled;
    char app_ios_appid[256];               // team id, ".", bundle id
    char app_ios_attest_root_ca_path[256]; // "": built in
    char location_policy_ipc_sock[256];
    char cloudmessaging_firebase_privatekey_path[256];
    char vendor_id[50];
    char lan_ip_address[50]; // every address of the bridge, one a line
    char lan_name[20];
    char serial_number[50];
    char mac_address[20];
    json_ptr bssids_list; // array of strings; null: no list at all
};
