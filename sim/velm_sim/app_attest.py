"""App Attest as a phone does it: keys, attestation objects and assertions, and their verification.

Every field of an object can be bent by a keyword argument, so that each check of a verifier can be
shown to refuse. The verification here is this package's own: it also reads what real phones made.
"""

from __future__ import annotations

import datetime
import hashlib
import os
import struct
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

import cbor2
from cryptography import x509
from cryptography.exceptions import InvalidSignature
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec

from .certificates import (
    DAY,
    Extension,
    Identity,
    authority_extensions,
    issue,
    key_usage,
    now,
    p256,
    p384,
    subject,
)

NONCE_OID = x509.ObjectIdentifier("1.2.840.113635.100.8.2")
NONCE_PREFIX = bytes.fromhex("3024a1220420")
FORMAT = "apple-appattest"
AAGUID_PRODUCTION = b"appattest" + bytes(7)
AAGUID_DEVELOPMENT = b"appattestdevelop"
FLAGS = 0x40
# As long as the receipts of real phones, so that our objects have their size.
RECEIPT_LENGTH = 3993

Edit = Callable[[dict[Any, Any]], Any]


def sha256(*parts: bytes) -> bytes:
    return hashlib.sha256(b"".join(parts)).digest()


class AttestationAuthority:
    """Root (P-384) and intermediate (P-384) that vouch for the keys of phones."""

    def __init__(self) -> None:
        root_key, intermediate_key = p384(), p384()
        self.root = issue(
            subject("App Attestation Root CA"),
            root_key,
            None,
            extensions=authority_extensions(root_key),
            digest=hashes.SHA384(),
        )
        self.intermediate = issue(
            subject("App Attestation CA 1"),
            intermediate_key,
            self.root,
            extensions=authority_extensions(intermediate_key, path_length=0),
            digest=hashes.SHA384(),
        )

    def certify(
        self,
        key: ec.EllipticCurvePrivateKey,
        key_id: bytes,
        nonce_extension: bytes | None,
        *,
        issuer: Identity | None = None,
        not_before: datetime.datetime | None = None,
        not_after: datetime.datetime | None = None,
    ) -> Identity:
        """The credential certificate; like the real ones it lives for three days."""
        extensions: list[Extension] = [
            (x509.BasicConstraints(ca=False, path_length=None), True),
            (key_usage(encipher=True), True),
        ]
        if nonce_extension is not None:
            extensions.append((x509.UnrecognizedExtension(NONCE_OID, nonce_extension), False))
        return issue(
            subject(key_id.hex(), "AAA Certification"),
            key,
            issuer or self.intermediate,
            extensions=extensions,
            not_before=not_before or now() - DAY,
            not_after=not_after or now() + 2 * DAY,
        )


@dataclass(frozen=True)
class AttestKey:
    """The phone's hardware key."""

    private: ec.EllipticCurvePrivateKey

    @classmethod
    def generate(cls) -> AttestKey:
        return cls(p256())

    @property
    def point(self) -> bytes:
        return self.private.public_key().public_bytes(
            serialization.Encoding.X962, serialization.PublicFormat.UncompressedPoint
        )

    @property
    def public_der(self) -> bytes:
        return self.private.public_key().public_bytes(
            serialization.Encoding.DER, serialization.PublicFormat.SubjectPublicKeyInfo
        )

    @property
    def key_id(self) -> bytes:
        return sha256(self.point)

    @property
    def cose(self) -> bytes:
        return cbor2.dumps({1: 2, 3: -7, -1: 1, -2: self.point[1:33], -3: self.point[33:]})


def authenticator_data(
    rp_id: str | bytes,
    counter: int,
    *,
    flags: int = FLAGS,
    rp_id_hash: bytes | None = None,
    attested: bytes = b"",
) -> bytes:
    text = rp_id.encode() if isinstance(rp_id, str) else rp_id
    return (rp_id_hash or sha256(text)) + struct.pack(">BI", flags, counter) + attested


def make_attestation(
    authority: AttestationAuthority,
    key: AttestKey,
    rp_id: str,
    client_data_hash: bytes,
    *,
    fmt: Any = FORMAT,
    aaguid: bytes = AAGUID_DEVELOPMENT,
    counter: int = 0,
    flags: int = FLAGS,
    rp_id_hash: bytes | None = None,
    credential_id: bytes | None = None,
    credential_id_length: int | None = None,
    cose_key: bytes | None = None,
    auth_data: bytes | None = None,
    nonce: bytes | None = None,
    nonce_extension: bytes | None = None,
    omit_nonce_extension: bool = False,
    leaf_key: ec.EllipticCurvePrivateKey | None = None,
    leaf_issuer: Identity | None = None,
    not_before: datetime.datetime | None = None,
    not_after: datetime.datetime | None = None,
    x5c: Any = None,
    receipt: Any = None,
    extra: dict[Any, Any] | None = None,
    statement_extra: dict[Any, Any] | None = None,
    edit: Edit | None = None,
    trailing: bytes = b"",
) -> bytes:
    """An attestation object as CBOR.

    `auth_data` replaces the whole of it; `credential_id_length` lies about the id's length;
    `edit` gets the object as a dictionary last of all and returns what is encoded.
    """
    identifier = key.key_id if credential_id is None else credential_id
    stated = len(identifier) if credential_id_length is None else credential_id_length
    if auth_data is None:
        attested = aaguid + struct.pack(">H", stated) + identifier
        attested += key.cose if cose_key is None else cose_key
        auth_data = authenticator_data(
            rp_id, counter, flags=flags, rp_id_hash=rp_id_hash, attested=attested
        )
    extension = nonce_extension
    if extension is None and not omit_nonce_extension:
        extension = NONCE_PREFIX + (sha256(auth_data, client_data_hash) if nonce is None else nonce)
    if x5c is None:
        leaf = authority.certify(
            leaf_key or key.private,
            key.key_id,
            extension,
            issuer=leaf_issuer,
            not_before=not_before,
            not_after=not_after,
        )
        x5c = [leaf.der, authority.intermediate.der]
    statement = {"x5c": x5c, "receipt": os.urandom(RECEIPT_LENGTH) if receipt is None else receipt}
    statement.update(statement_extra or {})
    made: Any = {"fmt": fmt, "attStmt": statement, "authData": auth_data, **(extra or {})}
    return cbor2.dumps(edit(made) if edit else made) + trailing


