"""Who must not get in: each attempt is refused, with the log line that says why."""

from __future__ import annotations

import json
import re
from collections.abc import Callable, Mapping
from typing import Any

import pytest
from velm_sim.access_point import APP_ID, AccessPoint
from velm_sim.answers import Answer
from velm_sim.app_attest import AttestationAuthority, AttestKey
from velm_sim.certificates import Identity, authority_extensions, issue, make_authority, p384
from velm_sim.cloud import Cloud
from velm_sim.daemon import wait_until
from velm_sim.etc_files import ADMIN, ROOT
from velm_sim.ipc_client import IpcClient
from velm_sim.phone import Phone, Prepared

CHAIN_REFUSED = "Invalid ca chain"
LOGIN_REFUSED = "break: 4"


def assert_refused(
    access_point: AccessPoint, phone: Phone, request: Prepared, status: int, logged: str
) -> None:
    """Answered with the status and nothing else, logged, and stored nowhere."""
    stored, mark = access_point.nvram_show(), access_point.daemon.log_mark()
    reply = phone.send(request)
    assert (reply.status, reply.body) == (status, b"")
    access_point.daemon.wait_log(logged, start=mark)
    assert access_point.nvram_show() == stored


# The attestation's chain.


def brought_along(authority: Identity) -> dict[str, Any]:
    """The leaf is signed by a CA that the attestation itself brings as its intermediate."""

    def replace_intermediate(made: dict[Any, Any]) -> dict[Any, Any]:
        leaf, _ = made["attStmt"]["x5c"]
        return {**made, "attStmt": {**made["attStmt"], "x5c": [leaf, authority.der]}}

    return {"leaf_issuer": authority, "edit": replace_intermediate}


def self_signed_like(genuine: Identity) -> Identity:
    key = p384()
    return issue(genuine.certificate.subject, key, None, extensions=authority_extensions(key))


def leaf_of_a_genuine_phone(authority: AttestationAuthority) -> Identity:
    key = AttestKey.generate()
    return authority.certify(key.private, key.key_id, None)


CHAINS: dict[str, Callable[[AttestationAuthority], dict[str, Any]]] = {
    "a self-signed intermediate": lambda _: brought_along(make_authority("My own CA", p384())),
    "a self-signed intermediate of the right name": lambda authority: brought_along(
        self_signed_like(authority.intermediate)
    ),
    "a self-signed root of the right name": lambda authority: brought_along(
        self_signed_like(authority.root)
    ),
    "another root's intermediate": lambda _: brought_along(AttestationAuthority().intermediate),
    "a leaf used as a CA": lambda authority: brought_along(leaf_of_a_genuine_phone(authority)),
    "the right intermediate which did not sign": lambda _: {
        "leaf_issuer": make_authority("My own CA", p384())
    },
}


@pytest.mark.parametrize("name", CHAINS)
def test_an_attestation_is_refused_with(
    name: str, access_point: AccessPoint, phone: Phone
) -> None:
    request = phone.prepare_pair(**CHAINS[name](phone.authority))
    assert_refused(access_point, phone, request, 412, CHAIN_REFUSED)
    assert phone.pair().status == 200


def test_a_whole_other_authority_vouches_for_nobody(
    access_point: AccessPoint, phone: Phone
) -> None:
    phone.authority = AttestationAuthority()
    assert_refused(access_point, phone, phone.prepare_pair(), 412, CHAIN_REFUSED)


# Accounts.


