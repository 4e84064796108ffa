"""An Android phone proves itself to the access point, which opens its tokens with its own keys."""

from __future__ import annotations

import base64
import json
from collections.abc import Callable
from typing import Any

import pytest
from cryptography.hazmat.primitives import serialization
from velm_sim.access_point import BSSIDS, SERIAL_NUMBER, AccessPoint
from velm_sim.android_phone import AndroidPhone, android_profile
from velm_sim.cloud import Cloud
from velm_sim.daemon import wait_until
from velm_sim.ipc_client import STATUS_NO_PAIRED_DEVICES, IpcClient
from velm_sim.phone import OMIT, Prepared, sample_location
from velm_sim.play_integrity import (
    ENCRYPTION,
    LABELS,
    IntegrityKeys,
    base64url,
    encrypt,
    sign,
    sign_by_secret,
    unsigned,
)

LOCAL = {"app.android.integrity.method": "local"}
WORKER = "android_verify_assertion_locally - "


@pytest.fixture
def access_point(cold_access_point: AccessPoint) -> AccessPoint:
    """An access point that judges Android phones by itself."""
    cold_access_point.configure(LOCAL)
    cold_access_point.start()
    return cold_access_point


@pytest.fixture
def phone(access_point: AccessPoint) -> AndroidPhone:
    return access_point.android_phone()


@pytest.fixture
def paired_phone(phone: AndroidPhone) -> AndroidPhone:
    assert phone.pair().status == 200
    return phone


def refused(access_point: AccessPoint, phone: AndroidPhone, request: Prepared) -> str:
    """What is logged of a request that is answered with 412 and changes nothing."""
    stored, mark = access_point.nvram_show(), access_point.daemon.log_mark()
    reply = phone.send(request)
    assert (reply.status, reply.body) == (412, b"")
    assert access_point.nvram_show() == stored
    return access_point.log(mark)


# The good path.


@pytest.mark.each_machine
@pytest.mark.parametrize("hashed", [False, True], ids=["nonce", "request hash"])
def test_a_request_ends_in_the_report_of_an_android_phone(
    hashed: bool, cloud: Cloud, phone: AndroidPhone, ipc: IpcClient
) -> None:
    phone.hashed = hashed
    assert phone.pair().status == 200
    ipc.request(wanted_within=45)
    (push,) = cloud.fcm.wait()
    assert push.json()["message"]["token"] == phone.profile.push_token
    location = sample_location()
    assert phone.location(location).status == 200
    assert ipc.receive_report() == phone.expected_report(location)
    assert not cloud.integrity.requests


def test_the_push_for_an_android_phone_carries_its_data(
    cloud: Cloud, paired_phone: AndroidPhone, ipc: IpcClient
) -> None:
    ipc.request(wanted_within=45)
    (push,) = cloud.fcm.wait()
    data = push.json()["message"]["android"]["data"]
    assert data["serialNumber"] == SERIAL_NUMBER
    assert data["location"] == f"{paired_phone.host.server}:{paired_phone.host.port}"
    assert data["timeout"] == "45"
    assert json.loads(data["bssids"]) == list(BSSIDS)


def test_an_android_pairing_is_stored_without_a_key(
    access_point: AccessPoint, paired_phone: AndroidPhone
) -> None:
    stored, profile = access_point.pairing(0), paired_phone.profile
    assert stored["status"] == "Valid" and stored["attestation_key"] == ""
    assert (stored["dev_id"], stored["dev_type"]) == (profile.device_id, "Android")
    assert (stored["dev_model"], stored["os_version"]) == (profile.model, profile.os_version)


def test_pairing_again_keeps_slot_and_date(
    access_point: AccessPoint, paired_phone: AndroidPhone
) -> None:
    before = access_point.pairing(0)
    assert paired_phone.pair(pair={"friendlyName": "Renamed"}).status == 200
    assert access_point.pairing(0) == {**before, "name": "Renamed"}


