"""What is negotiated on both sides of the daemon is what the option --tls allows."""

from __future__ import annotations

import http.client
import socket
import ssl
import struct
from collections.abc import Callable, Iterator

import pytest
from velm_harness.bare_tls import shaken_hands
from velm_sim.access_point import AccessPoint
from velm_sim.cloud import Cloud
from velm_sim.daemon import wait_until
from velm_sim.ipc_client import IpcClient
from velm_sim.phone import Phone
from velm_sim.tls_policy import DEFAULT, TlsPolicy, negotiated


def expected_version(policy: TlsPolicy) -> str:
    return "TLSv1.3" if policy == DEFAULT else f"TLSv{policy.name}"


@pytest.mark.each_machine
@pytest.mark.each_tls
def test_a_phone_gets_the_version_and_cipher_that_it_allows(
    phone: Phone, tls_policy: TlsPolicy
) -> None:
    with phone.host.connect_tls() as connection:
        agreed = negotiated(connection)
    assert agreed[0] == expected_version(tls_policy)
    assert tls_policy.allows(agreed)


@pytest.mark.each_machine
@pytest.mark.each_tls
def test_the_daemon_takes_the_version_and_cipher_that_the_cloud_allows(
    cloud: Cloud, paired_phone: Phone, ipc: IpcClient, tls_policy: TlsPolicy
) -> None:
    ipc.request()
    (push,) = cloud.fcm.wait()
    assert push.json()["message"]["token"] == paired_phone.profile.push_token
    assert len(cloud.negotiated) == 2  # one for the token, one for the push
    for agreed in cloud.negotiated:
        assert agreed[0] == expected_version(tls_policy)
        assert tls_policy.allows(agreed)


def push(number: int, access_point: AccessPoint, cloud: Cloud, ipc: IpcClient) -> None:
    """Each a minute after the one before."""
    access_point.move_clock(number * 61)
    cloud.clock_offset = number * 61
    ipc.request()
    cloud.fcm.wait(number + 1)
    wait_until(lambda: not cloud.open_connections, 10, "the connection does not end")


@pytest.mark.each_machine
@pytest.mark.each_tls
@pytest.mark.movable_clock
def test_a_push_goes_on_from_the_session_of_the_one_before(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient,
    tls_policy: TlsPolicy,
) -> None:  # fmt: skip
    for number in range(3):
        push(number, access_point, cloud, ipc)
    goes_on = expected_version(tls_policy) == "TLSv1.3"
    # The first connection was for the token, to another host.
    assert cloud.resumed == [False, False, goes_on, goes_on]


@pytest.mark.movable_clock
def test_after_a_reload_the_cloud_shows_its_certificate_again(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, connect_ipc: Callable[[], IpcClient]
) -> None:
    push(0, access_point, cloud, connect_ipc())
    access_point.reload()
    push(1, access_point, cloud, connect_ipc())
    assert not any(cloud.resumed)


@pytest.mark.movable_clock
def test_a_session_does_not_help_a_cloud_with_a_wrong_certificate(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    push(0, access_point, cloud, ipc)
    cloud.certificate = "other_ca"
    access_point.move_clock(61)
    ipc.request()
    access_point.daemon.wait_log("HTTPS NOK - verify cert error: unable to get local issuer certificate")
    assert len(cloud.fcm.requests) == 1


Shaken = tuple[socket.socket, ssl.SSLObject, ssl.MemoryBIO]


@pytest.fixture
def shaken(phone: Phone, tls_policy: TlsPolicy) -> Iterator[Shaken]:
    """A TLS 1.3 handshake from which the client's last words have not been sent yet."""
    if expected_version(tls_policy) != "TLSv1.3":
        pytest.skip("in TLS 1.2 the ticket is a part of the handshake")
    made = shaken_hands(phone.host)
    with made[0]:
        yield made


def records(received: bytes) -> int:
    count = 0
    while received:
        count += 1
        received = received[5 + int.from_bytes(received[3:5], "big") :]
    return count


def packets_with_data(raw: socket.socket) -> int:
    """Received so far, by the kernel's count (tcpi_data_segs_in)."""
    info = raw.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 160)
    return int(struct.unpack_from("=I", info, 152)[0])


def test_the_ticket_comes_in_one_packet_with_the_first_answer(shaken: Shaken) -> None:
    raw, client, outgoing = shaken
    client.write(b"GET /info HTTP/1.1\r\nHost: x\r\n\r\n")
    before, received = packets_with_data(raw), b""
    raw.sendall(outgoing.read())
    while records(received) < 2:
        received += raw.recv(65536)
    assert packets_with_data(raw) - before == 1


def test_the_ticket_comes_within_a_second_when_nothing_is_asked(shaken: Shaken) -> None:
    raw, _, outgoing = shaken
    raw.sendall(outgoing.read())
    raw.settimeout(1)
    assert records(raw.recv(65536)) == 1


@pytest.mark.each_machine
@pytest.mark.each_tls
def test_a_phone_that_ends_without_a_goodbye_is_told_nothing(phone: Phone) -> None:
    with phone.host.connect_tls() as connection:
        connection.sendall(b"GET /info HTTP/1.1\r\nHost: x\r\n\r\n")
        answer = http.client.HTTPResponse(connection)
        answer.begin()
        assert answer.read()
        connection.shutdown(socket.SHUT_WR)  # ends TCP only; from here on recv() gives raw bytes
        assert connection.recv(65536) == b""