def test_no_password_opens_an_account_whose_field_is_none(cold_access_point: AccessPoint) -> None:
    fields = ("*", "!", "x", "*LK*", "!!", "*0", "*1", "!*", "*NP*")
    tries = [
        (f"shut{number}-{place}", field, password)  # each name once, so that none is blocked
        for number, field in enumerate(fields)
        for place, password in enumerate((field, "x", "*", "*0", "*1", "!", "\t", "password"))
    ]
    cold_access_point.etc.set_accounts([ADMIN], {name: field for name, field, _ in tries})
    cold_access_point.start()
    phone = cold_access_point.phone()
    for name, _field, password in tries:
        request = phone.prepare("/challenge", auth={"username": name, "password": password})
        assert_refused(
            cold_access_point, phone, request, 401, "velm_user_auth_passwd_login - invalid password"
        )
        assert phone.challenge().status == 200  # which also ends the row of failures


ROOT_SPELLINGS = (
    ["root", "Root", "ROOT", "rOOT", " root", "root ", "\troot", "root\n", "root\r\n", "root\x01"]
    + ["root:", "root:x", "root/", "/root", "../root", "root@localhost", "root\u200b", "ro\u00f6t"]
    + ["\uff52\uff4f\uff4f\uff54", "0", "+0", "uid=0", "#0", '"root"', "root,", "root;", "%72oot"]
)


def test_root_stays_out_by_any_spelling(access_point: AccessPoint, phone: Phone) -> None:
    for spelling in ROOT_SPELLINGS:
        auth = {"username": spelling, "password": ROOT.password}
        request = phone.prepare("/challenge", auth=auth)
        assert_refused(access_point, phone, request, 401, LOGIN_REFUSED)
        assert phone.challenge().status == 200  # which also ends the row of failures


def test_root_stays_out_by_json_escapes(access_point: AccessPoint, phone: Phone) -> None:
    request = phone.prepare("/challenge", auth={"username": "USER", "password": ROOT.password})
    escaped = request.with_body(request.body.replace(b'"USER"', rb'"\u0072\u006f\u006f\u0074"'))
    assert_refused(access_point, phone, escaped, 401, LOGIN_REFUSED)
    cut = request.with_body(request.body.replace(b'"USER"', rb'"root\u0000"'))
    assert_refused(access_point, phone, cut, 400, "cannot parse json data")


# What was right once. Counters of assertions are not kept: a challenge that serves once is what
# makes a recorded request worthless.


def test_a_recorded_location_is_worth_nothing(
    access_point: AccessPoint, paired_phone: Phone, ipc: IpcClient
) -> None:
    request = paired_phone.prepare_location()
    assert paired_phone.send(request).status == 200
    assert ipc.receive_report().valid == 1
    for _ in range(2):
        assert_refused(access_point, paired_phone, request, 424, "break: 2")
    assert ipc.is_silent(0.1)


def test_a_recorded_attestation_is_worth_nothing(access_point: AccessPoint, phone: Phone) -> None:
    request = phone.prepare_pair()
    assert phone.send(request).status == 200
    assert_refused(access_point, phone, request, 424, "failure (challenge)")
    assert phone.unpair().status == 200
    assert_refused(access_point, phone, request, 424, "failure (challenge)")


@pytest.mark.parametrize("by", ["attestation", "assertion"])
def test_a_recorded_proof_does_not_fit_a_fresh_challenge(
    by: str, access_point: AccessPoint, paired_phone: Phone
) -> None:
    recorded = paired_phone.prepare_pair(by=by)
    fresh = paired_phone.prepare_pair(by=by).with_headers(**{
        name.replace("-", "_"): value
        for name, value in recorded.headers.items()
        if name.startswith("X-A")
    })
    logged = {"attestation": "OID mismatch", "assertion": "Invalid signature"}[by]
    assert_refused(access_point, paired_phone, fresh, 412, logged)


def test_an_assertion_vouches_for_no_other_body(
    access_point: AccessPoint, paired_phone: Phone, ipc: IpcClient
) -> None:
    request = paired_phone.prepare_location({"latitude": 1.5, "longitude": 2})
    moved = request.with_body(request.body.replace(b"1.5", b"9.5"))
    assert_refused(access_point, paired_phone, moved, 412, "Invalid signature")
    # The challenge went with the attempt.
    assert_refused(access_point, paired_phone, request, 424, "break: 2")
    padded = paired_phone.prepare_location()
    padded = padded.with_body(padded.body + b" ")
    assert_refused(access_point, paired_phone, padded, 412, "Invalid signature")
    assert ipc.is_silent(0.1)


