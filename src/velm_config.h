#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "conffile/conffile.h"
#include "handles/cjson.h"

/// All settings of the daemon. One record a process, made by main and rewritten in place on reload;
/// modules keep a pointer to it and read its fields when they need them. Texts are always
/// terminated; a longer value is cut to the field.
struct velm_config {
    bool daemonize;                                    // process.daemonize
    char pid_file_path[256];                           // process.pidfile
    char http_client_ca_cert_path[256];                // http.client.ca_cert.path
    char http_server_cert_path[256];                   // http.server.cert.path
    char http_server_key_path[256];                    // http.server.key.path
    std::uint16_t http_server_port;                    // http.server.port; 0: no HTTP server
    std::uint16_t ssdp_server_port;                    // ssdp.server.port; 0: no SSDP
    std::uint16_t pairings_limit;                      // pairings.limit
    char app_android_package_name[256];                // app.android.package_name
    char app_android_integrity_d_key_path[256];        // app.android.integrity.d.key.path
    char app_android_integrity_v_key_path[256];        // app.android.integrity.v.key.path
    char app_android_integrity_privatekey_path[256];   // app.android.integrity.privatekey.path
    char app_android_integrity_method[50];             // app.android.integrity.method
    bool app_android_integrity_enabled;                // app.android.integrity.enabled
    char app_ios_appid[256];                           // app.ios.appid: team id, ".", bundle id
    char app_ios_attest_root_ca_path[256];             // app.ios.attest.root.ca.path; "": built in
    char location_policy_ipc_sock[256];                // location.policy.ipc.sock
    char cloudmessaging_firebase_privatekey_path[256]; // cloudmessaging.firebase.privatekey.path
    char vendor_id[50];                                // vendor.id
    char lan_ip_address[50];                           // every address of the bridge, one a line
    char lan_name[20];
    char serial_number[50];
    char mac_address[20];
    json_ptr bssids_list; // array of strings; null: no list at all
};

/// Resets the logger to its default configuration and every field to its default.
void velm_config_set_defaults(velm_config *config);

/// Applies the file's keys, the logger's first. A file that cannot be read or parsed changes
/// nothing. Null arguments are fatal.
void velm_config_load_from_file(velm_config *config, const char *file);

/// One TRACE line a field, in the order of the record.
void velm_config_print_to_log(const velm_config *config);

/// Set a field from a key of the parsed file; a missing key leaves it. A null file or key is fatal.
void set_config_value_str(const ConfigFile *cfile, const char *key, char *dst, std::size_t size);
/// Base-10 strtol cut to 16 bits, kept only when errno is not ERANGE; errno is not cleared before,
/// and text that is no number stores 0: both are how the field has always behaved.
void set_config_value_uint16(const ConfigFile *cfile, const char *key, std::uint16_t *dst);
/// True exactly for "true", "yes" and "1".
void set_config_value_bool(const ConfigFile *cfile, const char *key, bool *dst);

/// Copies a text into a fixed field, cut to the field; the rest of the field is zeroed.
void velm_config_copy_text(char *dst, std::size_t size, const char *src);

/// The first line of the LAN address field: what is bound, joined, pushed and answered with.
[[nodiscard]] std::string velm_config_lan_ip_address(const velm_config *config);
