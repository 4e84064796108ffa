"""Does the simulated phone make what real phones make, and does its verifier read theirs?"""

from __future__ import annotations

import datetime
import json
from pathlib import Path
from typing import Any

import cbor2
import pytest
from cryptography import x509
from velm_sim.app_attest import (
    NONCE_OID,
    AttestationAuthority,
    AttestKey,
    VerificationError,
    make_assertion,
    make_attestation,
    sha256,
    verify_assertion,
    verify_attestation,
)
from velm_sim.certificates import DAY, now, p256

DATA = Path(__file__).resolve().parents[1] / "data" / "app_attest"
PHONES = sorted(path.parent.name for path in DATA.glob("*/attestation.cbor"))
SIGNING_PHONES = sorted(path.parent.name for path in DATA.glob("*/assertion.cbor"))
APP = "TEAM.app"
DIGEST = sha256(b"body")


def parameters(name: str) -> dict[str, Any]:
    loaded: dict[str, Any] = json.loads((DATA / name / "params.json").read_text())
    return loaded


def real_attestation(name: str) -> bytes:
    return (DATA / name / "attestation.cbor").read_bytes()


def apple_root() -> x509.Certificate:
    return x509.load_pem_x509_certificate((DATA / "apple_app_attestation_root_ca.pem").read_bytes())


def verify_real(name: str, encoded: bytes) -> Any:
    about = parameters(name)
    return verify_attestation(
        encoded,
        apple_root(),
        about["app_id"],
        bytes.fromhex(about["client_data_hash_hex"]),
        datetime.datetime.utcfromtimestamp(about["verify_at_epoch"]),
    )


@pytest.fixture(scope="module")
def authority() -> AttestationAuthority:
    return AttestationAuthority()


@pytest.fixture(scope="module")
def key() -> AttestKey:
    return AttestKey.generate()


def test_there_are_samples_of_real_phones() -> None:
    assert len(PHONES) == 4 and len(SIGNING_PHONES) == 2


@pytest.mark.parametrize("name", PHONES)
def test_our_attestation_has_the_structure_of(
    name: str, authority: AttestationAuthority, key: AttestKey
) -> None:
    real = cbor2.loads(real_attestation(name))
    ours = cbor2.loads(make_attestation(authority, key, APP, DIGEST))
    assert list(ours) == list(real)
    assert ours["fmt"] == real["fmt"]
    assert list(ours["attStmt"]) == list(real["attStmt"])
    assert len(ours["attStmt"]["x5c"]) == len(real["attStmt"]["x5c"])
    assert len(ours["authData"]) == len(real["authData"])
    # Flags, counter and the id's length; then the key, which has the same shape.
    assert ours["authData"][32:37] == real["authData"][32:37]
    assert ours["authData"][53:55] == real["authData"][53:55]
    our_key, real_key = (cbor2.loads(made["authData"][87:]) for made in (ours, real))
    assert {k: type(v) for k, v in our_key.items()} == {k: type(v) for k, v in real_key.items()}


@pytest.mark.parametrize("name", PHONES)
def test_our_certificates_are_built_like_those_of(
    name: str, authority: AttestationAuthority, key: AttestKey
) -> None:
    def chain(encoded: bytes) -> list[x509.Certificate]:
        made = cbor2.loads(encoded)
        return [x509.load_der_x509_certificate(der) for der in made["attStmt"]["x5c"]]

    real = chain(real_attestation(name))
    ours = chain(make_attestation(authority, key, APP, DIGEST))
    for mine, theirs in zip(ours, real):
        assert mine.public_key().curve.name == theirs.public_key().curve.name  # type: ignore
        assert mine.signature_algorithm_oid == theirs.signature_algorithm_oid
        usage = [c.extensions.get_extension_for_class(x509.KeyUsage) for c in (mine, theirs)]
        assert usage[0] == usage[1]
    nonces = [c[0].extensions.get_extension_for_oid(NONCE_OID).value.value for c in (ours, real)]
    assert nonces[0][:6] == nonces[1][:6] and len(nonces[0]) == len(nonces[1])


