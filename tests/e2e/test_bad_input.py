"""Bad input of every kind gets its status, an empty body and a log line, and is stored nowhere."""

from __future__ import annotations

import dataclasses
import json
from collections.abc import Callable, Iterator

import pytest
from velm_harness.phone_api import LOGIN_PATHS
from velm_sim.access_point import AccessPoint
from velm_sim.certificates import DAY, make_authority, now, p256, p384
from velm_sim.daemon import wait_until
from velm_sim.etc_files import ROOT
from velm_sim.ipc_client import HEADER, REPORT, REQUEST, IpcClient
from velm_sim.lan_http import read_until_closed
from velm_sim.phone import OMIT, Phone, Prepared

SIGNED_REQUESTS = ("/pair by attestation", "/pair by assertion", "/location")
# What the machine of the checks says of a request that is refused with this status.
BROKEN = {400: "break: 1", 424: "break: 2", 412: "break: 3", 401: "break: 4", 404: "break: 5"}

Make = Callable[[Phone], Prepared]


@dataclasses.dataclass(frozen=True)
class Bad:
    """A request, the status that it gets and what the log says of it."""

    make: Make
    status: int
    logged: str


def prepare(phone: Phone, path: str, **changes: object) -> Prepared:
    """A request that would be right but for the changes."""
    if path == "/pair by attestation":
        return phone.prepare_pair(**changes)
    if path == "/pair by assertion":
        return phone.prepare_pair(by="assertion", **changes)
    if path == "/location":
        return phone.prepare_location(**changes)
    return phone.prepare_login(path, **changes)  # type: ignore[arg-type]


# Refused before any route looks at it.
EARLY = ("unknown path", "attestation or assertion too long")


def shown_id(body: bytes, logged: str) -> str:
    """How the line of a refusal shows whose request it was."""
    if logged == "cannot parse json data":
        return "-"
    try:
        device_id = json.loads(body)["auth"]["deviceId"]
    except (ValueError, KeyError, TypeError, RecursionError):
        return "-"
    return device_id[:72] if isinstance(device_id, str) and device_id else "-"


def refusal_lines(
    access_point: AccessPoint, phone: Phone, device_id: str, mark: int
) -> int:
    """How many lines tell which check refused the request, for which address and device id."""
    end = f", ip: {phone.host.source}, device id: {device_id}"
    lines = access_point.log(mark).splitlines()
    told = [line for line in lines if " WARN velm_http_server - request_refused - " in line]
    return len(told) if all(line.endswith(end) for line in told) else -1


def outcome(access_point: AccessPoint, phone: Phone, bad: Bad) -> str:
    """Empty when all is as it should be."""
    stored, mark = access_point.nvram_show(), access_point.daemon.log_mark()
    request = bad.make(phone)
    reply = phone.send(request)
    found = []
    if (reply.status, reply.body) != (bad.status, b""):
        found.append(f"answered {reply.status} {reply.body!r} instead of {bad.status}")
    if bad.logged not in access_point.log(mark):
        found.append(f"{bad.logged!r} is not logged")
    device_id = shown_id(request.body, bad.logged)
    if bad.logged not in EARLY and refusal_lines(access_point, phone, device_id, mark) != 1:
        found.append("there is no one line that says which check refused whom")
    if access_point.nvram_show() != stored:
        found.append("nvram has changed")
    return ", ".join(found)


def outcomes(access_point: AccessPoint, phone: Phone, cases: dict[str, Bad]) -> dict[str, str]:
    """What is wrong, by the name of the case."""
    found = {name: outcome(access_point, phone, bad) for name, bad in cases.items()}
    return {name: text for name, text in found.items() if text}


@pytest.fixture
def silent_client(access_point: AccessPoint) -> Iterator[None]:
    """No local client hears anything of bad input."""
    with IpcClient(access_point.socket_path) as client:
        yield
        assert client.is_silent(0.05)


