"""A cloud that is dead, slow, lying or cut off anywhere: phones and `/info` notice nothing of it."""

from __future__ import annotations

import base64
import contextlib
import itertools
import socket
import time
from collections.abc import Callable, Iterator
from dataclasses import replace

import pytest
from velm_harness.promptness import assert_prompt, latencies, prompt_meanwhile
from velm_harness.sample import Sample
from velm_sim.access_point import AccessPoint
from velm_sim.answers import SILENCE, Answer, Endpoint
from velm_sim.cloud import HELLO_REQUEST, HOSTS, Cloud
from velm_sim.daemon import wait_until
from velm_sim.dns import DnsServer
from velm_sim.ipc_client import IpcClient
from velm_sim.namespaces import Network
from velm_sim.phone import Phone, Prepared
from velm_sim.play_integrity import open_token


@contextlib.contextmanager
def refusing(cloud: Cloud) -> Iterator[None]:
    cloud.stop()
    try:
        yield
    finally:
        cloud.start()


@contextlib.contextmanager
def changed(cloud: Cloud, **attributes: object) -> Iterator[None]:
    for name, value in attributes.items():
        setattr(cloud, name, value)
    yield


@contextlib.contextmanager
def answering(cloud: Cloud, answer: Answer) -> Iterator[None]:
    cloud.token.answer_always(answer)
    yield


TROUBLES: dict[str, Callable[[Network, Cloud], contextlib.AbstractContextManager[None]]] = {
    "refuses": lambda network, cloud: refusing(cloud),
    "is a black hole": lambda network, cloud: network.cloud_out_of_reach(),
    "stalls in TLS": lambda network, cloud: changed(cloud, handshakes=False),
    "has another certificate": lambda network, cloud: changed(cloud, certificate="other_ca"),
    "is silent": lambda network, cloud: answering(cloud, SILENCE),
    "drips": lambda network, cloud: answering(cloud, Answer(body=b" " * 999, drip=0.02)),
    "floods the handshake": lambda network, cloud: changed(
        cloud, handshakes=False, flood=HELLO_REQUEST * 7000
    ),
    "floods the handshake with full records": lambda network, cloud: changed(
        cloud, handshakes=False, flood=bytes.fromhex("16 0303 4000") + bytes(16384)
    ),
    "sends a mebibyte": lambda network, cloud: answering(cloud, Answer.over_large(1 << 20)),
}


@pytest.mark.parametrize("trouble", TROUBLES)
def test_info_is_prompt_while_the_cloud(
    trouble: str,
    access_point: AccessPoint,
    network: Network,
    cloud: Cloud,
    paired_phone: Phone,
    ipc: IpcClient,
) -> None:
    with access_point.lan_host(1).session() as session, TROUBLES[trouble](network, cloud):
        session.connect()
        control = latencies(access_point.daemon, session)
        ipc.request()
        access_point.daemon.wait_log("oauth2.googleapis.com")
        assert_prompt(latencies(access_point.daemon, session), control)
    assert paired_phone.location().status == 200
    assert ipc.receive_report().valid == 1


# DNS.


class OddDnsServer(DnsServer):
    """Answers late, or wrongly."""

    def __init__(self, network: Network, delay: float, bend: Callable[[bytes], bytes]) -> None:
        self.delay, self.bend = delay, bend
        address = Network.CLOUD_ADDRESS
        super().__init__(network.cloud, address, dict.fromkeys(HOSTS, address))

    def _reply(self, query: bytes) -> bytes | None:
        reply = super()._reply(query)
        time.sleep(self.delay)
        return self.bend(reply) if reply else None


def lie(reply: bytes) -> bytes:
    """Another address at the end of the only record: the access point's own."""
    own = socket.inet_aton(Network.UPLINK_ADDRESS)
    return reply[:-4] + own if reply[6:8] == b"\0\1" else reply


