"""A cloud that is dead, slow, lying or cut off anywhere: phones and `/info` notice nothing of it."""

from __future__ import annotations

import contextlib
import socket
import time
from collections.abc import Callable, Iterator
from dataclasses import replace

import pytest
from velm_sim.access_point import AccessPoint
from velm_sim.answers import SILENCE, Answer
from velm_sim.cloud import HOSTS, Cloud
from velm_sim.daemon import wait_until
from velm_sim.dns import DnsServer
from velm_sim.ipc_client import IpcClient
from velm_sim.namespaces import Network
from velm_sim.phone import Phone
from velm_sim.promptness import assert_prompt, latencies


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
        control = latencies(session)
        ipc.request()
        access_point.daemon.wait_log("oauth2.googleapis.com")
        assert_prompt(latencies(session), control)
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
            control = latencies(session)
            ipc.request()
            wait_until(lambda: bool(server.asked), 5, "the name server is not asked")
            assert_prompt(latencies(session), control)
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


@pytest.mark.movable_clock
@pytest.mark.begun_first
def test_of_all_answers_only_404_to_a_push_unpairs_a_phone(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient,
    pytestconfig: pytest.Config,
) -> None:  # fmt: skip
    every = 1 if pytestconfig.getoption("--every-fault") else 9
    pushes = Pushes(access_point, cloud, ipc)
    for status in STATUSES[::every]:
        if status != 404:
            pushes.push(Answer(status, b"{}"))
            assert access_point.pairing(0)["status"] == "Valid", status
    pushes.push(Answer(404, b"{}"))
    wait_until(lambda: access_point.pairing(0)["status"] == "Invalid", 5, "still paired")


@pytest.mark.movable_clock
@pytest.mark.begun_first
@pytest.mark.parametrize("service", ["token", "push"])
def test_an_answer_cut_at_any_byte_harms_nobody(
    service: str,
    access_point: AccessPoint,
    cloud: Cloud,
    paired_phone: Phone,
    ipc: IpcClient,
    pytestconfig: pytest.Config,
) -> None:
    every = 1 if pytestconfig.getoption("--every-fault") else 17
    body = {"token": {"access_token": "t", "expires_in": 1}, "push": {"error": {"code": 404}}}
    whole = Answer.json(body[service], 404 if service == "push" else 200)
    raw = whole.head() + whole.body
    pushes = Pushes(access_point, cloud, ipc)
    # Short of its last byte, an answer that would unpair the phone does nothing.
    status_line = raw.index(b"\r\n\r\n") + 4
    for end in range(0, len(raw), every):
        pushes.push(replace(whole, raw=raw[:end]), service)
        assert access_point.pairing(0)["status"] == "Valid", (end, status_line)
    assert paired_phone.location().status == 200
    assert ipc.receive_report().valid == 1
    assert access_point.lan_host(1).request("/info").status == 200


class Pushes:
    """One push after another: the clock is moved on, since one a minute is all there is."""

    def __init__(self, access_point: AccessPoint, cloud: Cloud, ipc: IpcClient) -> None:
        self.access_point, self.cloud, self.ipc = access_point, cloud, ipc
        self.count = 0

    def push(self, answer: Answer, service: str = "push") -> None:
        """Returns when the daemon has taken the answer."""
        self.count += 1
        self.access_point.move_clock(61 * self.count)
        self.cloud.clock_offset = 61 * self.count
        endpoint = self.cloud.token if service == "token" else self.cloud.fcm
        endpoint.answer_next(answer)
        mark = self.access_point.daemon.log_mark()
        asked = len(endpoint.requests)
        self.ipc.request()
        endpoint.wait(asked + 1)
        end = "send_push_handler" if service == "push" else "token"
        self.access_point.daemon.wait_log(end, start=mark)
        wait_until(lambda: not self.cloud.open_connections, 5, "the answer is not taken")