def make_assertion(
    key: AttestKey,
    rp_id: str,
    client_data_hash: bytes,
    *,
    counter: int = 1,
    flags: int = FLAGS,
    rp_id_hash: bytes | None = None,
    auth_data: bytes | None = None,
    nonce: bytes | None = None,
    signature: Any = None,
    signing_key: ec.EllipticCurvePrivateKey | None = None,
    extra: dict[Any, Any] | None = None,
    edit: Edit | None = None,
    trailing: bytes = b"",
) -> bytes:
    """An assertion as CBOR: ECDSA with SHA-256 over the 32 nonce bytes."""
    if auth_data is None:
        auth_data = authenticator_data(rp_id, counter, flags=flags, rp_id_hash=rp_id_hash)
    if nonce is None:
        nonce = sha256(auth_data, client_data_hash)
    if signature is None:
        signature = (signing_key or key.private).sign(nonce, ec.ECDSA(hashes.SHA256()))
    made: Any = {"signature": signature, "authenticatorData": auth_data, **(extra or {})}
    return cbor2.dumps(edit(made) if edit else made) + trailing


class VerificationError(ValueError):
    """What is wrong with an attestation or assertion."""


def _require(condition: bool, complaint: str) -> None:
    if not condition:
        raise VerificationError(complaint)


def _signed_by(certificate: x509.Certificate, issuer: x509.Certificate) -> bool:
    public = issuer.public_key()
    algorithm = certificate.signature_hash_algorithm
    if not isinstance(public, ec.EllipticCurvePublicKey) or algorithm is None:
        return False
    try:
        public.verify(
            certificate.signature, certificate.tbs_certificate_bytes, ec.ECDSA(algorithm)
        )
    except InvalidSignature:
        return False
    return certificate.issuer == issuer.subject


def verify_attestation(
    encoded: bytes,
    root: x509.Certificate,
    rp_id: str,
    client_data_hash: bytes,
    at: datetime.datetime,
) -> ec.EllipticCurvePublicKey:
    """The attested key, or `VerificationError`."""
    made = cbor2.loads(encoded)
    auth_data = made["authData"]
    leaf, intermediate = (x509.load_der_x509_certificate(der) for der in made["attStmt"]["x5c"])
    _require(made["fmt"] == FORMAT, "fmt")
    _require(_signed_by(leaf, intermediate) and _signed_by(intermediate, root), "chain")
    for certificate in (leaf, intermediate, root):
        _require(certificate.not_valid_before <= at <= certificate.not_valid_after, "expired")
    extension = leaf.extensions.get_extension_for_oid(NONCE_OID).value
    assert isinstance(extension, x509.UnrecognizedExtension)
    _require(extension.value == NONCE_PREFIX + sha256(auth_data, client_data_hash), "nonce")
    _require(auth_data[:32] == sha256(rp_id.encode()), "rp id")
    _require(struct.unpack(">I", auth_data[33:37])[0] == 0, "counter")
    _require(auth_data[37:53] in (AAGUID_PRODUCTION, AAGUID_DEVELOPMENT), "aaguid")
    public = leaf.public_key()
    assert isinstance(public, ec.EllipticCurvePublicKey)
    point = public.public_bytes(
        serialization.Encoding.X962, serialization.PublicFormat.UncompressedPoint
    )
    _require(auth_data[55:87] == sha256(point), "credential id")
    return public


def verify_assertion(
    encoded: bytes, public: ec.EllipticCurvePublicKey, rp_id: str, client_data_hash: bytes
) -> int:
    """The assertion's counter, or `VerificationError`."""
    made = cbor2.loads(encoded)
    auth_data = made["authenticatorData"]
    _require(auth_data[:32] == sha256(rp_id.encode()), "rp id")
    nonce = sha256(auth_data, client_data_hash)
    try:
        public.verify(made["signature"], nonce, ec.ECDSA(hashes.SHA256()))
    except InvalidSignature:
        raise VerificationError("signature") from None
    return int(struct.unpack(">I", auth_data[33:37])[0])
