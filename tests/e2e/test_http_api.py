"""Does the daemon keep to docs/http-api.yaml?"""

from __future__ import annotations

import base64
import json
from collections.abc import Callable
from contextlib import ExitStack, nullcontext
from dataclasses import dataclass
from typing import Any

import jsonschema
import pytest
from velm_harness.openapi import TextLimit
from velm_harness.phone_api import BODY_PATHS, CONTRACT, LOGIN_PATHS, PATHS
from velm_sim.access_point import BSSIDS, AccessPoint
from velm_sim.ipc_client import IpcClient
from velm_sim.lan_http import Reply, read_until_closed
from velm_sim.limits import LOGIN_ATTEMPTS
from velm_sim.phone import OMIT, Phone, Prepared, changed, encode, sample_location

# Nobody but a library that fails inside brings this about; the document says so.
UNPROVOKED = 500
PENDING_CHALLENGES = 1000
LISTS_THAT_WAIT = 20  # more than there is room for


# What the phone sends, by path.


@dataclass
class Caller:
    """A phone of which every answer is held against the document."""

    phone: Phone

    def send(self, request: Prepared) -> Reply:
        reply = self.phone.send(request)
        CONTRACT.check(request.path, reply)
        return reply

    def raw(self, path: str, body: bytes | None = None, method: str | None = None) -> Reply:
        reply = self.phone.host.request(path, body, method=method)
        CONTRACT.check(path.partition("?")[0], reply)
        return reply

    def prepare(self, path: str, **changes: Any) -> Prepared:
        """The right request, with changes in "auth" and in the path's own member."""
        auth = changes.get("auth")
        if path == "/pair":
            return self.phone.prepare_pair(auth=auth, pair=changes.get("pair"))
        if path == "/location":
            return self.phone.prepare_location(auth=auth)
        own = {"deviceId": self.phone.profile.device_id}
        members = {"unpair": changed(own, changes.get("unpair"))} if path == "/unpair" else {}
        return self.phone.prepare(path, members, auth=auth)


@pytest.fixture
def caller(phone: Phone) -> Caller:
    return Caller(phone)


@pytest.fixture
def paired(paired_phone: Phone) -> Caller:
    return Caller(paired_phone)


# Every documented status.


def pair_two_where_one_may(access_point: AccessPoint, caller: Caller) -> Reply:
    access_point.configure({"pairings.limit": "1"})
    access_point.reload()
    assert caller.send(caller.phone.prepare_pair()).status == 200
    other = Caller(access_point.phone(1))
    return other.send(other.phone.prepare_pair())


def ask_for_too_many_challenges(_: AccessPoint, caller: Caller) -> Reply:
    request = caller.prepare("/challenge")
    with caller.phone.host.session() as session:
        for _number in range(PENDING_CHALLENGES):
            reply = session.request(request.path, request.body, request.headers)
            assert reply.status == 200
    return caller.send(request)


def locate_as_an_unpaired_android(access_point: AccessPoint, caller: Caller) -> Reply:
    """Only an unpaired Android phone gets as far as the question whether it is paired."""
    access_point.configure({"app.android.integrity.enabled": "no"})
    access_point.reload()
    return caller.send(caller.phone.prepare_location(auth={"deviceType": "Android"}))


def paired_location(_: AccessPoint, caller: Caller, **changes: Any) -> Reply:
    assert caller.phone.pair().status == 200
    return caller.send(caller.phone.prepare_location(**changes))


def deliver_what_nobody_reads(access_point: AccessPoint, caller: Caller) -> Reply:
    assert caller.phone.pair().status == 200
    with IpcClient(access_point.socket_path):
        for _number in range(LISTS_THAT_WAIT):
            reply = caller.send(caller.phone.prepare_location([0] * 950))
            if reply.status != 200:
                break
    return reply


Provoke = Callable[[AccessPoint, Caller], Reply]


def plain(path: str, **changes: Any) -> Provoke:
    return lambda _, caller: caller.send(caller.prepare(path, **changes))


def pairing(**changes: Any) -> Provoke:
    return lambda _, caller: caller.send(caller.phone.prepare_pair(**changes))


