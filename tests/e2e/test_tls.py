"""What is negotiated on both sides of the daemon is what the option --tls allows."""

from __future__ import annotations

import socket
import ssl
import struct
from collections.abc import Iterator

import pytest
from velm_harness.bare_tls import shaken_hands
from velm_sim.cloud import Cloud
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