LIES: dict[str, tuple[float, Callable[[bytes], bytes]]] = {
    "is slow": (1.0, lambda reply: reply),
    "names another host": (0, lie),
    "knows no such name": (0, lambda reply: reply[:3] + b"\x83" + reply[4:]),
    "fails": (0, lambda reply: reply[:3] + b"\x82" + reply[4:]),
    "answers something else": (0, lambda reply: b"\xff\xff" + reply[2:]),
    "answers half": (0, lambda reply: reply[: len(reply) // 2]),
    "sends garbage": (0, lambda reply: b"\xc0\x0c" * 200),
    "counts a thousand records": (0, lambda reply: reply[:6] + b"\x03\xe8" + reply[8:]),
}


@pytest.mark.parametrize("name", LIES)
def test_info_is_prompt_while_the_name_server(
    name: str, cold_access_point: AccessPoint, network: Network, cloud: Cloud
) -> None:
    access_point = cold_access_point
    access_point.etc.set_hosts({})
    access_point.etc.set_resolvers([Network.CLOUD_ADDRESS])
    access_point.start()
    phone = access_point.phone()
    assert phone.pair().status == 200
    server = OddDnsServer(network, *LIES[name])
    try:
        with IpcClient(access_point.socket_path) as ipc, (
            access_point.lan_host(1).session()
        ) as session:
            session.connect()
            control = latencies(access_point.daemon, session)
            ipc.request()
            wait_until(lambda: bool(server.asked), 5, "the name server is not asked")
            assert_prompt(latencies(access_point.daemon, session), control)
            if name == "is slow":
                cloud.token.wait()
            else:
                assert not cloud.token.requests
            assert phone.location().status == 200
            assert ipc.receive_report().valid == 1
    finally:
        server.stop()


# Answers.

STATUSES = [*range(100, 104), *range(199, 210), 226, 299, *range(300, 309), 399,
            *range(400, 452), *range(499, 512), 599, 600, 999]  # fmt: skip


class Pushes:
    """One push after another: the clock is moved on, since one a minute is all there is."""

    def __init__(self, access_point: AccessPoint, cloud: Cloud, ipc: IpcClient) -> None:
        self.access_point, self.cloud, self.ipc = access_point, cloud, ipc
        self.count = 0

    def ask(self, endpoint: Endpoint, answer: Answer) -> None:
        """Has a push begin in which that endpoint answers so."""
        self.count += 1
        self.access_point.move_clock(61 * self.count)
        self.cloud.clock_offset = 61 * self.count
        endpoint.answer_next(answer)
        asked = len(endpoint.requests)
        self.ipc.request()
        endpoint.wait(asked + 1)

    def push(self, answer: Answer) -> None:
        """Returns when the daemon has taken the answer to the push."""
        self._wait_for("send_push_handler", self.cloud.fcm, answer)

    def fail_for_want_of_a_token(self, answer: Answer) -> None:
        """Returns when the daemon has taken the answer of the token endpoint, which holds none."""
        self._wait_for("missing access_token", self.cloud.token, answer)

    def _wait_for(self, end: str, endpoint: Endpoint, answer: Answer) -> None:
        mark = self.access_point.daemon.log_mark()
        self.ask(endpoint, answer)
        self.access_point.daemon.wait_log(end, start=mark)
        wait_until(lambda: not self.cloud.open_connections, 5, "the answer is not taken")

    def pairing(self) -> str | None:
        return self.access_point.pairing(0)["status"]


@pytest.fixture
def pushes(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> Pushes:
    return Pushes(access_point, cloud, ipc)


@pytest.mark.movable_clock
@pytest.mark.begun_first
def test_of_all_answers_only_404_to_a_push_unpairs_a_phone(
    pushes: Pushes, access_point: AccessPoint, sample: Sample
) -> None:
    with prompt_meanwhile(access_point.daemon, access_point.lan_host(1)):
        for status in sample.of(STATUSES, 9):
            if status != 404:
                pushes.push(Answer(status, b"{}"))
                assert pushes.pairing() == "Valid", status
    pushes.push(Answer(404, b"{}"))
    wait_until(lambda: pushes.pairing() == "Invalid", 5, "still paired")


def cuts(answer: Answer, sample: Sample, one_in: int) -> Iterator[Answer]:
    """The answer without its last bytes: all the lengths, or some of them and the longest."""
    raw = answer.head() + answer.body
    for end in sorted({*sample.of(range(len(raw)), one_in), len(raw) - 1}):
        yield replace(answer, raw=raw[:end])


@pytest.mark.movable_clock
@pytest.mark.begun_first
def test_an_answer_to_a_push_that_is_cut_at_any_byte_unpairs_nobody(
    pushes: Pushes, access_point: AccessPoint, paired_phone: Phone, sample: Sample
) -> None:
    whole = Answer.json({"error": {"code": 404}}, 404)
    with prompt_meanwhile(access_point.daemon, access_point.lan_host(1)):
        for cut in cuts(whole, sample, 17):
            pushes.push(cut)
            assert pushes.pairing() == "Valid", cut.raw
    assert paired_phone.location().status == 200
    assert pushes.ipc.receive_report().valid == 1
    pushes.push(whole)
    wait_until(lambda: pushes.pairing() == "Invalid", 5, "still paired")


@pytest.mark.movable_clock
@pytest.mark.begun_first
def test_an_access_token_that_is_cut_at_any_byte_is_none(
    pushes: Pushes, access_point: AccessPoint, cloud: Cloud, sample: Sample
) -> None:
    whole = Answer.json({"access_token": "t", "expires_in": 1})
    with prompt_meanwhile(access_point.daemon, access_point.lan_host(1)):
        for cut in cuts(whole, sample, 17):
            pushes.fail_for_want_of_a_token(cut)
    assert not cloud.fcm.requests
    assert pushes.pairing() == "Valid"
    pushes.ask(cloud.token, whole)
    (push,) = cloud.fcm.wait()
    assert push.headers["authorization"] == "Bearer t"


@pytest.mark.begun_first
def test_a_verdict_that_is_cut_at_any_byte_lets_nobody_in(
    access_point: AccessPoint, cloud: Cloud, ipc: IpcClient, sample: Sample
) -> None:
    phone = access_point.android_phone()
    assert phone.pair().status == 200

    def verdict(request: Prepared) -> Answer:
        token = base64.b64decode(request.headers["X-Assertion"]).decode()
        return Answer.json({"tokenPayloadExternal": open_token(phone.integrity, token)})

    length = sum(1 for _ in cuts(verdict(phone.prepare_location()), sample, 29))
    with prompt_meanwhile(access_point.daemon, access_point.lan_host(1)):
        for number in range(length):
            request = phone.prepare_location()
            cut = next(itertools.islice(cuts(verdict(request), sample, 29), number, None))
            cloud.integrity.answer_next(cut)
            assert phone.send(request).status == 412, cut.raw
    assert ipc.is_silent(0.1)
    request = phone.prepare_location()
    whole = verdict(request)
    cloud.integrity.answer_next(replace(whole, raw=whole.head() + whole.body))
    assert phone.send(request).status == 200
    assert ipc.receive_report().valid == 1
    assert len(cloud.integrity.requests) == 1 + length + 1  # each of them was asked for