def test_phones_of_both_kinds_are_heard(
    access_point: AccessPoint, cloud: Cloud, paired_phone: AndroidPhone, ipc: IpcClient
) -> None:
    other = access_point.phone(1)
    assert other.pair().status == 200
    ipc.request()
    assert len(cloud.fcm.wait(2)) == 2
    for one in (other, paired_phone):
        location = sample_location(rssi=-40 if one is other else -50)
        assert one.location(location).status == 200
        assert ipc.receive_report() == one.expected_report(location)


def test_a_location_cannot_be_repeated(paired_phone: AndroidPhone) -> None:
    request = paired_phone.prepare_location()
    assert [paired_phone.send(request).status for _ in range(2)] == [200, 424]


def test_an_unpaired_android_phone_is_no_longer_heard(
    paired_phone: AndroidPhone, ipc: IpcClient
) -> None:
    assert paired_phone.unpair().status == 200
    assert paired_phone.location().status == 404
    ipc.request()
    assert ipc.receive(timeout=1).status == STATUS_NO_PAIRED_DEVICES


def test_labels_may_come_in_any_order_and_with_others(paired_phone: AndroidPhone) -> None:
    labels = ["MEETS_VIRTUAL_INTEGRITY", *reversed(LABELS)]
    changes = {"deviceIntegrity.deviceRecognitionVerdict": labels}
    assert paired_phone.location(verdict=changes).status == 200


@pytest.mark.parametrize("path", ["environmentDetails", "environmentDetails.playProtectVerdict"])
def test_passes_without(path: str, paired_phone: AndroidPhone) -> None:
    assert paired_phone.location(verdict={path: OMIT}).status == 200


# The rules of the verdict.

NONCE = "requestDetails.nonce"
PACKAGE = "requestDetails.requestPackageName"
TIME = "requestDetails.timestampMillis"
APP = "appIntegrity.appRecognitionVerdict"
DEVICE = "deviceIntegrity.deviceRecognitionVerdict"
PROTECT = "environmentDetails.playProtectVerdict"
DEVICE_IS = "deviceRecognitionVerdict is: "

RULES: dict[str, tuple[dict[str, Any], str]] = {
    "no request details": ({"requestDetails": OMIT}, "no requestDetails"),
    "no app integrity": ({"appIntegrity": OMIT}, "no appIntegrity"),
    "no device integrity": ({"deviceIntegrity": OMIT}, "no deviceIntegrity"),
    "no package name": ({PACKAGE: OMIT}, "no requestPackageName"),
    "empty package name": ({PACKAGE: ""}, "no requestPackageName"),
    "another package": (
        {PACKAGE: "com.norvale.xyz"},
        "invalid requestPackageName ('com.norvale.xyz' vs 'com.norvale.afc')",
    ),
    "prefix of the package": (
        {PACKAGE: "com.norvale.af"},
        "invalid requestPackageName ('com.norvale.af' vs 'com.norvale.afc')",
    ),
    "no nonce": ({NONCE: OMIT}, "no nonce"),
    "empty nonce": ({NONCE: ""}, "no nonce"),
    "nonce that is no base64url": ({NONCE: "!" * 43}, "cannot decode nonce"),
    "short nonce": ({NONCE: base64url(bytes(31))}, "invalid nonce (len)"),
    "nonce of another request": ({NONCE: base64url(bytes(32))}, "invalid nonce (cmp)"),
    "no timestamp": ({TIME: OMIT}, "no timestampMillis"),
    "timestamp that is no number": ({TIME: "12x"}, "invalid timestamp"),
    "negative timestamp": ({TIME: "-1"}, "invalid timestamp"),
    "ancient timestamp": ({TIME: "1000"}, "token expired"),
    "no app verdict": ({APP: OMIT}, "no appRecognitionVerdict"),
    "changed app": (
        {APP: "UNRECOGNIZED_VERSION"},
        "appRecognitionVerdict is: UNRECOGNIZED_VERSION",
    ),
    "no device verdict": ({DEVICE: OMIT}, "no deviceRecognitionVerdict"),
    "empty device verdict": ({DEVICE: []}, "no deviceRecognitionVerdict"),
    "device verdict that is a text": ({DEVICE: LABELS[2]}, "invalid deviceRecognitionVerdict"),
    "device without strong integrity": (
        {DEVICE: list(LABELS[:2])},
        DEVICE_IS + "basic=true device=true strong=false",
    ),
    "device with strong integrity only": (
        {DEVICE: [LABELS[2]]},
        DEVICE_IS + "basic=false device=false strong=true",
    ),
    "harmful apps": ({PROTECT: "HIGH_RISK"}, "playProtectVerdict is: HIGH_RISK"),
}