def locating(**changes: Any) -> Provoke:
    return lambda access_point, caller: paired_location(access_point, caller, **changes)


def unpair_the_paired(_: AccessPoint, caller: Caller) -> Reply:
    assert caller.phone.pair().status == 200
    return caller.send(caller.prepare("/unpair"))


WRONG = {"auth": {"password": "wrong"}}
LACKING = {"auth": {"username": OMIT}}
UNKNOWN_CHALLENGE = "0" * 32

PROVOKED: dict[tuple[str, int], Provoke] = {
    ("/info", 200): lambda _, caller: caller.raw("/info"),
    ("/challenge", 200): plain("/challenge"),
    ("/challenge", 400): plain("/challenge", **LACKING),
    ("/challenge", 401): plain("/challenge", **WRONG),
    ("/challenge", 503): ask_for_too_many_challenges,
    ("/pair", 200): pairing(),
    ("/pair", 400): pairing(**LACKING),
    ("/pair", 401): pairing(**WRONG),
    ("/pair", 403): pair_two_where_one_may,
    ("/pair", 412): pairing(rp_id="X.other"),
    ("/pair", 424): pairing(challenge=UNKNOWN_CHALLENGE),
    ("/pairings", 200): plain("/pairings"),
    ("/pairings", 400): plain("/pairings", **LACKING),
    ("/pairings", 401): plain("/pairings", **WRONG),
    ("/unpair", 200): unpair_the_paired,
    ("/unpair", 400): plain("/unpair", **LACKING),
    ("/unpair", 401): plain("/unpair", **WRONG),
    ("/unpair", 404): plain("/unpair"),
    ("/location", 200): locating(),
    ("/location", 400): locating(**LACKING),
    ("/location", 401): locating(**WRONG),
    ("/location", 404): locate_as_an_unpaired_android,
    ("/location", 409): locating(auth={"bssid": "02:00:00:00:00:01"}),
    ("/location", 412): locating(counter=0),
    ("/location", 424): locating(challenge=UNKNOWN_CHALLENGE),
    ("/location", 503): deliver_what_nobody_reads,
}
DOCUMENTED = [
    (path, status)
    for path in PATHS
    for status in CONTRACT.responses(path)
    if status != UNPROVOKED
]


def test_every_documented_status_is_provoked_and_no_other() -> None:
    assert set(PROVOKED) == set(DOCUMENTED)


TOO_SLOW = pytest.mark.not_emulated("a thousand challenges take longer than the first one lives")


@pytest.mark.parametrize(
    ("path", "status"),
    [
        pytest.param(*row, marks=[TOO_SLOW] if row == ("/challenge", 503) else [])
        for row in DOCUMENTED
    ],
)
def test_a_request_is_answered_with(
    path: str, status: int, access_point: AccessPoint, caller: Caller
) -> None:
    assert PROVOKED[path, status](access_point, caller).status == status


def test_the_list_of_pairings_keeps_to_its_schema(paired: Caller) -> None:
    assert len(paired.send(paired.prepare("/pairings")).json()["pairings"]) == 1


@pytest.mark.parametrize("path", BODY_PATHS)
def test_what_the_phone_sends_keeps_to_the_schema_of(path: str, caller: Caller) -> None:
    schema = CONTRACT.body_schema(path)
    assert schema
    CONTRACT.validate(json.loads(caller.prepare(path).body), schema)


# Lengths. What a text of the right length is answered with when it is no right text otherwise.

IN_LIMIT = {
    "auth.username": 401,
    "auth.password": 401,
    "auth.challenge": 424,
    "unpair.deviceId": 404,
    "X-Attestation": 412,
    "X-Assertion": 412,
    "/location auth.deviceId": 412,  # no key is stored under it
    "/location auth.bssid": 409,
}
LIMITS = [limit for path in PATHS for limit in CONTRACT.text_limits(path)]


def text_of(length: int, where: str) -> str:
    if where == "auth.deviceType":
        return ("iOS" + "x" * length)[:length]
    return ("A" if where.startswith("X-") else "x") * length