@pytest.mark.parametrize("name", PHONES)
def test_the_verifier_accepts_the_attestation_of(name: str) -> None:
    public = verify_real(name, real_attestation(name))
    about = parameters(name)
    assert public.public_numbers().x == int(about["public_key_point_hex"][2:66], 16)


@pytest.mark.parametrize("name", PHONES)
def test_the_verifier_refuses_a_changed_attestation_of(name: str) -> None:
    made = cbor2.loads(real_attestation(name))
    made["authData"] = made["authData"][:-1] + bytes([made["authData"][-1] ^ 1])
    with pytest.raises(VerificationError, match="nonce"):
        verify_real(name, cbor2.dumps(made))


@pytest.mark.parametrize("name", SIGNING_PHONES)
def test_the_verifier_accepts_the_assertion_of(name: str) -> None:
    about = parameters(name)["assertions"][0]
    encoded = (DATA / name / "assertion.cbor").read_bytes()
    public = verify_real(name, real_attestation(name))
    digest = bytes.fromhex(about["client_data_hash_hex"])
    assert verify_assertion(encoded, public, parameters(name)["app_id"], digest) == about["counter"]


@pytest.mark.parametrize("name", SIGNING_PHONES)
def test_our_assertion_has_the_structure_of(name: str, key: AttestKey) -> None:
    real = cbor2.loads((DATA / name / "assertion.cbor").read_bytes())
    ours = cbor2.loads(make_assertion(key, APP, DIGEST))
    assert list(ours) == list(real)
    assert len(ours["authenticatorData"]) == len(real["authenticatorData"])
    assert ours["authenticatorData"][32] == real["authenticatorData"][32]
    # DER of two numbers below 2**256.
    assert 66 <= len(ours["signature"]) <= 72 and ours["signature"][:1] == real["signature"][:1]


def test_what_we_make_verifies(authority: AttestationAuthority, key: AttestKey) -> None:
    root = authority.root.certificate
    verify_attestation(make_attestation(authority, key, APP, DIGEST), root, APP, DIGEST, now())
    public = key.private.public_key()
    assert verify_assertion(make_assertion(key, APP, DIGEST, counter=9), public, APP, DIGEST) == 9


BENT: dict[str, tuple[dict[str, Any], str]] = {
    "format": ({"fmt": "packed"}, "fmt"),
    "aaguid": ({"aaguid": b"appattestnowhere"}, "aaguid"),
    "counter": ({"counter": 1}, "counter"),
    "rp id": ({"rp_id": "OTHER.app"}, "rp id"),
    "credential id": ({"credential_id": bytes(32)}, "credential id"),
    "nonce": ({"nonce": bytes(32)}, "nonce"),
    "age": ({"not_before": now() - 9 * DAY, "not_after": now() - 6 * DAY}, "expired"),
    "certified key": ({"leaf_key": p256()}, "credential id"),
}


@pytest.mark.parametrize("name", BENT)
def test_bending_changes_one_thing(
    name: str, authority: AttestationAuthority, key: AttestKey
) -> None:
    bend, complaint = BENT[name]
    made = make_attestation(
        authority, key, **{"rp_id": APP, "client_data_hash": DIGEST, **bend}  # type: ignore
    )
    with pytest.raises(VerificationError, match=f"^{complaint}$"):
        verify_attestation(made, authority.root.certificate, APP, DIGEST, now())


def test_a_chain_of_another_authority_does_not_verify(key: AttestKey) -> None:
    stranger, trusted = AttestationAuthority(), AttestationAuthority()
    made = make_attestation(stranger, key, APP, DIGEST)
    with pytest.raises(VerificationError, match="chain"):
        verify_attestation(made, trusted.root.certificate, APP, DIGEST, now())


def test_an_assertion_of_another_key_does_not_verify(key: AttestKey) -> None:
    made = make_assertion(key, APP, DIGEST, signing_key=p256())
    with pytest.raises(VerificationError, match="signature"):
        verify_assertion(made, key.private.public_key(), APP, DIGEST)
