"""A cloud that fails in every way leaves the daemon serving and every phone paired."""

from __future__ import annotations

import contextlib
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from velm_harness.promptness import prompt_meanwhile
from velm_sim.access_point import AccessPoint
from velm_sim.answers import GARBAGE, HANG_UP, Answer
from velm_sim.cloud import HELLO_REQUEST, HOSTS, Cloud
from velm_sim.daemon import wait_until
from velm_sim.dns import DnsServer
from velm_sim.ipc_client import IpcClient
from velm_sim.limits import PUSH_GAP
from velm_sim.namespaces import Network
from velm_sim.phone import Phone

FAILURES: dict[str, Answer] = {
    "hangs up": HANG_UP,
    "talks garbage": GARBAGE,
    "sends no JSON": Answer(body=b"<html>"),
    "sends an empty body": Answer(body=b""),
    "cuts the body short": Answer(body=b'{"access_token": "x"}', cut_after=5),
    "sends a byte over 64 KiB": Answer.over_large((64 << 10) + 1),
    "sends two megabytes": Answer.over_large(2 << 20),
    "sends a hundred headers of a kibibyte": Answer(
        headers={f"X-{number:03}": "x" * 1017 for number in range(100)}
    ),
    "answers 400": Answer.json({"error": "invalid_grant"}, 400),
    "answers 429": Answer.json({"error": {"code": 429}}, 429),
    "answers 503": Answer(503, b""),
    "redirects": Answer(302, b"", {"Location": "https://www.example.org/"}),
    "sends a list": Answer.json([1, 2, 3]),
    "sends a token that is a number": Answer.json({"access_token": 123, "expires_in": 3600}),
}


def assert_still_serving(access_point: AccessPoint, phone: Phone, ipc: IpcClient) -> None:
    assert access_point.daemon_alive()
    assert access_point.pairing(0)["status"] == "Valid"
    assert phone.location().status == 200
    assert ipc.receive_report().valid == 1


