#pragma once

/// Where the cloud services live: build constants.

inline constexpr char cloud_fcm_base[] = "https://fcm.googleapis.com";
inline constexpr char cloud_play_integrity_base[] = "https://playintegrity.googleapis.com";
inline constexpr char cloud_token_endpoint[] = "https://oauth2.googleapis.com/token"; // and "aud"
inline constexpr char cloud_scope_firebase[] = "https://www.googleapis.com/auth/firebase.messaging";
inline constexpr char cloud_scope_play_integrity[] =
    "https://www.googleapis.com/auth/playintegrity";

/// Every request to the cloud ends after this long, whatever the other side does.
inline constexpr int cloud_timeout_s = 10;

/// A token answer has about 1.5 KiB; more than this is not read.
inline constexpr unsigned cloud_token_answer_max = 16 * 1024;
