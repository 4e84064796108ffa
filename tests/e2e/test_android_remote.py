"""An Android phone proves itself to the access point, which has Google open its tokens."""

from __future__ import annotations

import base64
import time
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from dataclasses import replace

import pytest
from test_android_local import RULES
from test_interrupted import LEAVINGS
from velm_sim.access_point import AccessPoint
from velm_sim.android_phone import AndroidPhone
from velm_sim.answers import GARBAGE, HANG_UP, SILENCE, Answer, Endpoint
from velm_sim.cloud import EXHAUSTED, Cloud
from velm_sim.daemon import wait_until
from velm_sim.ipc_client import IpcClient
from velm_sim.lan_http import Reply
from velm_sim.phone import Prepared, sample_location
from velm_sim.play_integrity import PACKAGE_NAME, open_token
from velm_sim.service_account import INTEGRITY_SCOPE

# Time for Google to be asked, seen from a phone that waits.
PATIENCE = 45.0


@pytest.fixture
def phone(access_point: AccessPoint) -> AndroidPhone:
    return access_point.android_phone(timeout=PATIENCE)


@pytest.fixture
def paired_phone(phone: AndroidPhone, cloud: Cloud) -> AndroidPhone:
    """Paired, with an access token held; what Google was asked for that is forgotten."""
    assert phone.pair().status == 200
    grants = dict(cloud.grants)
    cloud.reset()
    cloud.grants.update(grants)
    return phone


@pytest.fixture
def set_clock(access_point: AccessPoint, cloud: Cloud) -> Callable[[AndroidPhone, int], None]:
    """Every clock shows that moment; the daemon's stands still there."""

    def set_to(phone: AndroidPhone, moment: int) -> None:
        access_point.stop_clock(moment)
        cloud.clock_offset = phone.clock_offset = moment - time.time()

    return set_to


def slow_access_token(cloud: Cloud, delay: float) -> None:
    """The next access token is a good one and takes its time."""
    cloud.grants["slow"] = {"scope": INTEGRITY_SCOPE, "valid_to": time.time() + 3600}
    cloud.token.answer_next(
        Answer.json({"access_token": "slow", "expires_in": 3600}, delay=delay)
    )


def slow_verdict(cloud: Cloud, phone: AndroidPhone, request: Prepared, delay: float) -> None:
    """What Google says of the request's token, said late."""
    token = base64.b64decode(request.headers["X-Assertion"]).decode()
    verdict = open_token(phone.integrity, token)
    cloud.integrity.answer_next(Answer.json({"tokenPayloadExternal": verdict}, delay=delay))


def slow_google(
    asked: str, cloud: Cloud, phone: AndroidPhone, request: Prepared, delay: float
) -> Endpoint:
    """Who is slow to answer the request: the endpoint of access tokens or that of verdicts."""
    if asked == "token":
        slow_access_token(cloud, delay)
        return cloud.token
    slow_verdict(cloud, phone, request, delay)
    return cloud.integrity


def assert_refused(reply: Reply) -> None:
    assert (reply.status, reply.body) == (412, b"")


# The good path.


@pytest.mark.parametrize("hashed", [False, True], ids=["nonce", "request hash"])
@pytest.mark.each_tls
def test_a_request_ends_in_the_report_of_an_android_phone(
    hashed: bool, cloud: Cloud, phone: AndroidPhone, ipc: IpcClient
) -> None:
    phone.hashed = hashed
    assert phone.pair().status == 200
    ipc.request()
    cloud.fcm.wait()
    location = sample_location()
    assert phone.location(location).status == 200
    assert ipc.receive_report() == phone.expected_report(location)
    assert not cloud.refusals