def test_one_phone_cannot_speak_for_another(
    access_point: AccessPoint, pair_phones: Callable[[int], list[Phone]]
) -> None:
    one, other = pair_phones(2)
    request = one.prepare_location(auth={"deviceId": other.profile.device_id})
    assert_refused(access_point, one, request, 412, "Invalid signature")


# The cloud.

CLOUD_CERTIFICATES = {
    "other_ca": "unable to get local issuer certificate",
    "self_signed": "verify cert error: self",  # "self-signed" or "self signed", by library version
    "expired": "certificate has expired",
    "not_yet_valid": "certificate is not yet valid",
    "other_name": "MatchNotFound",
    "embedded_nul": "MalformedCertificate",
}


@pytest.mark.parametrize("certificate", CLOUD_CERTIFICATES)
def test_no_secret_goes_to_a_cloud_whose_certificate_is(
    certificate: str, access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    cloud.certificate = certificate
    ipc.request()
    log = access_point.daemon.wait_log("http request failed")
    refusal = [line for line in log.splitlines() if "HTTPS NOK" in line]
    assert any(CLOUD_CERTIFICATES[certificate] in line for line in refusal), refusal
    assert cloud.connections == 1
    assert not cloud.token.requests
    assert not cloud.fcm.requests
    assert paired_phone.location().status == 200
    assert ipc.receive_report().valid == 1


# Texts that a phone stores or that are logged.

STORED = ("friendlyName", "pushToken", "deviceModel", "osVersion")
FORGED_SETTING = "x\nzelkad_http_server_port=1\n\n zelkad_http_server_port = 1"


def test_no_stored_text_becomes_a_setting(access_point: AccessPoint, phone: Phone) -> None:
    pair = dict.fromkeys(STORED, FORGED_SETTING)
    auth = {"deviceId": FORGED_SETTING, "deviceType": "iOS\nzelkad_http_server_port=1"}
    assert phone.pair(pair=pair, auth=auth).status == 200
    assert access_point.nvram_get("zelkad_http_server_port") is None
    stored = access_point.pairing(0)
    for member in ("dev_id", "name", "push_token", "dev_model", "os_version"):
        assert stored[member] == FORGED_SETTING, member
    assert stored["dev_type"] == auth["deviceType"]
    access_point.reload()
    assert phone.info().status == 200
    listed = phone.pairings().json()["pairings"]
    assert [one["deviceId"] for one in listed] == [FORGED_SETTING]
    assert phone.unpair(FORGED_SETTING).status == 200
    assert access_point.pairing(0)["status"] != "Valid"


@pytest.mark.parametrize("member", ["status", "dev_id", "attestation_key", "date_added"])
def test_no_text_overwrites_another_member_of_its_pairing(
    member: str, access_point: AccessPoint, phone: Phone
) -> None:
    forged = f"x\nzelkad_pairing_0_{member}=forged\nzelkad_pairing_1_status=Valid"
    assert phone.pair(pair={"friendlyName": forged[:1024]}).status == 200
    assert access_point.pairing(0)[member] != "forged"
    assert access_point.pairing(1)["status"] != "Valid"
    assert phone.location().status == 200


FORGERY = "x\n2026-01-01 00:00:00.000 ERROR forged - \x1b[2J\x07\x7f\u0085\u009b31m\r\v\f%s%n%p"
LOG_LINE = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (TRACE|DEBUG| INFO| WARN|ERROR) \w")


def logged_members() -> dict[str, Callable[[Phone], Prepared]]:
    def auth(**changes: Any) -> Callable[[Phone], Prepared]:
        return lambda phone: phone.prepare_location(auth=changes)

    def pair(**changes: Any) -> Callable[[Phone], Prepared]:
        return lambda phone: phone.prepare_pair(pair=changes)

    made = {
        name: auth(**{name: FORGERY})
        for name in ("deviceId", "bssid", "username", "password", "challenge")
    }
    made["deviceType"] = auth(deviceType="iOS" + FORGERY)
    # A number of letters is all that the two short ones hold.
    made |= {name: pair(**{name: FORGERY}) for name in ("friendlyName", "pushToken")}
    made |= {name: pair(**{name: FORGERY[:64]}) for name in ("deviceModel", "osVersion")}
    made["a body that is no JSON"] = lambda phone: phone.prepare("/pair").with_body(
        FORGERY.encode()
    )
    made["an unknown member's name"] = lambda phone: phone.prepare("/pairings", {FORGERY: 1})
    made["the phone to remove"] = lambda phone: phone.prepare(
        "/unpair", {"unpair": {"deviceId": FORGERY}}
    )
    made["a location's time"] = lambda phone: phone.prepare_location({"timestamp": FORGERY})
    return made


def test_no_log_line_is_forged_through_any_member(
    access_point: AccessPoint, paired_phone: Phone
) -> None:
    for name, make in logged_members().items():
        mark = access_point.daemon.log_mark()
        paired_phone.send(make(paired_phone))
        assert_log_is_clean(access_point, mark, name)
        assert paired_phone.challenge().status == 200  # which ends the row of failed logins


@pytest.mark.parametrize("header", ["User-Agent", "X-Assertion", "X-Attestation", "X-Any"])
def test_no_log_line_is_forged_through_the_header(
    header: str, access_point: AccessPoint, paired_phone: Phone
) -> None:
    mark = access_point.daemon.log_mark()
    body = paired_phone.prepare_location().body
    forgery = FORGERY.replace("\n", "\r\n 2026").encode()  # a folded line
    head = f"POST /location HTTP/1.1\r\nContent-Length: {len(body)}\r\nConnection: close\r\n{header}: "
    paired_phone.host.exchange(head.encode() + forgery + b"\r\n\r\n" + body)
    assert_log_is_clean(access_point, mark)


def test_no_log_line_is_forged_through_the_path(access_point: AccessPoint) -> None:
    mark = access_point.daemon.log_mark()
    for path in (b"/info\x1b[2J", b"/info%0aforged", b"/info?\x1b[2J=%0a", b"/\xc2\x9b31m"):
        access_point.lan_host().exchange(b"GET " + path + b" HTTP/1.1\r\nConnection: close\r\n\r\n")
    assert_log_is_clean(access_point, mark)


FORGED_ANSWERS: dict[str, tuple[str, Answer]] = {
    "a refusal of an access token": ("token", Answer(400, FORGERY.encode())),
    "no JSON for an access token": ("token", Answer(body=FORGERY.encode())),
    "an access token": ("token", Answer.json({"access_token": FORGERY, "expires_in": 60})),
    "an access token's type": (
        "token",
        Answer.json({"access_token": "t", "token_type": FORGERY, "expires_in": 60}),
    ),
    "a refusal of a push": ("fcm", Answer(500, FORGERY.encode())),
    "an answer to a push": ("fcm", Answer(body=FORGERY.encode())),
    "the end of a push's answer": ("fcm", Answer(400, b"{}\x1b[2J\n2026 ERROR forged - x\n")),
    "a status line": ("fcm", Answer(raw=b"HTTP/1.1 400 \x1b[2J\x07\r\nX: \x1b[2J\r\n\r\n")),
}


@pytest.mark.parametrize("name", FORGED_ANSWERS)
def test_no_log_line_is_forged_by_the_cloud_in(
    name: str, access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    mark = access_point.daemon.log_mark()
    service, answer = FORGED_ANSWERS[name]
    endpoint = cloud.token if service == "token" else cloud.fcm
    endpoint.answer_next(answer)
    ipc.request()
    endpoint.wait()
    if name == "an access token's type":
        cloud.fcm.wait()
    taken = "send_push_handler" if service == "fcm" else "token_from_answer"
    access_point.daemon.wait_log(taken, start=mark)
    wait_until(lambda: not cloud.open_connections, 5, "the answer is not taken")
    assert_log_is_clean(access_point, mark)
    assert access_point.pairing(0)["status"] == "Valid"


def test_no_header_is_forged_by_an_access_token(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    """It comes from the cloud and goes into a header of the next request."""
    forged = {"access_token": "t\r\nX-Forged: yes", "expires_in": 60}
    cloud.token.answer_next(Answer.json(forged))
    ipc.request()
    access_point.daemon.wait_log("invalid header Authorization")
    assert not cloud.fcm.requests


FORGED_VERDICTS: dict[str, dict[str, Any]] = {
    "the package": {"requestDetails.requestPackageName": FORGERY},
    "the nonce": {"requestDetails.nonce": FORGERY},
    "the time": {"requestDetails.timestampMillis": FORGERY},
    "the app's verdict": {"appIntegrity.appRecognitionVerdict": FORGERY},
    "the device's verdict": {"deviceIntegrity.deviceRecognitionVerdict": [FORGERY]},
    "the verdict on other apps": {"environmentDetails.playProtectVerdict": FORGERY},
}


@pytest.mark.parametrize("method", ["local", "remote"])
def test_no_log_line_is_forged_by_a_verdict_that_is(
    method: str, cold_access_point: AccessPoint
) -> None:
    cold_access_point.configure({"app.android.integrity.method": method})
    cold_access_point.start()
    phone = cold_access_point.android_phone()
    assert phone.pair().status == 200
    for name, verdict in FORGED_VERDICTS.items():
        mark = cold_access_point.daemon.log_mark()
        assert phone.location(verdict=verdict).status == 412, name
        assert_log_is_clean(cold_access_point, mark, name)


def assert_log_is_clean(access_point: AccessPoint, mark: int, name: str = "") -> None:
    """Every line begins as a line does, and nothing in it can steer a terminal."""
    raw = access_point.daemon.log_file.read_bytes()[mark:]
    assert raw.endswith(b"\n")
    for line in raw.decode().removesuffix("\n").split("\n"):
        assert LOG_LINE.match(line), (name, line)
        clean = line.isprintable() or not re.search(r"[\x00-\x1f\x7f-\x9f]", line)
        assert clean, (name, ascii(line))


HOSTILE_TEXTS: Mapping[str, str] = {
    "a header": "x\r\nX-Forged: yes\r\n\r\n{}",
    "the end of a text": '"}, "forged": {"a": "b',
    "backslashes": "\\\",\\\\\\u0022",
    "control characters": "".join(map(chr, range(1, 32))) + "\x7f",
    "a format": "%s%n%1000000d",
    "a script": "</script><script>alert(1)</script>",
    "other planes": "\U0001f4f1\u2028\u202e\ufeff",
}


@pytest.mark.parametrize("name", HOSTILE_TEXTS)
def test_a_name_and_a_token_stay_texts_with(
    name: str, access_point: AccessPoint, cloud: Cloud, phone: Phone, ipc: IpcClient
) -> None:
    text = HOSTILE_TEXTS[name]
    assert phone.pair(pair={"friendlyName": text, "pushToken": text}).status == 200
    (listed,) = phone.pairings().json()["pairings"]
    assert listed["friendlyName"] == text
    ipc.request()
    (push,) = cloud.fcm.wait()
    assert json.loads(push.body)["message"]["token"] == text
    assert set(json.loads(push.body)) == {"message"}
    assert "x-forged" not in push.headers
    assert push.headers["authorization"].startswith("Bearer ")
    assert APP_ID not in push.path