@pytest.mark.parametrize("name", FAILURES)
def test_no_push_without_a_token_when_the_token_endpoint(
    name: str, access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    cloud.token.answer_always(FAILURES[name])
    ipc.request()
    cloud.token.wait()
    assert_still_serving(access_point, paired_phone, ipc)
    assert not cloud.fcm.requests


@pytest.mark.parametrize(("length", "accepted"), [(16 << 10, True), ((16 << 10) + 1, False)])
def test_the_largest_token_answer_has_16_kib(
    length: int,
    accepted: bool,
    access_point: AccessPoint,
    cloud: Cloud,
    paired_phone: Phone,
    ipc: IpcClient,
) -> None:
    body = b'{"access_token": "t", "expires_in": 3600}'.ljust(length)
    cloud.token.answer_next(Answer(body=body))
    ipc.request()
    if accepted:
        (push,) = cloud.fcm.wait()
        assert push.headers["authorization"] == "Bearer t"
    else:
        access_point.daemon.wait_log("http request failed")
        time.sleep(PUSH_GAP + 0.2)  # a push would leave in this time
        assert not cloud.fcm.requests
    assert_still_serving(access_point, paired_phone, ipc)


@pytest.mark.parametrize("name", FAILURES)
def test_a_phone_stays_paired_when_the_push_service(
    name: str, access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    cloud.fcm.answer_always(FAILURES[name])
    ipc.request()
    cloud.fcm.wait()
    assert_still_serving(access_point, paired_phone, ipc)


@pytest.mark.begun_first
def test_a_silent_cloud_is_given_up_after_ten_seconds(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    cloud.handshakes = False
    start = time.monotonic()
    ipc.request()
    access_point.daemon.wait_log("http request failed", timeout=13)
    assert 9.5 < time.monotonic() - start < 12
    assert_still_serving(access_point, paired_phone, ipc)


def test_an_answer_after_a_reload_reaches_nobody(
    access_point: AccessPoint,
    cloud: Cloud,
    paired_phone: Phone,
    connect_ipc: Callable[[], IpcClient],
) -> None:
    cloud.token.answer_next(Answer.json({"access_token": "t", "expires_in": 60}, delay=0.5))
    connect_ipc().request()
    cloud.token.wait()
    access_point.reload()
    wait_until(lambda: cloud.open_connections == 0, 5, "the answer is never given")
    assert_still_serving(access_point, paired_phone, connect_ipc())


@pytest.mark.each_tls
def test_a_reload_during_a_handshake_with_the_cloud_harms_nobody(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, connect_ipc: Callable[[], IpcClient]
) -> None:
    cloud.handshakes = False
    connect_ipc().request()
    wait_until(lambda: cloud.connections, 10, "nothing was connected")
    access_point.reload()
    cloud.drop_connections()
    access_point.daemon.wait_log("http request failed")
    assert_still_serving(access_point, paired_phone, connect_ipc())


@pytest.mark.movable_clock
def test_a_token_serves_until_its_last_second(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    cloud.token_lifetime = 200
    for pushes, (moment, tokens) in enumerate([(0, 1), (100, 1), (201, 2)], start=1):
        access_point.move_clock(moment)
        cloud.clock_offset = moment
        ipc.request()
        cloud.fcm.wait(pushes)
        assert len(cloud.token.requests) == tokens
    assert not cloud.refusals


@pytest.mark.movable_clock
def test_pushes_are_at_least_a_minute_apart(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request()
    cloud.fcm.wait(1)
    access_point.move_clock(55)
    ipc.request()
    access_point.daemon.wait_log("too often (limit 60)")
    access_point.move_clock(62)
    ipc.request()
    assert len(cloud.fcm.wait(2)) == 2


@pytest.fixture
def dns(network: Network) -> Iterator[DnsServer]:
    made = DnsServer(
        network.cloud, network.CLOUD_ADDRESS, dict.fromkeys(HOSTS, network.CLOUD_ADDRESS)
    )
    yield made
    made.stop()


def test_names_are_resolved_by_dns(
    cold_access_point: AccessPoint, cloud: Cloud, dns: DnsServer
) -> None:
    cold_access_point.etc.set_hosts({})
    cold_access_point.etc.set_resolvers([Network.CLOUD_ADDRESS])
    cold_access_point.start()
    assert cold_access_point.phone().pair().status == 200
    with IpcClient(cold_access_point.socket_path) as ipc:
        ipc.request()
        cloud.fcm.wait()
    assert {"oauth2.googleapis.com", "fcm.googleapis.com"} <= set(dns.asked)


def test_a_reload_while_a_name_is_looked_up_moves_the_question_to_the_new_server(
    cold_access_point: AccessPoint, cloud: Cloud, dns: DnsServer
) -> None:
    cold_access_point.etc.set_hosts({})
    cold_access_point.etc.set_resolvers(["192.0.2.1"])  # nobody is there
    cold_access_point.start()
    phone = cold_access_point.phone()
    assert phone.pair().status == 200
    with IpcClient(cold_access_point.socket_path) as ipc:
        ipc.request()
        cold_access_point.daemon.wait_log("velm_google_auth - request_access_token - payload")
        assert not cloud.connections
        cold_access_point.etc.set_resolvers([Network.CLOUD_ADDRESS])
        cold_access_point.reload()
    cloud.token.wait()
    assert dns.asked
    assert phone.location().status == 200


def test_name_servers_that_come_after_the_start_count(
    cold_access_point: AccessPoint, cloud: Cloud, dns: DnsServer
) -> None:
    cold_access_point.etc.set_hosts({})
    cold_access_point.etc.set_resolvers([])
    cold_access_point.start()
    assert cold_access_point.phone().pair().status == 200
    cold_access_point.etc.set_resolvers([Network.CLOUD_ADDRESS])
    with IpcClient(cold_access_point.socket_path) as ipc:
        ipc.request()
        cloud.fcm.wait()


@pytest.mark.parametrize(
    "addresses",
    [
        f"{Network.NOBODY_ADDRESS} {Network.CLOUD_ADDRESS}",
        f"192.0.2.1 192.0.2.2 {Network.UPLINK_ADDRESS} {Network.CLOUD_ADDRESS}",
        f"{Network.CLOUD_IPV6} {Network.CLOUD_ADDRESS}",
    ],
    ids=["of which the first is dead", "without a route or refusing", "and no IPv6 uplink"],
)
def test_the_cloud_is_reached_at_another_of_its_addresses(
    addresses: str, cold_access_point: AccessPoint, network: Network, cloud: Cloud
) -> None:
    pushed_by_dns(cold_access_point, network, cloud, addresses)


@pytest.mark.parametrize(
    "addresses",
    [Network.CLOUD_IPV6, f"{Network.CLOUD_ADDRESS} {Network.CLOUD_IPV6}"],
    ids=["alone", "and an IPv4 address that it cannot reach"],
)
def test_an_uplink_with_ipv6_alone_is_enough(
    addresses: str, cold_access_point: AccessPoint, network: Network, cloud: Cloud
) -> None:
    with network.ipv6_uplink(only=True), served_over_ipv6(cloud):
        pushed_by_dns(cold_access_point, network, cloud, addresses, Network.CLOUD_IPV6)


@pytest.fixture
def bad_address(network: Network, cloud: Cloud) -> Iterator[Cloud]:
    """Another address of the cloud, where a test tells what becomes of a client's greeting."""
    made = Cloud(network.cloud, Network.OTHER_CLOUD_ADDRESS, cloud.certificates, cloud.account)
    made.handshakes = False
    made.start()
    yield made
    made.stop()


@pytest.mark.parametrize("hangs_up", ["", "closes", "resets"], ids=["is silent", "closes", "resets"])
def test_an_address_of_the_cloud_is_left_for_the_next_when_at_a_greeting_it(
    hangs_up: str, cold_access_point: AccessPoint, cloud: Cloud, bad_address: Cloud
) -> None:
    bad_address.hangs_up = hangs_up
    both = [Network.OTHER_CLOUD_ADDRESS, Network.CLOUD_ADDRESS]
    cold_access_point.etc.set_hosts(dict.fromkeys(HOSTS, both))
    cold_access_point.start()
    phone = cold_access_point.phone()
    assert phone.pair().status == 200
    with IpcClient(cold_access_point.socket_path) as ipc:
        ipc.request()
        cloud.fcm.wait(timeout=8)
        assert_still_serving(cold_access_point, phone, ipc)
    assert bad_address.connections == 2, "for the token and for the push"
    assert not cloud.refusals


@pytest.mark.each_tls
def test_a_certificate_that_is_refused_is_an_answer(
    cold_access_point: AccessPoint, cloud: Cloud, bad_address: Cloud
) -> None:
    bad_address.handshakes, bad_address.certificate = True, "self_signed"
    both = [Network.OTHER_CLOUD_ADDRESS, Network.CLOUD_ADDRESS]
    cold_access_point.etc.set_hosts(dict.fromkeys(HOSTS, both))
    cold_access_point.start()
    assert cold_access_point.phone().pair().status == 200
    with IpcClient(cold_access_point.socket_path) as ipc:
        ipc.request()
        cold_access_point.daemon.wait_log("http request failed: -2")
    assert (bad_address.connections, cloud.connections) == (1, 0)


@contextlib.contextmanager
def served_over_ipv6(cloud: Cloud) -> Iterator[None]:
    cloud.stop()
    cloud.address = Network.CLOUD_IPV6
    cloud.start()
    try:
        yield
    finally:
        cloud.stop()
        cloud.address = Network.CLOUD_ADDRESS
        cloud.start()


def pushed_by_dns(
    access_point: AccessPoint,
    network: Network,
    cloud: Cloud,
    addresses: str,
    server: str = Network.CLOUD_ADDRESS,
) -> None:
    """A push reaches the cloud well within its ten seconds when DNS tells these addresses of it."""
    dns = DnsServer(network.cloud, server, dict.fromkeys(HOSTS, addresses))
    try:
        access_point.etc.set_hosts({})
        access_point.etc.set_resolvers([server])
        access_point.start()
        phone = access_point.phone()
        assert phone.pair().status == 200
        with IpcClient(access_point.socket_path) as ipc:
            ipc.request()
            cloud.fcm.wait(timeout=8)
            assert_still_serving(access_point, phone, ipc)
    finally:
        dns.stop()
    assert not cloud.refusals


GRANT = b'{"access_token": "t", "expires_in": 3600}'
WITHOUT_FAREWELL = {
    "a length": Answer(raw=Answer(body=GRANT.ljust(16000)).head() + GRANT.ljust(16000)),
    "a last chunk": Answer(
        raw=b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3e80\r\n"
        + GRANT.ljust(16000)
        + b"\r\n0\r\n\r\n"
    ),
}


@pytest.mark.parametrize("end", WITHOUT_FAREWELL)
@pytest.mark.each_tls
def test_an_answer_without_a_farewell_is_whole_with(
    end: str, access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    cloud.token.answer_always(WITHOUT_FAREWELL[end])
    cloud.fcm.answer_always(Answer(raw=Answer(body=b" " * 17000).head() + b" " * 17000))
    ipc.request()
    access_point.daemon.wait_log("send_push_handler")
    assert "err 1 on req" not in access_point.daemon.log()
    assert "- code: 200" in access_point.daemon.log()
    assert_still_serving(access_point, paired_phone, ipc)


@pytest.mark.each_tls
def test_an_answer_without_any_end_or_farewell_is_none(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    cloud.token.answer_always(Answer(raw=b"HTTP/1.1 200 OK\r\n\r\n" + GRANT))
    ipc.request()
    access_point.daemon.wait_log("http request failed: -2")
    assert_still_serving(access_point, paired_phone, ipc)


@pytest.mark.parametrize("kind", ["bytes", "chunks"])
@pytest.mark.each_tls
def test_an_answer_in_pieces_of_one_byte_costs_its_length(
    kind: str, access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    head, body = b"HTTP/1.1 200 OK\r\n\r\n", b" " * 40000
    if kind == "chunks":
        head = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
        body = b"1\r\n \r\n" * 40000
    cloud.fcm.answer_always(Answer(raw=head + body, piece=1 if kind == "bytes" else 6))
    ipc.request()
    cloud.token.wait()
    before = peak_kib(access_point)
    access_point.daemon.wait_log("send_push_handler")
    assert peak_kib(access_point) - before < access_point.build.memory_limit_kib(1024)
    assert_still_serving(access_point, paired_phone, ipc)


def peak_kib(access_point: AccessPoint) -> int:
    status = Path(f"/proc/{access_point.daemon.pid}/status").read_text()
    return int(status.partition("VmHWM:")[2].split()[0])


def test_an_uplink_that_says_hello_for_ever_is_left_at_once(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    cloud.handshakes, cloud.flood = False, HELLO_REQUEST * 1000
    with prompt_meanwhile(access_point.daemon, access_point.lan_host(1)):
        ipc.request()
        access_point.daemon.wait_log("http request failed", timeout=13)
    assert cloud.connections == 1
    assert "records that carry nothing" in access_point.daemon.log()
    assert_still_serving(access_point, paired_phone, ipc)