@pytest.mark.parametrize("name", RULES)
def test_a_verdict_is_refused_with(
    name: str, access_point: AccessPoint, paired_phone: AndroidPhone, ipc: IpcClient
) -> None:
    changes, line = RULES[name]
    request = paired_phone.prepare_location(verdict=changes)
    assert f"android_interpret_verdict - {line}\n" in refused(access_point, paired_phone, request)
    assert ipc.is_silent(0.05)


def test_a_phone_with_a_bad_verdict_does_not_pair(
    access_point: AccessPoint, phone: AndroidPhone
) -> None:
    request = phone.prepare_pair(verdict={DEVICE: list(LABELS[:2])})
    assert "strong=false" in refused(access_point, phone, request)
    assert access_point.pairing(0)["status"] != "Valid"


@pytest.mark.each_machine
@pytest.mark.parametrize(
    ("hashed", "age", "accepted"),
    [(False, 50, True), (False, 65, False), (True, 3590, True), (True, 3605, False)],
)
def test_the_age_of_a_token(
    hashed: bool, age: int, accepted: bool, access_point: AccessPoint, paired_phone: AndroidPhone
) -> None:
    request = paired_phone.prepare_location(hashed=hashed, age=age)
    if accepted:
        assert paired_phone.send(request).status == 200
    else:
        assert "token expired" in refused(access_point, paired_phone, request)


@pytest.mark.each_machine
def test_a_body_changed_after_the_token_was_made_is_refused(
    access_point: AccessPoint, paired_phone: AndroidPhone
) -> None:
    request = paired_phone.prepare_location()
    changed = request.with_body(request.body.replace(b"52.5", b"52.6"))
    assert changed.body != request.body
    assert "invalid nonce (cmp)" in refused(access_point, paired_phone, changed)


def test_a_phone_that_only_says_it_is_an_iphone_is_refused(
    access_point: AccessPoint, paired_phone: AndroidPhone
) -> None:
    request = paired_phone.prepare_location(auth={"deviceType": "iOS"})
    assert "no assertion key" in refused(access_point, paired_phone, request)


@pytest.mark.parametrize("enabled", ["yes", "no"])
@pytest.mark.parametrize("method", ["local", "remote"])
def test_an_iphones_pairing_is_proved_by_no_android_token(
    method: str, enabled: str, cold_access_point: AccessPoint
) -> None:
    """Not even by a genuine one: the phone that names the id is another phone."""
    cold_access_point.configure(
        {"app.android.integrity.method": method, "app.android.integrity.enabled": enabled}
    )
    cold_access_point.start()
    iphone = cold_access_point.phone()
    assert iphone.pair().status == 200
    before = cold_access_point.nvram_show()
    android = cold_access_point.android_phone(
        1, android_profile(device_id=iphone.profile.device_id)
    )
    for sent in (android.location, android.pair):
        mark = cold_access_point.daemon.log_mark()
        assert sent().status == 412
        assert "the pairing is of App Attest, the device type is another" in cold_access_point.log(mark)
    junk = android.prepare_location().with_headers(X_Assertion="YWJj")
    assert android.send(junk).status == 412
    assert cold_access_point.nvram_show() == before
    assert iphone.location().status == 200


