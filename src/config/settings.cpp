#include "config/settings.h"

#include <algorithm>
#include <string_view>

namespace {

// If you change a key, a default or a meaning, change velmd.conf(5) and the sample too: a test compares
// them. "decrytion" is what the platform writes.
// clang-format off
constexpr config_setting settings[] = {
    {"process.daemonize", &velm_config::daemonize, config_yes, nullptr,
     "Detach into the background."},
    {"process.pidfile", &velm_config::pid_file_path, "/var/run/velmd.pid", nullptr,
     "The file with the process id of a daemon that detaches."},
    {"http.client.ca_cert.path", &velm_config::http_client_ca_cert_path, "/etc/afc/velmd/cacert.pem", "zelkad_http_client_trusted_ca",
     "The PEM file with the certificate authorities of the cloud services."},
    {"http.server.cert.path", &velm_config::http_server_cert_path, "/etc/afc/velmd/velm_server_cert.pem", "zelkad_http_server_cert",
     "The certificate of the HTTPS server, PEM."},
    {"http.server.key.path", &velm_config::http_server_key_path, "/etc/afc/velmd/velm_server_key.pem", "zelkad_http_server_privatekey",
     "The private key of this certificate, PEM."},
    {"http.server.port", &velm_config::http_server_port, "8080", "zelkad_http_server_port",
     "The TCP port of the HTTPS server."},
    {"ssdp.server.port", &velm_config::ssdp_server_port, "1900", "zelkad_discovery_ssdp_port",
     "The UDP port on which phones find the daemon by SSDP."},
    {"pairings.limit", &velm_config::pairings_limit, "10", "zelkad_pairing_maxnum",
     "The number of phones that can be paired."},
    {"app.android.package_name", &velm_config::app_android_package_name, "com.norvale.afc", "zelkad_app_android_app_name",
     "The package name of the Android app."},
    {"app.android.integrity.d.key.path", &velm_config::app_android_integrity_d_key_path, "/etc/afc/velmd/android_integrity_decryption.jwk", "zelkad_app_android_integrity_decrytion_key",
     "The JWK that decrypts Play Integrity tokens with the method local: an oct key of 32 bytes."},
    {"app.android.integrity.v.key.path", &velm_config::app_android_integrity_v_key_path, "/etc/afc/velmd/android_integrity_verification.jwk", "zelkad_app_android_integrity_verification_key",
     "The JWK that verifies the signature of these tokens: a P-256 key."},
    {"app.android.integrity.privatekey.path", &velm_config::app_android_integrity_privatekey_path, "/etc/afc/velmd/android_integrity_adminsdk_key.json", "zelkad_app_android_play_attestation_secret",
     "The service-account key for the requests to Google with the method remote."},
    {"app.android.integrity.method", &velm_config::app_android_integrity_method, "remote", nullptr,
     "Who opens the tokens of Android phones: Google with remote, the daemon itself with any other word."},
    {"app.android.integrity.enabled", &velm_config::app_android_integrity_enabled, config_yes, nullptr,
     "If it is off, a failed Android assertion is only logged."},
    {"app.ios.appid", &velm_config::app_ios_appid, "Q4TZ8KM2W7.com.norvale.afc", "zelkad_app_ios_id",
     "The app id of the iOS app: team id, a point, bundle id."},
    {"app.ios.attest.root.ca.path", &velm_config::app_ios_attest_root_ca_path, "", nullptr,
     "A PEM file that replaces the compiled-in App Attest root."},
    {"accounts.shadow", &velm_config::accounts_shadow, config_no, nullptr,
     "Look up a password field x in the shadow database.", false},
    {"location.policy.ipc.sock", &velm_config::location_policy_ipc_sock, "/var/afc/zelka_daemon", "zelkad_cmd_path",
     "The path of the Unix socket for local clients, at most 107 characters."},
    {"cloudmessaging.firebase.privatekey.path", &velm_config::cloudmessaging_firebase_privatekey_path, "/etc/afc/velmd/firebase_adminsdk_key.json", "zelkad_cm_firebase_privkey",
     "The service-account key for pushes."},
    {"control.sock", &velm_config::control_sock, "/var/run/velmd.control.sock", nullptr,
     "The path of the Unix socket that tells how the daemon is; empty: none.", false},
    {"vendor.id", &velm_config::vendor_id, "NORVALE", "ap_vendor",
     "The vendor that the daemon tells phones."},
    // From here on the platform's.
    {"lan.ip.address", &velm_config::lan_ip_address, "192.168.1.1", nullptr, "The LAN address."},
    {"lan.name", &velm_config::lan_name, "br0", nullptr, "The LAN bridge."},
    {"serial.number", &velm_config::serial_number, "1234", nullptr, "The serial number."},
    {"mac.address", &velm_config::mac_address, "01:02:03:04:05:06", nullptr, "The MAC address."},
};
// clang-format on

constexpr std::span<const config_setting> all_settings{settings};
constexpr std::size_t platform_rows = 4;
static_assert(all_settings.size() <= config_rows_max);

std::size_t index_of(const config_setting &row)
{
    return static_cast<std::size_t>(&row - settings);
}

constexpr bool is_number(std::string_view text)
{
    unsigned value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    return !text.empty() && text.size() <= 5 && value <= UINT16_MAX;
}

/// The default suits the type of the field, and nvram has no booleans.
constexpr bool is_sound(const config_setting &row)
{
    if (std::holds_alternative<bool velm_config::*>(row.field)) {
        const std::string_view standard{row.standard};
        return (standard == config_yes || standard == config_no) && row.nvram == nullptr;
    }
    return !std::holds_alternative<std::uint16_t velm_config::*>(row.field) ||
           is_number(row.standard);
}
static_assert(std::ranges::all_of(settings, is_sound));

} // namespace

std::span<const config_setting> config_file_settings()
{
    return all_settings.first(all_settings.size() - platform_rows);
}

std::span<const config_setting> config_platform_settings()
{
    return all_settings.last(platform_rows);
}

config_source &config_source_of(velm_config &config, const config_setting &row)
{
    return config.sources[index_of(row)];
}

config_source config_source_of(const velm_config &config, const config_setting &row)
{
    return config.sources[index_of(row)];
}

config_source &config_source_of(velm_config &config, const config_field &field)
{
    const auto *const row = std::ranges::find(settings, field, &config_setting::field);
    return config_source_of(config, *row);
}