BODIES: dict[str, tuple[bytes | None, str]] = {
    "absent": (None, "no data"),
    "empty": (b"", "no data"),
    "no JSON": (b"hello", "cannot parse json data"),
    "a lone zero byte": (b"\0", "cannot parse json data"),
    "cut": (b'{"auth": {"deviceId": "x"', "cannot parse json data"),
    "binary": (bytes(range(256)), "cannot parse json data"),
    "invalid UTF-8": (b'{"auth": {"deviceId": "\xff\xfe"}}', "cannot parse json data"),
    "a NUL in a string": (b'{"auth": {"deviceId": "a\\u0000b"}}', "cannot parse json data"),
    "a number": (b"17", "no auth data"),
    "null": (b"null", "no auth data"),
    "a list": (b'[{"auth": {}}]', "no auth data"),
    "an object without members": (b"{}", "no auth data"),
    "deeply nested": (b"[" * 4000, "cannot parse json data"),
    "with auth in capitals": (b'{"AUTH": {}}', "no auth data"),
    "auth a string": (b'{"auth": "x"}', "invalid auth data"),
    "auth a list": (b'{"auth": []}', "invalid auth data"),
    "auth null": (b'{"auth": null}', "invalid auth data"),
    "auth without members": (b'{"auth": {}}', "no valid"),
}


@pytest.mark.parametrize("path", [*LOGIN_PATHS, *SIGNED_REQUESTS])
def test_a_bad_body_of(
    path: str, access_point: AccessPoint, paired_phone: Phone, silent_client: None
) -> None:
    cases = {
        name: Bad(lambda phone, body=body: prepare(phone, path).with_body(body), 400, logged)
        for name, (body, logged) in BODIES.items()
    }
    assert outcomes(access_point, paired_phone, cases) == {}


OTHER_KINDS: dict[str, object] = {
    "a number": 5, "null": None, "true": True, "a list": ["iOS"], "an empty list": [], "an object": {},
}  # fmt: skip


def bad_auths() -> dict[str, dict[str, object]]:
    made: dict[str, dict[str, object]] = {}
    # How long each may be.
    limits = {"deviceId": 1024, "deviceType": 64, "bssid": 64, "username": 1024, "password": 1024}
    for name, limit in limits.items():
        word = "iOS" if name == "deviceType" else ""
        made[f"no {name}"] = {name: OMIT}
        made[f"empty {name}"] = {name: ""}
        for kind, value in OTHER_KINDS.items():
            made[f"{name} {kind}"] = {name: value}
        made[f"{name} too long"] = {name: word.ljust(limit + 1, "x")}
    made["an unknown device type"] = {"deviceType": "Windows"}
    return made


@pytest.mark.parametrize("path", [*LOGIN_PATHS, *SIGNED_REQUESTS])
def test_a_bad_member_of_auth_of(
    path: str, access_point: AccessPoint, paired_phone: Phone, silent_client: None
) -> None:
    cases = {
        name: Bad(lambda phone, auth=auth: prepare(phone, path, auth=auth), 400, BROKEN[400])
        for name, auth in bad_auths().items()
    }
    assert outcomes(access_point, paired_phone, cases) == {}


@pytest.mark.parametrize("path", [*LOGIN_PATHS, *SIGNED_REQUESTS])
def test_a_wrong_login_of(
    path: str, access_point: AccessPoint, paired_phone: Phone, silent_client: None
) -> None:
    logins = {
        "wrong password": {"password": "wrong"},
        "unknown user": {"username": "nobody-here"},
        "root": {"username": ROOT.username, "password": ROOT.password},
        "a locked account": {"username": "locked", "password": "!"},
    }
    cases = {
        name: Bad(lambda phone, auth=auth: prepare(phone, path, auth=auth), 401, BROKEN[401])
        for name, auth in logins.items()
    }
    assert outcomes(access_point, paired_phone, cases) == {}


