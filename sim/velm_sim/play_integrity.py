"""Play Integrity as Google and a phone do it: verdicts, tokens around them, and their decoding.

A token is a compact JWE (A256KW, A256GCM) around a compact JWS (ES256) of the verdict. Every field
of a verdict and every step of a token can be bent, so that each check can be shown to refuse.
"""

from __future__ import annotations

import base64
import json
import time
from collections.abc import Callable, Mapping
from dataclasses import dataclass, field
from typing import Any

from jwcrypto import jwe, jwk, jws
from jwcrypto.common import JWException

from .app_attest import sha256
from .phone import OMIT

PACKAGE_NAME = "com.norvale.afc"
ENCRYPTION = {"alg": "A256KW", "enc": "A256GCM"}
SIGNATURE = {"alg": "ES256"}
LABELS = ("MEETS_BASIC_INTEGRITY", "MEETS_DEVICE_INTEGRITY", "MEETS_STRONG_INTEGRITY")

Verdict = dict[str, Any]


class TokenError(ValueError):
    """Why a token is not decoded."""


def _decryption_key() -> jwk.JWK:
    return jwk.JWK.generate(kty="oct", size=256, alg="A256KW", use="enc")


def _signing_key() -> jwk.JWK:
    return jwk.JWK.generate(kty="EC", crv="P-256", alg="ES256", use="sig")


@dataclass(frozen=True)
class IntegrityKeys:
    """An app's two keys: Google signs and encrypts with them, the app's owner gets the one that
    decrypts and the public half of the other."""

    decryption: jwk.JWK = field(default_factory=_decryption_key)
    signing: jwk.JWK = field(default_factory=_signing_key)

    def decryption_file(self) -> str:
        return str(self.decryption.export())

    def verification_file(self) -> str:
        return str(self.signing.export_public())


def base64url(data: bytes) -> str:
    return base64.urlsafe_b64encode(data).rstrip(b"=").decode()


def _header(members: Mapping[str, Any]) -> str:
    return json.dumps(members, separators=(",", ":"))


def make_verdict(
    digest: bytes,
    changes: Mapping[str, Any] | None = None,
    *,
    hashed: bool = False,
    package_name: str = PACKAGE_NAME,
    at: float | None = None,
) -> Verdict:
    """A verdict on a genuine app on a genuine phone, bound to `digest`.

    `hashed` binds it by "requestHash" (a standard request), else by "nonce" (a classic one).
    `changes` names members by path ("deviceIntegrity.deviceRecognitionVerdict").
    """
    moment = time.time() if at is None else at
    verdict: Verdict = {
        "requestDetails": {
            "requestPackageName": package_name,
            "requestHash" if hashed else "nonce": base64url(digest),
            "timestampMillis": str(int(moment * 1000)),
        },
        "appIntegrity": {
            "appRecognitionVerdict": "PLAY_RECOGNIZED",
            "packageName": package_name,
            "certificateSha256Digest": [base64url(sha256(b"the app's certificate"))],
            "versionCode": "42",
        },
        "deviceIntegrity": {"deviceRecognitionVerdict": list(LABELS)},
        "accountDetails": {"appLicensingVerdict": "LICENSED"},
        "environmentDetails": {"playProtectVerdict": "NO_ISSUES"},
    }
    for path, value in (changes or {}).items():
        _change(verdict, path, value)
    return verdict


def _change(verdict: Verdict, path: str, value: Any) -> None:
    *parents, name = path.split(".")
    inside = verdict
    for parent in parents:
        inside = inside[parent]
    if value is OMIT:
        inside.pop(name)
    else:
        inside[name] = value


def sign(payload: bytes, keys: IntegrityKeys, header: Mapping[str, Any] = SIGNATURE) -> bytes:
    made = jws.JWS(payload)
    made.add_signature(keys.signing, protected=_header(header))
    return str(made.serialize(compact=True)).encode()


def sign_by_secret(payload: bytes, secret: bytes) -> bytes:
    """HS256 with anything as the secret, such as a key that everybody knows."""
    made = jws.JWS(payload)
    made.add_signature(
        jwk.JWK(kty="oct", k=base64url(secret)), protected=_header({"alg": "HS256"})
    )
    return str(made.serialize(compact=True)).encode()


def unsigned(payload: bytes, header: Mapping[str, Any], signature: str = "") -> bytes:
    """A JWS whose header says what it likes."""
    return f"{base64url(_header(header).encode())}.{base64url(payload)}.{signature}".encode()


def encrypt(
    content: bytes, keys: IntegrityKeys, header: Mapping[str, Any] = ENCRYPTION
) -> bytes:
    made = jwe.JWE(content, protected=_header(header), recipient=keys.decryption)
    return str(made.serialize(compact=True)).encode()


def make_token(
    keys: IntegrityKeys,
    verdict: Verdict | bytes,
    *,
    sign: Callable[[bytes, IntegrityKeys], bytes] = sign,
    encrypt: Callable[[bytes, IntegrityKeys], bytes] = encrypt,
) -> bytes:
    """A token as Google hands it to the app; `sign` and `encrypt` replace the right steps."""
    payload = verdict if isinstance(verdict, bytes) else json.dumps(verdict).encode()
    return encrypt(sign(payload, keys), keys)


def open_token(keys: IntegrityKeys, token: str) -> Verdict:
    """The verdict of a token, or `TokenError`."""
    try:
        outer = jwe.JWE()
        outer.deserialize(token, keys.decryption)
        if outer.jose_header != ENCRYPTION:
            raise TokenError(f"outer header: {outer.jose_header}")
        inner = jws.JWS()
        inner.deserialize(outer.payload.decode(), keys.signing, alg="ES256")
        verdict = json.loads(inner.payload)
    except (JWException, ValueError) as problem:
        raise TokenError(str(problem)) from None
    if not isinstance(verdict, dict):
        raise TokenError("no object")
    return verdict
