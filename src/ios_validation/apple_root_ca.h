#pragma once

/// The Apple App Attestation Root CA, as Apple publishes it: a P-384 key, valid from 2020-03-18 to
/// 2045-03-15. PEM, 798 characters in 14 lines.
extern const char apple_root_ca_pem[];