def test_google_is_asked_in_its_own_words(cloud: Cloud, phone: AndroidPhone) -> None:
    token = b""

    class Told(AndroidPhone):
        def token(self, digest: bytes, **bend: object) -> bytes:
            nonlocal token
            token = super().token(digest)
            return token

    assert Told(**vars(phone)).pair().status == 200
    (asked,) = cloud.integrity.requests
    (granted,) = cloud.grants
    assert (asked.method, asked.host) == ("POST", "playintegrity.googleapis.com")
    assert asked.path == f"/v1/{PACKAGE_NAME}:decodeIntegrityToken"
    assert asked.body == b'{"integrity_token":"' + token + b'"}'
    headers = dict(asked.headers)
    assert len(headers.pop("x-request-id")) == 32
    headers.pop("user-agent", None)
    assert headers == {
        "host": "playintegrity.googleapis.com",
        "accept": "*/*",
        "connection": "close",
        "content-type": "application/json",
        "content-length": str(len(asked.body)),
        "authorization": f"Bearer {granted}",
    }


def test_the_access_token_is_of_the_integrity_scope(cloud: Cloud, phone: AndroidPhone) -> None:
    assert phone.pair().status == 200
    (grant,) = cloud.grants.values()
    assert grant["scope"] == INTEGRITY_SCOPE == "https://www.googleapis.com/auth/playintegrity"


def test_pushes_and_verdicts_have_access_tokens_of_their_own(
    cloud: Cloud, phone: AndroidPhone, ipc: IpcClient
) -> None:
    assert phone.pair().status == 200
    ipc.request()
    cloud.fcm.wait()
    assert phone.location().status == 200
    assert len(cloud.token.requests) == 2 and not cloud.refusals


