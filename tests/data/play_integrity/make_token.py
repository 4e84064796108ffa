"""Makes the files beside it with jwcrypto, a JOSE library that shares no code with the daemon's."""

from __future__ import annotations

import json
from pathlib import Path

from jwcrypto import jwe, jwk, jws

HERE = Path(__file__).parent

PAYLOAD = {
    "requestDetails": {
        "requestPackageName": "com.norvale.afc",
        # SHA-256 of nothing, base64url without padding.
        "nonce": "47DEQpj8HBSa-_TImW-5JCeuQeRkm5NMpJWZG3hSuFU",
        "timestampMillis": "1750000000123",
    },
    "appIntegrity": {
        "appRecognitionVerdict": "PLAY_RECOGNIZED",
        "packageName": "com.norvale.afc",
        "certificateSha256Digest": ["47DEQpj8HBSa-_TImW-5JCeuQeRkm5NMpJWZG3hSuFU"],
        "versionCode": "42",
    },
    "deviceIntegrity": {
        "deviceRecognitionVerdict": [
            "MEETS_BASIC_INTEGRITY",
            "MEETS_DEVICE_INTEGRITY",
            "MEETS_STRONG_INTEGRITY",
        ]
    },
    "accountDetails": {"appLicensingVerdict": "LICENSED"},
    "environmentDetails": {"playProtectVerdict": "NO_ISSUES"},
}


def main() -> None:
    payload = json.dumps(PAYLOAD).encode()
    signer = jwk.JWK.generate(kty="EC", crv="P-256", use="sig", alg="ES256")
    secret = jwk.JWK.generate(kty="oct", size=256, use="enc", alg="A256KW")
    inner = jws.JWS(payload)
    inner.add_signature(signer, protected=json.dumps({"alg": "ES256"}))
    outer = jwe.JWE(
        inner.serialize(compact=True).encode(),
        protected=json.dumps({"alg": "A256KW", "enc": "A256GCM"}),
        recipient=secret,
    )
    (HERE / "payload.json").write_bytes(payload)
    (HERE / "token.jwe").write_text(outer.serialize(compact=True))
    (HERE / "dec.jwk").write_text(secret.export())
    (HERE / "ver.jwk").write_text(signer.export_public())


if __name__ == "__main__":
    main()