def with_text(caller: Caller, limit: TextLimit, text: str) -> Prepared:
    if limit.where.startswith("X-"):
        request = caller.prepare(limit.path)
        # One proof only: two would use the challenge up twice.
        headers = {n: v for n, v in request.headers.items() if not n.startswith("X-A")}
        return Prepared(request.path, request.body, {**headers, limit.where: text})
    member, name = limit.where.split(".")
    return caller.prepare(limit.path, **{member: {name: text}})


def answer_to_length(caller: Caller, limit: TextLimit, length: int) -> int:
    """The status; the body breaks the schema exactly when that is 400."""
    # Paired each time: an attempt may unpair, and a good login resets the count of failed ones.
    assert caller.phone.pair().status == 200
    request = with_text(caller, limit, text_of(length, limit.where))
    status = caller.send(request).status
    if not limit.where.startswith("X-"):
        schema = CONTRACT.body_schema(limit.path)
        assert schema
        with pytest.raises(jsonschema.ValidationError) if status == 400 else nullcontext():
            CONTRACT.validate(json.loads(request.body), schema)
    return status


@pytest.mark.parametrize("limit", LIMITS, ids=str)
def test_both_sides_of_the_limits_of(limit: TextLimit, caller: Caller) -> None:
    expected = IN_LIMIT.get(str(limit), IN_LIMIT.get(limit.where, 200))
    assert answer_to_length(caller, limit, limit.shortest) == expected
    if limit.shortest > 0:
        assert answer_to_length(caller, limit, limit.shortest - 1) == 400
    if limit.longest is not None:
        assert answer_to_length(caller, limit, limit.longest) == expected
        assert answer_to_length(caller, limit, limit.longest + 1) == 400


@pytest.mark.each_machine
def test_lengths_are_counted_in_bytes_of_utf8(caller: Caller) -> None:
    for text, status in (("ä" * 512, 200), ("ä" * 512 + "x", 400), ("ä" * 513, 400)):
        assert caller.send(caller.prepare("/challenge", auth={"deviceId": text})).status == status


def padded(phone: Phone, size: int) -> bytes:
    plain_size = len(encode({"auth": phone.auth(), "x": ""}))
    return encode({"auth": phone.auth(), "x": "x" * (size - plain_size)})


CHUNKED = {"Transfer-Encoding": "chunked"}


def chunked(body: bytes, size: int) -> bytes:
    chunks = [body[at : at + size] for at in range(0, len(body), size)]
    return b"".join(b"%x\r\n%s\r\n" % (len(chunk), chunk) for chunk in [*chunks, b""])


@pytest.mark.each_machine
@pytest.mark.parametrize("size", [0, 1000, 8193])
def test_a_body_of_8192_bytes_is_read_and_a_larger_one_refused_in_chunks_of(
    size: int, caller: Caller
) -> None:
    """0: not in chunks, but with its length before it."""
    for length, status in ((8192, 200), (8193, 413), (20000, 413)):
        body = padded(caller.phone, length)
        with caller.phone.host.session() as session:
            if size == 0:
                reply = session.request("/challenge", body)
            else:
                reply = session.request("/challenge", chunked(body, size), CHUNKED)
            assert reply.status == status
            assert session.is_open == (status == 200)
            assert status == 200 or reply.body == b""


@pytest.mark.each_machine
@pytest.mark.parametrize("before", range(4))
def test_headers_are_read_wherever_they_stand(before: int, caller: Caller) -> None:
    """The parser compares these three by words, which not every machine loads from any address."""
    headers = {
        "X": "x" * before,
        **CHUNKED,
        "Connection": "keep-alive",
        "Content-Type": "application/x-www-form-urlencoded",
    }
    with caller.phone.host.session() as session:
        for _ in range(2):
            body = encode({"auth": caller.phone.auth()})
            assert session.request("/challenge", chunked(body, 100), headers).status == 200
            assert session.is_open