@pytest.mark.each_machine
@pytest.mark.parametrize("path", ["/pair by assertion", "/location"])
def test_a_bad_assertion_of(
    path: str, access_point: AccessPoint, paired_phone: Phone, silent_client: None
) -> None:
    def bent(**bend: object) -> Make:
        return lambda phone: prepare(phone, path, **bend)

    def headed(value: str) -> Make:
        return lambda phone: prepare(phone, path).with_headers(X_Assertion=value)

    cases = {
        "a challenge that nobody gave": Bad(bent(challenge="0" * 32), 424, BROKEN[424]),
        "no challenge": Bad(bent(auth={"challenge": OMIT}), 400, BROKEN[400]),
        "an empty challenge": Bad(bent(challenge=""), 400, BROKEN[400]),
        "a challenge that is a number": Bad(bent(auth={"challenge": 1}), 400, BROKEN[400]),
        "a challenge that is null": Bad(bent(auth={"challenge": None}), 400, BROKEN[400]),
        "a long challenge": Bad(bent(challenge="0" * 1025), 400, BROKEN[400]),
        "an empty header": Bad(headed(""), 400, BROKEN[400]),
        "a long header": Bad(headed("A" * 16385), 400, "attestation or assertion too long"),
        "no base64": Bad(headed("*" * 40), 412, BROKEN[412]),
        "no CBOR": Bad(headed("/////w=="), 412, "Cannot decode CBOR"),
        "an attestation": Bad(
            lambda phone: prepare(phone, path).with_headers(
                X_Assertion=phone.prepare_pair().headers["X-Attestation"]
            ),
            412,
            "Cannot create assertion obj",
        ),
        "a third member": Bad(bent(extra={"x": b"y"}), 412, "Cannot create assertion obj"),
        "short authenticator data": Bad(bent(auth_data=bytes(36)), 412, "Cannot extract auth data"),
        "another key": Bad(bent(signing_key=p256()), 412, "Invalid signature"),
        "another body": Bad(bent(client_data_hash=bytes(32)), 412, "Invalid signature"),
        "another app": Bad(bent(rp_id="X.other"), 412, "AppId mismatch"),
        "counter 0": Bad(bent(counter=0), 412, "Invalid counter"),
        "another phone": Bad(bent(auth={"deviceId": "somebody else"}), 412, "no pairing"),
    }
    assert outcomes(access_point, paired_phone, cases) == {}


@pytest.mark.each_machine
def test_a_bad_attestation(
    access_point: AccessPoint, paired_phone: Phone, silent_client: None
) -> None:
    def bent(**bend: object) -> Make:
        return lambda phone: phone.prepare_pair(**bend)

    def headed(value: str) -> Make:
        return lambda phone: phone.prepare_pair().with_headers(X_Attestation=value)

    stranger = make_authority("Some other CA", p384())
    cases = {
        "neither header": Bad(
            lambda phone: phone.prepare("/pair", {"pair": {}}), 400, "no attestation data"
        ),
        "a challenge that nobody gave": Bad(
            bent(challenge="0" * 32), 424, "failure (challenge)"
        ),
        "no challenge": Bad(bent(auth={"challenge": OMIT}), 400, "http_method_pair"),
        "an empty challenge": Bad(bent(challenge=""), 400, "http_method_pair"),
        "a challenge that is a number": Bad(
            bent(auth={"challenge": 1}), 400, "http_method_pair"
        ),
        "a challenge that is null": Bad(bent(auth={"challenge": None}), 400, "http_method_pair"),
        "an empty header": Bad(headed(""), 400, "http_method_pair"),
        "a long header": Bad(headed("A" * 16385), 400, "attestation or assertion too long"),
        "no base64": Bad(headed("*" * 40), 400, "Base64 decode failed"),
        "no CBOR": Bad(headed("/////w=="), 412, "Cannot decode CBOR"),
        "another format": Bad(bent(fmt="packed"), 412, "Cannot create attestation obj"),
        "a fourth member": Bad(bent(extra={"x": b"y"}), 412, "Cannot create attestation obj"),
        "one certificate": Bad(bent(x5c=[b"x"]), 412, "Cannot create attestation obj"),
        "bad certificates": Bad(bent(x5c=[b"x", b"y"]), 412, "Invalid ca chain"),
        "an unknown authority": Bad(bent(leaf_issuer=stranger), 412, "Invalid ca chain"),
        "expired": Bad(
            bent(not_before=now() - 5 * DAY, not_after=now() - DAY), 412, "Invalid ca chain"
        ),
        "not valid yet": Bad(
            bent(not_before=now() + DAY, not_after=now() + 3 * DAY), 412, "Invalid ca chain"
        ),
        "the nonce of another body": Bad(bent(client_data_hash=bytes(32)), 412, "OID mismatch"),
        "no nonce": Bad(bent(omit_nonce_extension=True), 412, "Cannot extract OID"),
        "another app": Bad(bent(rp_id="X.other"), 412, "AppId mismatch"),
        "counter 1": Bad(bent(counter=1), 412, "Invalid counter"),
        "another environment": Bad(bent(aaguid=b"appattestnowhere"), 412, "Aaguid mismatch"),
        "the id of another key": Bad(bent(credential_id=bytes(32)), 412, "Invalid credential id"),
        "short authenticator data": Bad(bent(auth_data=bytes(54)), 412, "Cannot extract auth data"),
    }
    assert outcomes(access_point, paired_phone, cases) == {}
    assert "failure (attestation)" in access_point.log()