def test_the_access_points_own_keys_are_not_needed(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({"app.android.integrity.d.key.path": "/nonexistent"})
    cold_access_point.start()
    assert cold_access_point.android_phone().pair().status == 200


@pytest.mark.parametrize("name", RULES)
def test_a_verdict_of_google_is_refused_with(
    name: str, access_point: AccessPoint, paired_phone: AndroidPhone
) -> None:
    changes, line = RULES[name]
    mark = access_point.daemon.log_mark()
    assert_refused(paired_phone.location(verdict=changes))
    assert f"android_interpret_verdict - {line}\n" in access_point.log(mark)


@pytest.mark.parametrize(
    "token", [b"", b"\xff" * 20, b"a.b.c.d\n", b"a\0b"], ids=["empty", "bits", "line", "NUL"]
)
def test_what_is_no_text_never_reaches_google(
    token: bytes, access_point: AccessPoint, cloud: Cloud, phone: AndroidPhone
) -> None:
    reply = phone.pair(token=token)
    assert reply.status == (412 if token else 400)
    assert not cloud.connections


def test_a_token_that_google_cannot_open_is_refused(
    cloud: Cloud, paired_phone: AndroidPhone
) -> None:
    assert_refused(paired_phone.location(token=b"not.a.token"))
    assert len(cloud.integrity.requests) == 1


# Access tokens.


@pytest.mark.movable_clock
def test_an_access_token_is_fetched_again_at_its_last_second_and_not_before(
    cloud: Cloud, phone: AndroidPhone, set_clock: Callable[[AndroidPhone, int], None]
) -> None:
    begin = int(time.time()) + 100
    set_clock(phone, begin)
    cloud.token_lifetime = 3599
    assert phone.pair().status == 200
    for later, tokens in [(60, 1), (3598, 1), (3599, 2), (3600, 2), (7197, 2), (7198, 3)]:
        set_clock(phone, begin + later)
        assert phone.location().status == 200
        assert len(cloud.token.requests) == tokens, later
    first, *others = [request.headers["authorization"] for request in cloud.integrity.requests]
    assert others[:2] == [first, first] and others[2] != first
    assert not cloud.refusals


def test_phones_that_come_while_an_access_token_is_fetched_share_it(
    access_point: AccessPoint, cloud: Cloud
) -> None:
    slow_access_token(cloud, 1)
    phones = [access_point.android_phone(number) for number in range(5)]
    requests = [phone.prepare_pair() for phone in phones]
    with ThreadPoolExecutor(len(phones)) as pool:
        replies = list(pool.map(AndroidPhone.send, phones, requests))
    assert [reply.status for reply in replies] == [200] * len(phones)
    assert len(cloud.token.requests) == 1 and len(cloud.integrity.requests) == len(phones)


TOKEN_FAILURES: dict[str, Answer] = {
    "refuses": Answer.json({"error": "invalid_grant"}, 400),
    "breaks": Answer(500, b""),
    "hangs up": HANG_UP,
    "talks garbage": GARBAGE,
    "sends no JSON": Answer(body=b"<html>"),
    "sends an empty body": Answer(body=b""),
    "sends no token": Answer.json({"expires_in": 3600}),
}


@pytest.mark.parametrize("name", TOKEN_FAILURES)
def test_a_phone_is_refused_when_the_token_endpoint(
    name: str, access_point: AccessPoint, cloud: Cloud, phone: AndroidPhone
) -> None:
    cloud.token.answer_next(TOKEN_FAILURES[name])
    assert_refused(phone.pair())
    assert "send_integrity - missing auth token\n" in access_point.log()
    assert not cloud.integrity.requests


def test_a_key_without_a_project_asks_nobody(
    access_point: AccessPoint, cloud: Cloud, phone: AndroidPhone
) -> None:
    key = access_point.directory / "service_account.json"
    access_point.credentials.account.write(key, project_id=None)
    access_point.reload()
    assert_refused(phone.pair())
    assert "send_integrity - missing project_id\n" in access_point.log()
    assert not cloud.connections


# Google's limit.


@pytest.mark.movable_clock
def test_after_429_google_is_left_alone_for_an_hour_and_not_a_second_longer(
    access_point: AccessPoint,
    cloud: Cloud,
    phone: AndroidPhone,
    set_clock: Callable[[AndroidPhone, int], None],
) -> None:
    begin = int(time.time()) + 100
    cloud.token_lifetime = 86400
    set_clock(phone, begin)
    assert phone.pair().status == 200
    cloud.integrity.answer_next(EXHAUSTED)
    assert_refused(phone.location())
    assert len(cloud.integrity.requests) == 2
    for later in (0, 1, 1800, 3599):
        set_clock(phone, begin + later)
        mark = access_point.daemon.log_mark()
        assert_refused(phone.location())
        assert "send_integrity - daily limit reached\n" in access_point.log(mark)
        assert len(cloud.integrity.requests) == 2
    set_clock(phone, begin + 3600)
    assert phone.location().status == 200
    assert phone.location().status == 200
    assert len(cloud.integrity.requests) == 4


def test_the_silence_outlasts_a_reload(
    access_point: AccessPoint, cloud: Cloud, paired_phone: AndroidPhone
) -> None:
    cloud.integrity.answer_next(EXHAUSTED)
    assert_refused(paired_phone.location())
    access_point.reload()
    assert_refused(paired_phone.location())
    assert len(cloud.integrity.requests) == 1
    # The new key's access token was fetched all the same.
    assert len(cloud.token.requests) == 1


def test_the_silence_does_not_concern_pushes(
    cloud: Cloud, paired_phone: AndroidPhone, ipc: IpcClient
) -> None:
    cloud.integrity.answer_next(EXHAUSTED)
    assert_refused(paired_phone.location())
    ipc.request()
    cloud.fcm.wait()


# Bad answers.

ANSWERS: dict[str, tuple[Answer, str]] = {
    **{
        f"status {status}": (
            Answer.json({"error": {"code": status}}, status),
            f"http request failed: {status}",
        )
        for status in (201, 204, 302, 400, 401, 403, 404, 500, 502, 503, 599)
    },
    "closed connection": (HANG_UP, "http request failed: -2"),
    "body cut short": (
        Answer(body=b'{"tokenPayloadExternal": {}}', cut_after=5),
        "http request failed: -2",
    ),
    "garbage": (GARBAGE, "http request failed: -"),
    "too much": (Answer.over_large(2 << 20), "http request failed: -6"),
    "empty body": (Answer(body=b""), "empty response"),
    "no JSON": (Answer(body=b"<html>"), "parse error"),
    "list": (Answer.json([]), "parse error"),
    "no verdict": (Answer.json({}), "no tokenPayloadExternal"),
    "verdict that is null": (
        Answer.json({"tokenPayloadExternal": None}),
        "no tokenPayloadExternal",
    ),
    "verdict that is text": (
        Answer.json({"tokenPayloadExternal": "{}"}),
        "no tokenPayloadExternal",
    ),
    "verdict that is empty": (Answer.json({"tokenPayloadExternal": {}}), "no requestDetails"),
}


@pytest.mark.parametrize("name", ANSWERS)
def test_a_phone_is_refused_once_when_google_answers_with(
    name: str, access_point: AccessPoint, cloud: Cloud, paired_phone: AndroidPhone
) -> None:
    answer, line = ANSWERS[name]
    cloud.integrity.answer_next(answer)
    request = paired_phone.prepare_location()
    mark = access_point.daemon.log_mark()
    with paired_phone.host.session() as session:
        assert_refused(paired_phone.send(request, session))
        log = access_point.log(mark)
        assert line in log
        assert log.count("google_integrity_result - finished") == 1
        # Nothing more came on the connection than that one answer, and the next one is right.
        assert paired_phone.send(paired_phone.prepare_location(), session).status == 200
    assert len(cloud.integrity.requests) == 2


def test_a_slow_google_delays_nobody_else(
    access_point: AccessPoint, cloud: Cloud, paired_phone: AndroidPhone
) -> None:
    cloud.integrity.answer_next(SILENCE)
    request = paired_phone.prepare_location()
    with paired_phone.host.session() as waiting, access_point.lan_host(1).session() as session:
        waiting.send(request.path, request.body, request.headers)
        cloud.integrity.wait()
        for _ in range(20):
            start = time.monotonic()
            assert session.request("/info").status == 200
            assert time.monotonic() - start < 0.5
        cloud.drop_connections()
        assert_refused(waiting.receive())


@pytest.mark.begun_first
def test_google_is_given_up_after_ten_seconds(
    access_point: AccessPoint, cloud: Cloud, paired_phone: AndroidPhone
) -> None:
    cloud.integrity.answer_next(Answer(body=b" " * 1000, drip=0.1))
    start = time.monotonic()
    assert_refused(paired_phone.location())
    assert 9.5 < time.monotonic() - start < 12
    assert "http request failed: -1" in access_point.log()


@pytest.mark.begun_first
def test_the_time_for_a_request_does_not_run_while_google_is_asked(
    access_point: AccessPoint, cloud: Cloud
) -> None:
    """More than the 30 s that a request has, of which the phone itself takes just a part."""
    phone = access_point.android_phone(timeout=PATIENCE)
    request = phone.prepare_pair(age=-30)
    slow_access_token(cloud, 9)
    slow_verdict(cloud, phone, request, 9)
    start = time.monotonic()
    with phone.host.connect_tls() as connection:
        head, body = wire(request)
        connection.sendall(head)
        for piece in (body[:10], body[10:]):
            time.sleep(7)
            connection.sendall(piece)
        received = connection.recv(4096)
    assert received.startswith(b"HTTP/1.1 200 ")
    assert time.monotonic() - start > 31


def wire(request: Prepared) -> tuple[bytes, bytes]:
    head = f"POST {request.path} HTTP/1.1\r\nHost: x\r\nContent-Length: {len(request.body)}\r\n"
    head += "".join(f"{name}: {value}\r\n" for name, value in request.headers.items())
    return head.encode() + b"\r\n", request.body


# Phones that leave, and reloads.


@pytest.mark.parametrize("leave", LEAVINGS)
@pytest.mark.parametrize("asked", ["token", "verdict"])
def test_a_phone_that_leaves_while_google_is_asked_leaves_nothing_behind(
    asked: str, leave: str, access_point: AccessPoint, cloud: Cloud, phone: AndroidPhone
) -> None:
    daemon = access_point.daemon
    request = phone.prepare_pair()
    endpoint = slow_google(asked, cloud, phone, request, 0.5)
    wait_until(lambda: "finish_async" in daemon.log(), 5, "no request ended")
    descriptors, mark = daemon.descriptors(), daemon.log_mark()
    connection = phone.host.connect_tls()
    connection.sendall(b"".join(wire(request)))
    endpoint.wait()
    LEAVINGS[leave](connection)
    daemon.wait_log("finish_async", start=mark)
    assert daemon.log(mark).count("google_integrity_result - finished") == 1
    wait_until(lambda: daemon.descriptors() <= descriptors, 5, "descriptors stay open")
    assert phone.pair().status == 200


@pytest.mark.parametrize("asked", ["token", "verdict"])
def test_a_reload_while_google_is_asked_ends_the_request(
    asked: str, access_point: AccessPoint, cloud: Cloud, phone: AndroidPhone
) -> None:
    daemon = access_point.daemon
    request = phone.prepare_pair()
    stored = access_point.nvram_show()
    endpoint = slow_google(asked, cloud, phone, request, 0.7)
    mark = daemon.log_mark()
    with phone.host.connect_tls() as connection:
        connection.sendall(b"".join(wire(request)))
        endpoint.wait()
        access_point.reload()
        assert connection.recv(4096) == b""
    daemon.wait_log("google_integrity_result - finished", start=mark)
    assert daemon.log(mark).count("google_integrity_result - finished") == 1
    daemon.wait_log("finish_async", start=mark)
    if asked == "token":
        assert "send_integrity - missing auth token" in daemon.log(mark)
        assert not cloud.integrity.requests
    assert access_point.nvram_show() == stored
    assert phone.pair().status == 200


def test_many_phones_leave_while_google_is_silent(
    access_point: AccessPoint, cloud: Cloud, paired_phone: AndroidPhone
) -> None:
    daemon = access_point.daemon
    descriptors, mark = daemon.descriptors(), daemon.log_mark()
    cloud.integrity.answer_always(SILENCE)
    connections = []
    for number in range(12):
        phone = replace(paired_phone, host=access_point.lan_host(number % 4))
        connections.append(phone.host.connect_tls())
        connections[-1].sendall(b"".join(wire(phone.prepare_location())))
    cloud.integrity.wait(len(connections))
    for connection in connections[::2]:
        connection.close()
    access_point.reload()
    for connection in connections[1::2]:
        connection.close()
    cloud.drop_connections()
    daemon.wait_log("finish_async", start=mark, count=12)
    cloud.integrity.answer_always(None)
    wait_until(lambda: daemon.descriptors() <= descriptors, 5, "descriptors stay open")
    assert paired_phone.location().status == 200


def test_a_phone_that_is_unpaired_while_google_is_asked_does_not_pair_again(
    access_point: AccessPoint, cloud: Cloud, paired_phone: AndroidPhone
) -> None:
    request = paired_phone.prepare_pair()
    slow_verdict(cloud, paired_phone, request, 1.0)
    with ThreadPoolExecutor(1) as pool:
        answer = pool.submit(paired_phone.send, request)
        cloud.integrity.wait()
        other = access_point.phone(1)
        assert other.unpair(paired_phone.profile.device_id).status == 200
        assert answer.result().status == 412
    assert access_point.pairing(0)["status"] == "Invalid"
    assert paired_phone.pair().status == 200
