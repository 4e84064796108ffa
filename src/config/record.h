#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "handles/cjson.h"

/// Room for a text of the record, with its end: a path or a long name, a word, the name of an interface.
inline constexpr std::size_t config_path_size = 256;
inline constexpr std::size_t config_word_size = 50;
inline constexpr std::size_t config_name_size = 20;

/// Where the value of a setting came from.
enum class config_source : std::uint8_t { standard, file, command_line, nvram, platform };

/// The most rows that the table may have. config/settings.cpp has the compiler check it.
inline constexpr std::size_t config_rows_max = 32;

/// All settings of the daemon; config/settings.h has the table of their names and defaults. There is one
/// record, made by main and rewritten in place on reload. Modules keep a pointer to it and read its fields
/// when they need them. Texts are always terminated; a longer value is cut to the field.
struct velm_config {
    bool daemonize;
    char pid_file_path[config_path_size];
    char http_client_ca_cert_path[config_path_size];
    char http_server_cert_path[config_path_size];
    char http_server_key_path[config_path_size];
    std::uint16_t http_server_port; // 0: no HTTP server
    std::uint16_t ssdp_server_port; // 0: no SSDP
    std::uint16_t pairings_limit;
    char app_android_package_name[config_path_size];
    char app_android_integrity_d_key_path[config_path_size];
    char app_android_integrity_v_key_path[config_path_size];
    char app_android_integrity_privatekey_path[config_path_size];
    char app_android_integrity_method[config_word_size];
    bool app_android_integrity_enabled;
    char app_ios_appid[config_path_size];               // team id, ".", bundle id
    char app_ios_attest_root_ca_path[config_path_size]; // "": built in
    bool accounts_shadow;
    char location_policy_ipc_sock[config_path_size];
    char cloudmessaging_firebase_privatekey_path[config_path_size];
    char control_sock[config_path_size]; // "": off
    char vendor_id[config_word_size];
    char lan_ip_address[config_word_size]; // every address of the bridge, one a line
    char lan_name[config_name_size];
    char serial_number[config_word_size];
    char mac_address[config_name_size];
    json_ptr bssids_list; // array of strings; null: no list at all
    json_ptr
        other_pairs; // of the file, key: value: the logger's, and those that nobody knows; or null
    char log_level[config_word_size]; // that nvram sets in place of the file's; "": none
    std::array<config_source, config_rows_max> sources; // of the values, in the order of the table
};