@pytest.mark.parametrize("path", ["/pair by attestation", "/pair by assertion"])
def test_a_bad_description_of_the_phone(
    path: str, access_point: AccessPoint, paired_phone: Phone, silent_client: None
) -> None:
    def described(**pair: object) -> Make:
        return lambda phone: prepare(phone, path, pair=pair)

    def instead(pair: object) -> Make:
        return lambda phone: prepare(phone, path, members={"pair": pair})

    cases = {
        "none": Bad(instead(OMIT), 400, "no pair data"),
        "a text": Bad(instead("phone"), 400, "invalid pair data"),
        "a list": Bad(instead([]), 400, "invalid pair data"),
        "no name": Bad(described(friendlyName=OMIT), 400, "no friendly name"),
        "an empty name": Bad(described(friendlyName=""), 400, "no friendly name"),
        "a name too long": Bad(described(friendlyName="x" * 1025), 400, "no friendly name"),
        "a name that is a number": Bad(described(friendlyName=1), 400, "no friendly name"),
        "no token": Bad(described(pushToken=OMIT), 400, "no push token"),
        "an empty token": Bad(described(pushToken=""), 400, "no push token"),
        "a token too long": Bad(described(pushToken="x" * 2049), 400, "no push token"),
        "a model too long": Bad(described(deviceModel="x" * 65), 400, "invalid device model"),
        "a version too long": Bad(described(osVersion="x" * 65), 400, "invalid os version"),
    }
    assert outcomes(access_point, paired_phone, cases) == {}