def test_with_integrity_switched_off_a_failure_is_only_logged(
    cold_access_point: AccessPoint,
) -> None:
    cold_access_point.configure({**LOCAL, "app.android.integrity.enabled": "no"})
    cold_access_point.start()
    phone = cold_access_point.android_phone()
    assert phone.pair(token=b"no token").status == 200
    assert "IGNORING FAILED ASSERTION!" in cold_access_point.log()


# Tokens that nobody may make.

Tamper = Callable[[AndroidPhone, bytes], bytes]


def flip(part: int) -> Tamper:
    """One bit in the middle of a part of the token."""

    def tamper(phone: AndroidPhone, digest: bytes) -> bytes:
        parts = phone.token(digest).split(b".")
        data = bytearray(base64.urlsafe_b64decode(parts[part] + b"=="))
        data[len(data) // 2] ^= 1
        parts[part] = base64url(bytes(data)).encode()
        return b".".join(parts)

    return tamper


def reworked(work: Callable[[list[bytes]], list[bytes]]) -> Tamper:
    return lambda phone, digest: b".".join(work(phone.token(digest).split(b".")))


def signed_by(step: Callable[[bytes, IntegrityKeys], bytes]) -> Tamper:
    return lambda phone, digest: phone.token(digest, sign=step)


def encrypted_by(step: Callable[[bytes, IntegrityKeys], bytes]) -> Tamper:
    return lambda phone, digest: phone.token(digest, encrypt=step)


def flip_signed(part: int) -> Callable[[bytes, IntegrityKeys], bytes]:
    def step(payload: bytes, keys: IntegrityKeys) -> bytes:
        parts = sign(payload, keys).split(b".")
        data = bytearray(base64.urlsafe_b64decode(parts[part] + b"=="))
        data[len(data) // 2] ^= 1
        parts[part] = base64url(bytes(data)).encode()
        return b".".join(parts)

    return step


def public_key_as(form: str) -> Callable[[bytes, IntegrityKeys], bytes]:
    """Signs by HS256 with the verification key, which is no secret, as the secret."""

    def step(payload: bytes, keys: IntegrityKeys) -> bytes:
        public: Any = serialization.load_pem_public_key(keys.signing.export_to_pem())
        encoding, layout = {
            "PEM": (serialization.Encoding.PEM, serialization.PublicFormat.SubjectPublicKeyInfo),
            "DER": (serialization.Encoding.DER, serialization.PublicFormat.SubjectPublicKeyInfo),
            "point": (
                serialization.Encoding.X962,
                serialization.PublicFormat.UncompressedPoint,
            ),
        }[form]
        return sign_by_secret(payload, public.public_bytes(encoding, layout))

    return step


def with_key_part(length: int) -> Tamper:
    return reworked(lambda parts: [parts[0], base64url(bytes(length)).encode(), *parts[2:]])


TAMPERED: dict[str, tuple[Tamper, str]] = {
    "header": (flip(0), "cjose_jwe_import failed"),
    "encrypted key": (flip(1), "cjose_jwe_decrypt failed"),
    "IV": (flip(2), "cjose_jwe_decrypt failed"),
    "ciphertext": (flip(3), "cjose_jwe_decrypt failed"),
    "tag": (flip(4), "cjose_jwe_decrypt failed"),
    "signed header": (signed_by(flip_signed(0)), "cjose_jws_import failed"),
    "payload": (signed_by(flip_signed(1)), "cjose_jws_verify failed"),
    "signature": (signed_by(flip_signed(2)), "cjose_jws_verify failed"),
    "alg none": (
        signed_by(lambda payload, keys: unsigned(payload, {"alg": "none"})),
        "unsupported token signature",
    ),
    "alg none with a signature": (
        signed_by(lambda payload, keys: unsigned(payload, {"alg": "none"}, base64url(bytes(64)))),
        "unsupported token signature",
    ),
    "HS256 by the public key in PEM": (
        signed_by(public_key_as("PEM")),
        "unsupported token signature",
    ),
    "HS256 by the public key in DER": (
        signed_by(public_key_as("DER")),
        "unsupported token signature",
    ),
    "HS256 by the public key's point": (
        signed_by(public_key_as("point")),
        "unsupported token signature",
    ),
    "HS256 by the key file": (
        signed_by(
            lambda payload, keys: sign_by_secret(payload, keys.verification_file().encode())
        ),
        "unsupported token signature",
    ),
    "signature of another key": (
        signed_by(lambda payload, keys: sign(payload, IntegrityKeys())),
        "cjose_jws_verify failed",
    ),
    "signature of zeros": (
        signed_by(lambda payload, keys: unsigned(payload, {"alg": "ES256"}, base64url(bytes(64)))),
        "cjose_jws_verify failed",
    ),
    "token for another key": (
        lambda phone, digest: phone.token(digest, keys=IntegrityKeys()),
        "cjose_jwe_decrypt failed",
    ),
    "compression": (
        encrypted_by(lambda content, keys: encrypt(content, keys, {**ENCRYPTION, "zip": "DEF"})),
        "unsupported token encryption",
    ),
    "direct encryption": (
        encrypted_by(
            lambda content, keys: encrypt(content, keys, {"alg": "dir", "enc": "A256GCM"})
        ),
        "unsupported token encryption",
    ),
    "another cipher": (
        encrypted_by(
            lambda content, keys: encrypt(content, keys, {**ENCRYPTION, "enc": "A128CBC-HS256"})
        ),
        "unsupported token encryption",
    ),
    "no encryption": (encrypted_by(lambda content, keys: content), "cjose_jwe_import failed"),
    "no signature": (signed_by(lambda payload, keys: payload), "cjose_jws_import failed"),
    "three parts": (reworked(lambda parts: parts[:3]), "cjose_jwe_import failed"),
    "four parts": (reworked(lambda parts: parts[:4]), "cjose_jwe_import failed"),
    "six parts": (reworked(lambda parts: [*parts, b"AA"]), "cjose_jwe_import failed"),
    "five signed parts": (
        signed_by(lambda payload, keys: sign(payload, keys) + b".AA.AA"),
        "cjose_jws_import failed",
    ),
    "five empty parts": (lambda phone, digest: b"....", "cjose_jwe_import failed"),
    "empty header": (reworked(lambda parts: [b"", *parts[1:]]), "cjose_jwe_import failed"),
    "empty key": (with_key_part(0), "invalid token parts"),
    "empty IV": (reworked(lambda parts: [*parts[:2], b"", *parts[3:]]), "cjose_jwe_import failed"),
    "empty ciphertext": (
        reworked(lambda parts: [*parts[:3], b"", parts[4]]),
        "invalid token parts",
    ),
    "empty tag": (reworked(lambda parts: [*parts[:4], b""]), "cjose_jwe_import failed"),
    "empty signed parts": (signed_by(lambda payload, keys: b".."), "cjose_jws_import failed"),
    "key of 39 bytes": (with_key_part(39), "invalid token parts"),
    "key of 4000 bytes": (with_key_part(4000), "invalid token parts"),
    "short tag": (
        reworked(lambda parts: [*parts[:4], base64url(bytes(4)).encode()]),
        "invalid token parts",
    ),
    "padding": (reworked(lambda parts: [*parts[:4], parts[4] + b"=="]), "invalid token parts"),
    "a NUL at its end": (
        lambda phone, digest: phone.token(digest) + b"\0",
        "cjose_jwe_import failed",
    ),
    "a newline at its end": (
        lambda phone, digest: phone.token(digest) + b"\n",
        "cjose_jwe_import failed",
    ),
    "no text": (lambda phone, digest: bytes(range(128, 256)), "cjose_jwe_import failed"),
    "the largest size": (lambda phone, digest: b"A" * 12288, "cjose_jwe_import failed"),
    "a large payload": (
        lambda phone, digest: phone.token(digest, verdict=b'{"a": "' + b"x" * 5000 + b'"}'),
        "no requestDetails",
    ),
    "payload that is no JSON": (
        lambda phone, digest: phone.token(digest, verdict=b"no JSON"),
        "cannot parse integrity verdict",
    ),
    "payload that is nested too deep": (
        lambda phone, digest: phone.token(digest, verdict=b"[" * 3000),
        "cannot parse integrity verdict",
    ),
    "payload that is a list": (
        lambda phone, digest: phone.token(digest, verdict=b"[]"),
        "no requestDetails",
    ),
}


@pytest.mark.parametrize("name", TAMPERED)
def test_a_token_is_refused_with(
    name: str, access_point: AccessPoint, paired_phone: AndroidPhone
) -> None:
    tamper, line = TAMPERED[name]
    request = tampered_location(paired_phone, tamper)
    log = refused(access_point, paired_phone, request)
    assert line in log
    assert f"{WORKER}finished" in log
    assert paired_phone.location().status == 200


def tampered_location(phone: AndroidPhone, tamper: Tamper) -> Prepared:
    class Bent(AndroidPhone):
        def token(self, digest: bytes, **bend: Any) -> bytes:
            return tamper(phone, digest)

    bent = Bent(**vars(phone))
    return bent.prepare_location()


def test_a_token_beyond_the_header_is_refused_before_anybody_looks_at_it(
    access_point: AccessPoint, paired_phone: AndroidPhone
) -> None:
    mark = access_point.daemon.log_mark()
    assert paired_phone.location(token=b"A" * 12291).status == 400
    assert WORKER not in access_point.log(mark)


@pytest.mark.not_emulated("the emulator's memory is measured as well")
def test_hostile_tokens_leave_no_memory_behind(
    access_point: AccessPoint, paired_phone: AndroidPhone
) -> None:
    def storm() -> None:
        for tamper, _ in TAMPERED.values():
            request = tampered_location(paired_phone, tamper)
            assert paired_phone.send(request).status == 412

    daemon = access_point.daemon
    for _ in range(2):
        storm()
    descriptors, before = daemon.descriptors(), daemon.resident_kib()
    for _ in range(6):
        storm()
    assert daemon.resident_kib() - before < access_point.build.memory_limit_kib(1024)
    # The daemon closes a connection a moment after its last reply has arrived.
    wait_until(lambda: daemon.descriptors() <= descriptors, 5, "descriptors stay open")
    assert paired_phone.location().status == 200


# Keys.


def test_without_a_key_file_every_android_phone_is_refused(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({**LOCAL, "app.android.integrity.d.key.path": "/nonexistent"})
    cold_access_point.start()
    phone = cold_access_point.android_phone()
    log = refused(cold_access_point, phone, phone.prepare_pair())
    assert f"{WORKER}no decryption key" in log


def test_a_reload_takes_new_keys(access_point: AccessPoint, paired_phone: AndroidPhone) -> None:
    keys = IntegrityKeys()
    directory = access_point.directory
    (directory / "integrity_decryption.jwk").write_text(keys.decryption_file())
    (directory / "integrity_verification.jwk").write_text(keys.verification_file())
    assert paired_phone.location(keys=keys).status == 412
    access_point.reload()
    assert paired_phone.location().status == 412
    assert paired_phone.location(keys=keys).status == 200


def test_a_reload_changes_the_method(
    access_point: AccessPoint, cloud: Cloud, paired_phone: AndroidPhone
) -> None:
    access_point.configure({"app.android.integrity.method": "Remote"})
    access_point.reload()
    assert paired_phone.location().status == 200
    assert len(cloud.integrity.requests) == 1