@pytest.mark.each_machine
def test_a_body_is_as_long_as_it_was_announced_whatever_comes(caller: Caller) -> None:
    send = caller.phone.host.exchange
    small = padded(caller.phone, 8192)
    for announced, status in ((8193, b"413"), (999999999999, b"413"), (8191, b"400")):
        head = b"POST /challenge HTTP/1.1\r\nConnection: close\r\nContent-Length: %d\r\n\r\n"
        assert send(head % announced + small).startswith(b"HTTP/1.1 %s " % status)


@pytest.mark.each_machine
def test_a_header_value_of_8_kibibytes_is_served_and_a_longer_one_refused(caller: Caller) -> None:
    request = caller.prepare("/challenge")
    for length in (8191, 8192):
        assert caller.send(request.with_headers(X_Other="x" * length)).status == 200
    longer = request.with_headers(X_Other="x" * 8193)
    assert caller.phone.send(longer).status == 431


@pytest.mark.parametrize("length", [12000, 16384])
def test_a_phone_pairs_whose_attestation_has_as_many_characters_as(
    length: int, phone: Phone
) -> None:
    plain = phone.prepare_pair()
    # What stands behind the object is not looked at.
    longer = base64.b64decode(plain.headers["X-Attestation"]).ljust(length // 4 * 3, b"\0")
    text = base64.b64encode(longer).decode()
    assert len(text) == length
    assert phone.send(plain.with_headers(X_Attestation=text)).status == 200
    assert phone.location().status == 200


PARSED = "velm_request_parse_request_body - received:"


@pytest.mark.parametrize("path", BODY_PATHS)
def test_a_body_is_parsed_once_for(path: str, paired: Caller, access_point: AccessPoint) -> None:
    request = paired.prepare(path)
    mark = access_point.daemon.log_mark()
    assert paired.send(request).status == 200
    assert access_point.daemon.log(mark).count(PARSED) == 1


def test_a_list_of_locations_that_is_too_long_to_be_kept_is_parsed_again(
    paired: Caller, access_point: AccessPoint, ipc: IpcClient
) -> None:
    """While the checks run, the daemon keeps 16 KiB for each request: some twenty locations."""
    short, long = ([sample_location(rssi=-number) for number in range(size)] for size in (15, 45))
    for locations, times in ((short, 1), (long, 2)):
        request = paired.phone.prepare_location(locations)
        mark = access_point.daemon.log_mark()
        assert paired.send(request).status == 200
        assert access_point.daemon.log(mark).count(PARSED) == times
        reports = [ipc.receive_report() for _ in locations]
        assert [report.rssi for report in reports] == [-number for number in range(len(locations))]


@pytest.mark.parametrize("path", PATHS)
def test_head_is_answered_like_any_method_but_without_a_body(path: str, paired: Caller) -> None:
    request = paired.prepare(path)
    body = None if path == "/info" else request.body
    with paired.phone.host.session() as session:
        reply = session.request(path, body, request.headers, "HEAD")
        assert (reply.status, reply.body) == (200, b"")
        whole = session.request("/info")
        assert whole.status == 200
    if path == "/info":
        assert int(reply.headers["content-length"]) == len(whole.body)


# What the description promises.


@pytest.mark.parametrize("path", PATHS)
def test_every_method_is_answered_alike(path: str, paired: Caller) -> None:
    for method in ("GET", "POST", "PUT", "DELETE", "PATCH", "OPTIONS"):
        request = paired.prepare(path)
        body = None if path == "/info" else request.body
        reply = paired.phone.host.request(path, body, request.headers, method)
        CONTRACT.check(path, reply)
        assert reply.status == 200, method
        if path == "/unpair":
            assert paired.phone.pair().status == 200


@pytest.mark.parametrize("path", PATHS)
def test_a_query_is_ignored_and_the_path_is_compared_raw_for(path: str, paired: Caller) -> None:
    request = paired.prepare(path)
    send = paired.phone.host.request
    escaped = f"/%{ord(path[1]):x}{path[2:]}"
    for wrong in (path.upper(), path + "/", "/" + path, path + "x", escaped):
        reply = send(wrong, request.body, request.headers)
        assert (reply.status, reply.body) == (404, b""), wrong
    assert send(path + "?a=b&c", request.body, request.headers).status == 200


OTHER_KINDS: list[Any] = [OMIT, None, 1, True, [], {}, ["iOS"]]


@pytest.mark.parametrize(("name", "status"), [
    ("friendlyName", 400), ("pushToken", 400), ("deviceModel", 200), ("osVersion", 200),
])  # fmt: skip
def test_a_member_of_the_pairing_of_another_kind_counts_as_absent(
    name: str, status: int, caller: Caller
) -> None:
    for value in OTHER_KINDS:
        assert caller.send(caller.phone.prepare_pair(pair={name: value})).status == status


def test_member_names_are_case_sensitive_and_of_doubled_ones_the_first_counts(
    caller: Caller,
) -> None:
    auth = caller.phone.auth()
    right = f'"password":{json.dumps(auth.pop("password"))}'
    rest = json.dumps(auth)[1:]
    for password, status in (
        (f'{right},"password":"wrong"', 200),
        (f'"password":"wrong",{right}', 401),
        (right.replace("password", "Password"), 400),
    ):
        body = f'{{"auth":{{{password},{rest}}}'.encode()
        assert caller.raw("/challenge", body).status == status


@pytest.mark.each_machine
@pytest.mark.parametrize("zero", [b"\0", b"\\u0000"])
def test_a_zero_byte_inside_a_string_is_refused(zero: bytes, caller: Caller) -> None:
    body = caller.prepare("/challenge", auth={"deviceId": "a@b"}).body
    assert caller.raw("/challenge", body.replace(b"@", zero)).status == 400


def test_device_types_that_are_known_and_not(caller: Caller) -> None:
    known = ("ios", "IOS", "iOS 17", "Android", "aNDROIDx")
    for device_type in (*known, "Windows", " iOS", "io", "Andro", "xiOS"):
        request = caller.prepare("/challenge", auth={"deviceType": device_type})
        status = 200 if device_type in known else 400
        assert caller.send(request).status == status, device_type


def test_pairing_takes_one_of_the_two_proofs(paired: Caller) -> None:
    unproven = paired.phone.prepare("/pair", auth={"challenge": paired.phone.fetch_challenge()})
    assert paired.send(unproven).status == 400
    both = paired.phone.signed(paired.prepare("/pair"))
    assert paired.send(both).status == 424
    assert paired.send(paired.phone.prepare_pair(by="assertion")).status == 200


@pytest.mark.parametrize(("path", "header", "status"), [
    ("/pair", "X-Attestation", 400), ("/pair", "X-Assertion", 412),
    ("/location", "X-Assertion", 412),
])  # fmt: skip
def test_a_proof_that_is_no_base64(path: str, header: str, status: int, paired: Caller) -> None:
    limit = TextLimit(path, header, 1, None)
    for value in ("AAA", "AAAAA", "AA==AAAA", "A-_A", "A A=", "===="):
        assert paired.send(with_text(paired, limit, value)).status == status, value


@pytest.mark.parametrize("path", LOGIN_PATHS)
def test_a_login_alone_takes_no_notice_of_a_challenge(path: str, paired: Caller) -> None:
    assert paired.send(paired.prepare(path, auth={"challenge": "x" * 2000})).status == 200


STRANGE_LOCATIONS: list[Any] = [
    {}, [{}], [1], ["x"], [None], [[]], {"latitude": "north"}, {"timestamp": 1}, {"more": {}},
    sample_location(latitude=1e308, longitude=-1e308), sample_location(rssi=1e30),
    sample_location(timestamp="soon"),
]  # fmt: skip


@pytest.mark.each_machine
def test_nothing_of_a_location_is_refused(paired: Caller) -> None:
    for location in STRANGE_LOCATIONS:
        assert paired.send(paired.phone.prepare_location(location)).status == 200, location


def test_the_checks_of_a_location_run_in_their_order(paired: Caller) -> None:
    """Each request is wrong in all that comes after, too."""
    wrong: dict[str, Any] = {"bssid": "no address", "password": "wrong"}
    phone = paired.phone
    unproven = phone.prepare_location(auth=wrong, counter=0)
    assert paired.send(unproven).status == 412
    assert paired.send(phone.prepare_location(auth=wrong)).status == 401
    del wrong["password"]
    assert paired.send(phone.prepare_location(auth=wrong)).status == 409
    assert paired.send(phone.prepare_location(auth={"bssid": BSSIDS[2].lower()})).status == 200


def test_a_blocked_login_is_answered_like_a_wrong_one(caller: Caller) -> None:
    for _ in range(LOGIN_ATTEMPTS):
        assert caller.send(caller.prepare("/challenge", **WRONG)).status == 401
    for path in LOGIN_PATHS:
        assert caller.send(caller.prepare(path)).status == 401


@pytest.mark.each_machine
def test_a_proof_in_base64_of_any_bytes_is_judged_not_dropped(paired: Caller) -> None:
    for content in (b"\xff" * 64, b"\xa0", b"\x00" * 3000):
        value = base64.b64encode(content).decode()
        for path, header in (("/pair", "X-Attestation"), ("/location", "X-Assertion")):
            limit = TextLimit(path, header, 1, None)
            assert paired.send(with_text(paired, limit, value)).status == 412


CONTENT_TYPES = (
    ["application/json", "application/x-www-form-urlencoded", "multipart", "text/plain"]
    + ["multipart/form-data; boundary=x", "Multipart/Mixed", "", "\xff"]
)


@pytest.mark.parametrize("path", BODY_PATHS)
def test_a_body_is_read_whatever_type_it_is_said_to_have(path: str, paired: Caller) -> None:
    for content_type in CONTENT_TYPES:
        request = paired.prepare(path)
        headers = {**request.headers, "Content-Type": content_type}
        with paired.phone.host.session() as session:
            assert session.request(path, request.body, headers).status == 200, content_type
            # The answer's length was right: the next one begins where it ended.
            assert session.request("/info").status == 200
        if path == "/unpair":
            assert paired.phone.pair().status == 200


def test_requests_that_are_checked_at_once_are_answered_each_in_its_own_version(
    caller: Caller,
) -> None:
    """One parser reads the requests of all connections, and a reply names the request's version."""
    body = caller.prepare("/challenge").body
    versions = [b"HTTP/1.0", b"HTTP/1.1"] * 4
    head = b"POST /challenge %s\r\nConnection: close\r\nContent-Length: %d\r\n\r\n"
    with ExitStack() as connections:
        opened = [connections.enter_context(caller.phone.host.connect_tls()) for _ in versions]
        for tls, version in zip(opened, versions):
            tls.sendall(head % (version, len(body)) + body)
        for tls, version in zip(opened, versions):
            assert read_until_closed(tls).startswith(version + b" 200 ")


@pytest.mark.each_machine
@pytest.mark.parametrize("word", ["close", "Close"])
def test_the_connection_ends_when_the_phone_asks_for_it(word: str, caller: Caller) -> None:
    """Also when it has sent more behind."""
    more = b"GET /info HTTP/1.1\r\n\r\n"
    for behind in (b"", more):
        head = f"GET /info HTTP/1.1\r\nConnection: {word}\r\n\r\n".encode()
        with caller.phone.host.connect_tls() as tls:
            tls.sendall(head + behind)
            answer = read_until_closed(tls)
        assert answer.count(b"HTTP/1.1 200 ") == 1


@pytest.mark.parametrize(
    ("line", "answered"),
    [
        ("GET http://ap/info HTTP/1.1", b"HTTP/1.1 200 "),
        ("GET http://ap/infoX HTTP/1.1", b"HTTP/1.1 404 "),
        ("GET http://ap HTTP/1.1", b"HTTP/1.1 404 "),
        ("CONNECT ap:443 HTTP/1.1", b"HTTP/1.1 404 "),
        ("OPTIONS * HTTP/1.1", b"HTTP/1.1 404 "),
    ],
)
def test_of_what_is_asked_for_in_another_form_the_path_counts(
    line: str, answered: bytes, caller: Caller
) -> None:
    answer = caller.phone.host.exchange(f"{line}\r\nConnection: close\r\n\r\n".encode())
    assert answer.startswith(answered)
    assert caller.phone.info().status == 200