def test_a_phone_too_many(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({"pairings.limit": "1"})
    cold_access_point.start()
    assert cold_access_point.phone().pair().status == 200
    other = cold_access_point.phone(1)
    bad = Bad(lambda phone: phone.prepare_pair(), 403, "pairings limit reached")
    assert outcome(cold_access_point, other, bad) == ""


def test_a_bad_choice_of_the_phone_to_remove(
    access_point: AccessPoint, paired_phone: Phone, silent_client: None
) -> None:
    def instead(members: dict[str, object]) -> Make:
        return lambda phone: phone.prepare("/unpair", members)

    cases = {
        "none": Bad(instead({}), 400, "no unpair data"),
        "a text": Bad(instead({"unpair": "x"}), 400, "invalid unpair data"),
        "no id": Bad(instead({"unpair": {}}), 400, "no deviceId"),
        "an empty id": Bad(instead({"unpair": {"deviceId": ""}}), 400, "no deviceId"),
        "an unknown id": Bad(instead({"unpair": {"deviceId": "x"}}), 404, "no pairing: x"),
    }
    assert outcomes(access_point, paired_phone, cases) == {}


@pytest.mark.each_machine
def test_a_bad_location(
    access_point: AccessPoint, paired_phone: Phone, silent_client: None
) -> None:
    def instead(location: object) -> Make:
        return lambda phone: phone.prepare_location(members={"location": location})

    def from_bssid(bssid: str) -> Make:
        return lambda phone: phone.prepare_location(auth={"bssid": bssid})

    cases = {
        "none": Bad(instead(OMIT), 400, "no location data"),
        "an empty list": Bad(instead([]), 400, "no location data"),
        "a text": Bad(instead("here"), 400, "invalid location data"),
        "a number": Bad(instead(1), 400, "invalid location data"),
        "null": Bad(instead(None), 400, "invalid location data"),
        "true": Bad(instead(True), 400, "invalid location data"),
        "another BSSID": Bad(from_bssid("02:00:00:00:00:01"), 409, "unknown bssid"),
        "no BSSID at all": Bad(from_bssid("here"), 409, "invalid bssid"),
    }
    assert outcomes(access_point, paired_phone, cases) == {}


@pytest.mark.each_machine
def test_a_refusal_names_its_check_and_cuts_a_long_id_between_characters(
    access_point: AccessPoint, phone: Phone
) -> None:
    for device_id, shown in (("x" * 1024, "x" * 72), ("x" + "\u20ac" * 24, "x" + "\u20ac" * 23)):
        auth = {"deviceId": device_id, "username": OMIT}
        assert phone.challenge(auth).status == 400
        assert (
            "WARN velm_http_server - request_refused - request check: no valid username, "
            f"ip: {phone.host.source}, device id: {shown}\n" in access_point.log()
        )


def test_a_refusal_at_level_warn_has_its_line_and_no_secret(
    cold_access_point: AccessPoint,
) -> None:
    cold_access_point.configure({"logger.level": "warn"})
    cold_access_point.nvram_set({"zelkad_debug_level": "warn"})
    cold_access_point.start()
    phone = cold_access_point.phone()
    mark = cold_access_point.daemon.log_mark()
    for check, auth in (
        ("request check: no valid bssid", {"bssid": OMIT}),
        ("user/password check: login refused", {"password": "a wrong secret"}),
    ):
        phone.challenge(auth)
        end = f"ip: {phone.host.source}, device id: {phone.profile.device_id}\n"
        assert f"request_refused - {check}, {end}" in cold_access_point.log(mark)
    assert "secret" not in cold_access_point.log(mark)
    assert phone.login.password not in cold_access_point.log(mark)


def test_an_unknown_path(access_point: AccessPoint, phone: Phone) -> None:
    def at(path: str) -> Make:
        return lambda phone: dataclasses.replace(phone.prepare("/info"), path=path)

    paths = ("/", "/pai", "/pairingsX", "/pairings/", "/INFO", "/info/", "/infox", "//info")
    cases = {path: Bad(at(path), 404, "unknown path") for path in paths}
    assert outcomes(access_point, phone, cases) == {}


IN_CHUNKS = b"POST /challenge HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"
NO_REQUESTS: dict[str, tuple[bytes, int, str]] = {
    "a body that is announced too long": (
        b"POST /challenge HTTP/1.1\r\nContent-Length: 8193\r\n\r\n",
        413,
        "body too long",
    ),
    "a body that becomes too long": (
        IN_CHUNKS
        + b"1000\r\n" + b"x" * 4096 + b"\r\n1000\r\n" + b"x" * 4096 + b"\r\n1\r\nx\r\n0\r\n\r\n",
        413,
        "body too long",
    ),
    "a header too long": (
        b"GET /info HTTP/1.1\r\nX: " + b"x" * 8193 + b"\r\n\r\n",
        431,
        "header too long",
    ),
    "too many headers": (
        b"GET /info HTTP/1.1\r\n" + b"X: y\r\n" * 101 + b"\r\n",
        431,
        "too many headers",
    ),
    "a head without end": (b"GET /info HTTP/1.1\r\n" + b"X: y\r\n" * 20000, 431, "head too long"),
    "an endless header": (b"GET /info HTTP/1.1\r\nX: " + b"x" * 60000, 431, "header too long"),
    "an endless path": (b"GET /" + b"x" * 20000, 431, "header too long"),
    "a path too long": (b"GET /" + b"x" * 8191 + b" HTTP/1.1\r\n\r\n", 414, "uri too long"),
    "two lengths": (
        b"POST /pair HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n",
        400,
        "more than one length of the body",
    ),
    "another encoding": (
        b"POST /pair HTTP/1.1\r\nTransfer-Encoding: gzip\r\n\r\n",
        501,
        "unknown transfer encoding",
    ),
    "a chunk size of another letter": (IN_CHUNKS + b"g\r\n", 0, "chunks that are none"),
    "a dash as chunk size": (IN_CHUNKS + b"-\r\n", 0, "chunks that are none"),
    "a chunk size and a semicolon": (IN_CHUNKS + b"3;\r\nabc\r\n", 0, "chunks that are none"),
    "no version": (b"GET /info\r\n\r\n", 400, "no http request"),
    "no request": (b"\x16\x03\x01 hello\r\n\r\n", 0, "the parser takes it for no request"),
}  # fmt: skip


@pytest.mark.each_machine
@pytest.mark.parametrize("name", NO_REQUESTS)
def test_the_connection_is_closed_after(
    name: str, access_point: AccessPoint, paired_phone: Phone, silent_client: None
) -> None:
    sent, status, logged = NO_REQUESTS[name]
    stored, mark = access_point.nvram_show(), access_point.daemon.log_mark()
    with access_point.lan_host().connect_tls() as tls:
        tls.sendall(sent)
        answer = read_until_closed(tls)
    assert answer.partition(b" ")[2][:3] == (b"%d" % status if status else b"")
    assert answer.count(b"\r\n\r\n") == (1 if status else 0) and not answer.partition(b"\r\n\r\n")[2]
    # The peer can hear of the end before the line is written.
    wait_until(lambda: logged in access_point.log(mark), 10, f"no log line with {logged!r}")
    assert access_point.nvram_show() == stored
    assert paired_phone.info().status == 200


@pytest.mark.each_machine
def test_a_connection_that_a_client_ends_is_closed_wherever_it_says_so(
    access_point: AccessPoint,
) -> None:
    headers = b"User-Agent: a\r\n" * 12
    with access_point.lan_host().connect_tls() as tls:
        tls.sendall(b"GET /info HTTP/1.1\r\n" + headers + b"Connection: close\r\n\r\n")
        tls.settimeout(5)
        answer = read_until_closed(tls)
    assert answer.startswith(b"HTTP/1.1 200")


BAD_FRAMES: dict[str, bytes] = {
    "a report": HEADER.pack(REPORT, 140, 1, 0, 0) + bytes(140),
    "an unknown type": HEADER.pack(9, 140, 1, 0, 0) + bytes(140),
    "139 bytes of payload": HEADER.pack(REQUEST, 139, 1, 0, 0) + bytes(139),
    "no payload": HEADER.pack(REQUEST, 0, 1, 0, 0),
    "half a header": b"\0\x10\x8c",
    "nothing but zeros": bytes(1000),
    "4000 strange bytes": b"\xee" * 4000,
}


@pytest.mark.each_machine
@pytest.mark.parametrize("name", BAD_FRAMES)
def test_a_frame_of_a_local_client_that_is(
    name: str, access_point: AccessPoint, paired_phone: Phone
) -> None:
    stored = access_point.nvram_show()
    with IpcClient(access_point.socket_path) as client:
        client.send(BAD_FRAMES[name])
        assert client.is_silent(0.05)
    with IpcClient(access_point.socket_path) as other:
        other.request()
        assert paired_phone.location().status == 200
        assert other.receive_report().valid == 1
    assert access_point.nvram_show() == stored
