"""Peers that leave, stall, flood or lie hold no more than their own connection."""

from __future__ import annotations

import contextlib
import itertools
import os
import resource
import socket
import ssl
import struct
import time
from collections.abc import Callable, Iterator

import pytest
from velm_harness.bare_tls import shaken_hands
from velm_sim.access_point import AccessPoint
from velm_sim.daemon import wait_until
from velm_sim.ipc_client import HEADER, REQUEST, STATUS_NO_PAIRED_DEVICES, IpcClient
from velm_sim.lan_http import LanHost
from velm_sim.limits import CONNECTIONS, CONNECTIONS_PER_HOST, LOCAL_CLIENTS
from velm_sim.phone import Phone, sample_location

# No connection that does nothing useful is kept for longer.
LONGEST_STALL = 45.0


def reset(connection: socket.socket) -> None:
    """Leaves without a goodbye."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def half_handshake(host: LanHost) -> socket.socket:
    """A TCP connection on which a TLS client has said its first word only."""
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    client = host.context().wrap_bio(incoming, outgoing, server_hostname=host.server)
    with pytest.raises(ssl.SSLWantReadError):
        client.do_handshake()
    raw = host.connect_tcp()
    raw.sendall(outgoing.read())
    return raw


def after_handshake(sent: bytes) -> Callable[[LanHost], socket.socket]:
    def connect(host: LanHost) -> socket.socket:
        tls = host.connect_tls()
        tls.sendall(sent)
        return tls

    return connect


STALLS: dict[str, Callable[[LanHost], socket.socket]] = {
    "nothing at all": lambda host: host.connect_tcp(),
    "half a handshake": half_handshake,
    "no request": after_handshake(b""),
    "half a request line": after_handshake(b"GET /in"),
    "half the headers": after_handshake(b"POST /pair HTTP/1.1\r\nHost: x\r\n"),
    "half a body": after_handshake(b"POST /pair HTTP/1.1\r\nContent-Length: 100\r\n\r\n{"),
    "no second request": after_handshake(b"GET /info HTTP/1.1\r\nHost: x\r\n\r\n"),
    "HTTP/0.9": after_handshake(b"GET /info\r\n"),
}


def is_closed(connection: socket.socket) -> bool:
    connection.setblocking(False)
    try:
        while connection.recv(65536):
            pass
    except (BlockingIOError, ssl.SSLWantReadError):
        return False
    except OSError:
        return True
    return True


@pytest.mark.begun_first
def test_stalled_and_dripping_connections_are_closed_after_a_bounded_time(
    access_point: AccessPoint,
) -> None:
    before = access_point.daemon.descriptors()
    dripping = access_point.lan_host(5).connect_tls()
    dripping.sendall(b"GET /info HTTP/1.1\r\n")

    def are_closed() -> bool:
        with contextlib.suppress(OSError):  # it is closed
            dripping.sendall(b"X-Drip: 1\r\n")
        time.sleep(0.5)
        return is_closed(dripping) and all(map(is_closed, stalled))

    # Addresses differ, since one address may hold a few connections only.
    stalled = [
        connect(access_point.lan_host(number % 4)) for number, connect in enumerate(STALLS.values())
    ]
    try:
        wait_until(are_closed, LONGEST_STALL, "stalled connections stay open")
    finally:
        for connection in (dripping, *stalled):
            connection.close()
    wait_until(lambda: access_point.daemon.descriptors() <= before, 5, "descriptors stay open")


@pytest.mark.parametrize("leave", [reset, socket.socket.close])
@pytest.mark.parametrize("stall", STALLS)
def test_a_peer_that_leaves_takes_everything_with_it_after(
    stall: str, leave: Callable[[socket.socket], None], access_point: AccessPoint
) -> None:
    before = access_point.daemon.descriptors()
    leave(STALLS[stall](access_point.lan_host()))
    wait_until(lambda: access_point.daemon.descriptors() <= before, 5, "descriptors stay open")
    assert access_point.phone().info().status == 200


@pytest.mark.parametrize("stall", STALLS)
def test_a_reload_is_safe_while_a_peer_sends(stall: str, access_point: AccessPoint) -> None:
    connection = STALLS[stall](access_point.lan_host())
    access_point.reload()
    wait_until(lambda: is_closed(connection), 5, "the old server's connection stays open")
    connection.close()
    assert access_point.phone().info().status == 200


def test_a_flood_of_headers_is_cut_off(access_point: AccessPoint) -> None:
    assert access_point.phone().info().status == 200  # what the first connection makes, stays
    before = access_point.daemon.resident_kib()
    with access_point.lan_host().connect_tls() as tls:
        tls.sendall(b"GET /info HTTP/1.1\r\n")
        with pytest.raises(OSError):
            for number in range(4000):
                tls.sendall(b"X-%d: %s\r\n" % (number, b"x" * 4000))
    assert access_point.daemon.resident_kib() - before < access_point.build.memory_limit_kib(256)
    assert access_point.phone().info().status == 200


HOSTS_THAT_FILL_IT = CONNECTIONS // CONNECTIONS_PER_HOST
# What connections without a login may add to the daemon's memory: those of one host, and all.
ONE_HOST_KIB = 464  # 64 of it at the end of the heap, kept for the next one
ALL_HOSTS_KIB = 1300


@pytest.fixture
def open_connections(
    access_point: AccessPoint,
) -> Iterator[Callable[..., list[socket.socket]]]:
    """Opens so many connections from one host of the LAN, with TLS or without."""
    opened: list[socket.socket] = []

    def connect(host: int, count: int, *, tls: bool = True) -> list[socket.socket]:
        lan_host = access_point.lan_host(host)
        dial = lan_host.connect_tls if tls else lan_host.connect_tcp
        made = [dial() for _ in range(count)]
        opened.extend(made)
        return made

    yield connect
    for connection in opened:
        connection.close()


def say(connections: list[socket.socket], data: bytes) -> None:
    for connection in connections:
        with contextlib.suppress(OSError):  # one that is cut off while it still sends
            connection.sendall(data)


def serves(connection: socket.socket) -> bool:
    connection.sendall(b"GET /info HTTP/1.1\r\nHost: x\r\n\r\n")
    return connection.recv(4096).startswith(b"HTTP/1.1 200 ")


UNFINISHED: dict[str, bytes] = {
    "heads of 60 KiB": b"GET /info HTTP/1.1\r\n" + b"X: %s\r\n" % (b"x" * 6000) * 10,
    "bodies that lack a byte": b"POST /pair HTTP/1.1\r\nContent-Length: 8192\r\n"
    + b"X-Attestation: %s\r\nX-Assertion: %s\r\n\r\n" % (b"a" * 16384, b"b" * 16384)
    + b"x" * 8191,
    "requests behind requests": (b"GET /info HTTP/1.1\r\nX: %s\r\n\r\n" % (b"x" * 8000)) * 8,
    "refused bodies": b"POST /pair HTTP/1.1\r\nContent-Length: 8193\r\n\r\n" + b"x" * 60000,
    "chunks of a byte": b"POST /pair HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"
    + b"1\r\nx\r\n" * 8191,
    "queries of many parts": b"GET /info?" + b"&" * 8170 + b" HTTP/1.1\r\nHost: x\r\n\r\n",
    "a form of many parts": b"POST /pair HTTP/1.1\r\nContent-Length: 8192\r\n"
    + b"Content-Type: application/x-www-form-urlencoded\r\n\r\n"
    + b"&" * 8192,
    "flat JSON": b'POST /pair HTTP/1.1\r\nContent-Length: 8017\r\n\r\n{"auth":{},"x":['
    + b"1," * 3999
    + b"1]}",
}


def half_greeting(host: LanHost) -> socket.socket:
    raw = host.connect_tcp()
    raw.sendall(b"\x16\x03\x01\x40\x00\x01\x02\x01\x40" + bytes(15000))
    return raw


def half_record(host: LanHost) -> socket.socket:
    """After the handshake, all but the last byte of the longest record."""
    raw, client, outgoing = shaken_hands(host)
    client.write(bytes(16384))
    raw.sendall(outgoing.read()[:-1])
    return raw


def dripped_body(host: LanHost) -> socket.socket:
    """All but the last byte of a body, each in a TLS record of its own."""
    raw, client, outgoing = shaken_hands(host)
    client.write(b"POST /pair HTTP/1.1\r\nContent-Length: 8192\r\n\r\n")
    for _ in range(8191):
        client.write(b"x")
    with contextlib.suppress(OSError):  # cut off while it still sends
        raw.sendall(outgoing.read())
    return raw


def sending(data: bytes) -> Callable[[LanHost], socket.socket]:
    def connect(host: LanHost) -> socket.socket:
        tls = host.connect_tls()
        with contextlib.suppress(OSError):  # cut off while it still sends
            tls.sendall(data)
        return tls

    return connect


NEXT = itertools.count()


def sending_any(host: LanHost) -> socket.socket:
    """Something else each time."""
    kinds = [fill for name, fill in FILLINGS.items() if name != "all at once"]
    return kinds[next(NEXT) % len(kinds)](host)


FILLINGS: dict[str, Callable[[LanHost], socket.socket]] = {
    "nothing at all": STALLS["nothing at all"],
    "half a handshake": half_handshake,
    "half a greeting": half_greeting,
    "half a record": half_record,
    "no request": STALLS["no request"],
    **{name: sending(data) for name, data in UNFINISHED.items()},
    "bodies byte by byte": dripped_body,
    "all at once": sending_any,
}


@pytest.mark.parametrize("hosts", [1, HOSTS_THAT_FILL_IT])
@pytest.mark.parametrize("name", FILLINGS)
def test_memory_stays_within_its_bound_while_connections_are_filled_with(
    name: str, hosts: int, access_point: AccessPoint
) -> None:
    """By one host, which may open a quarter of all connections, or by as many as fill them."""
    daemon = access_point.daemon
    assert access_point.phone().info().status == 200
    mark, before, others = daemon.log_mark(), daemon.resident_kib(), daemon.descriptors()
    limit = access_point.build.memory_limit_kib(ONE_HOST_KIB if hosts == 1 else ALL_HOSTS_KIB)
    connections = []
    for number in range(hosts * CONNECTIONS_PER_HOST):
        connections.append(FILLINGS[name](access_point.lan_host(number % hosts)))
        assert daemon.resident_kib() - before < limit
    assert "too many connections" not in daemon.log(mark)
    if hosts == 1:
        assert access_point.phone(1).info().status == 200
    time.sleep(0.3)  # the time to take it all in
    assert daemon.resident_kib() - before < limit
    for connection in connections:
        connection.close()
    wait_until(lambda: daemon.descriptors() <= others, 5, "descriptors stay open")
    assert access_point.phone().info().status == 200


def test_half_a_handshake_keeps_nobody_waiting_for_long(access_point: AccessPoint) -> None:
    """Not even who shares the address with somebody who begins as many as he may."""
    stalled = [half_handshake(access_point.lan_host()) for _ in range(4)]
    begin = time.monotonic()
    assert access_point.phone(1).info().status == 200
    assert time.monotonic() - begin < 1
    assert access_point.phone(0).info().status == 200
    assert time.monotonic() - begin < 8
    for connection in stalled:
        connection.close()


def test_a_greeting_without_end_takes_no_memory(
    access_point: AccessPoint, open_connections: Callable[..., list[socket.socket]]
) -> None:
    connections = [
        connection
        for host in range(HOSTS_THAT_FILL_IT)
        for connection in open_connections(host, CONNECTIONS_PER_HOST, tls=False)
    ]
    record = b"\x16\x03\x01\x40\x00"
    say(connections, record + b"\x01\x02\x01\x40" + bytes(16380))  # of 131,392 bytes, it says
    time.sleep(0.3)
    before = access_point.daemon.resident_kib()
    for _ in range(6):
        say(connections, record + bytes(16384))
    wait_until(lambda: all(map(is_closed, connections)), 5, "an endless greeting is taken")
    assert access_point.daemon.resident_kib() - before < access_point.build.memory_limit_kib(512)
    assert access_point.phone().info().status == 200


def test_who_takes_much_makes_room_for_who_takes_little(
    access_point: AccessPoint,
    paired_phone: Phone,
    open_connections: Callable[..., list[socket.socket]],
) -> None:
    mark = access_point.daemon.log_mark()
    request = paired_phone.prepare_pair()
    with access_point.lan_host(5).session() as session:
        session.connect()
        say(open_connections(1, CONNECTIONS_PER_HOST), UNFINISHED["heads of 60 KiB"])
        reply = session.request(request.path, request.body, request.headers)
    assert reply.status == 200
    access_point.daemon.wait_log("keep_within_memory - closing a connection", start=mark)


def test_at_the_cap_of_an_address_new_ones_are_closed_at_once_and_old_ones_served(
    access_point: AccessPoint, open_connections: Callable[..., list[socket.socket]]
) -> None:
    old = open_connections(0, CONNECTIONS_PER_HOST)
    (new,) = open_connections(0, 1, tls=False)
    wait_until(lambda: is_closed(new), 1, "one more is not closed at once")
    assert all(map(serves, old))
    assert access_point.phone(1).info().status == 200
    access_point.daemon.wait_log(
        f"too many connections: {CONNECTIONS_PER_HOST}, {CONNECTIONS_PER_HOST} of this address"
    )


def test_at_the_cap_of_all_new_ones_are_closed_at_once_and_old_ones_served(
    access_point: AccessPoint, open_connections: Callable[..., list[socket.socket]]
) -> None:
    old = [
        connection
        for host in range(HOSTS_THAT_FILL_IT)
        for connection in open_connections(host, CONNECTIONS_PER_HOST)
    ]
    (new,) = open_connections(HOSTS_THAT_FILL_IT, 1, tls=False)
    wait_until(lambda: is_closed(new), 1, "one more is not closed at once")
    assert all(map(serves, old))
    access_point.daemon.wait_log(f"too many connections: {CONNECTIONS}, 0 of this address")
    full = access_point.daemon.descriptors()
    old[0].close()
    wait_until(lambda: access_point.daemon.descriptors() < full, 5, "no room is made")
    assert access_point.phone(5).info().status == 200


def test_without_descriptors_old_connections_are_served(
    access_point: AccessPoint, open_connections: Callable[..., list[socket.socket]]
) -> None:
    old = open_connections(0, 2)
    daemon = access_point.daemon
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (daemon.descriptors(), 4096))
    with pytest.raises(OSError):  # nobody is there to shake hands; nothing can be logged either
        access_point.lan_host(1, timeout=0.5).connect_tls()
    for _ in range(20):
        assert all(map(serves, old))
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (1024, 4096))
    assert access_point.phone().info().status == 200


def test_without_descriptors_it_neither_spins_nor_dies_and_serves_again(
    access_point: AccessPoint,
) -> None:
    daemon = access_point.daemon
    limit = daemon.descriptors() + 2
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (limit, 4096))
    held = [access_point.lan_host(number).connect_tcp() for number in range(6)]
    spent = daemon.cpu_seconds()
    time.sleep(1)  # the time in which a spinning daemon would burn a second
    assert daemon.cpu_seconds() - spent < 0.3
    for connection in held:
        connection.close()
    wait_until(lambda: daemon.descriptors() < limit, 10, "descriptors stay open")
    assert access_point.phone().info().status == 200


def test_above_the_cap_the_quietest_local_client_leaves_and_the_others_are_served(
    access_point: AccessPoint, connect_ipc: Callable[[], IpcClient]
) -> None:
    served = []
    for _ in range(LOCAL_CLIENTS):
        served.append(connect_ipc())
        served[-1].request()
        assert served[-1].receive().status == STATUS_NO_PAIRED_DEVICES
    served[0].request()
    assert served[0].receive().status == STATUS_NO_PAIRED_DEVICES
    newcomer = connect_ipc()
    assert served[1].receive_packet(timeout=2) == b""
    access_point.daemon.wait_log(f"accept_cb - too many connections: {LOCAL_CLIENTS}")
    for client in (newcomer, served[0], *served[2:]):
        client.request()
        assert client.receive().status == STATUS_NO_PAIRED_DEVICES
    served[0].close()
    next_one = connect_ipc()
    next_one.request()
    assert next_one.receive().status == STATUS_NO_PAIRED_DEVICES
    assert newcomer.is_silent(0), "there was a place"


def frame(frame_id: int) -> bytes:
    return HEADER.pack(REQUEST, 140, frame_id, 0, 0) + bytes(140)


FLOODS: dict[str, bytes] = {
    "26 requests a packet": b"".join(frame(number) for number in range(26)),
    "half frames": frame(1)[:100],
    "frames to skip": HEADER.pack(REQUEST, 65535, 1, 0, 0) + bytes(4000),
    "strange types": HEADER.pack(9, 140, 1, 0, 0) + bytes(140),
}


@pytest.mark.parametrize("name", FLOODS)
def test_nobody_starves_while_a_local_client_sends_without_pause(
    name: str, access_point: AccessPoint, connect_ipc: Callable[[], IpcClient]
) -> None:
    flooding, other = connect_ipc(), connect_ipc()
    before = access_point.daemon.resident_kib()
    flooding.socket.setblocking(False)
    slowest = 0.0
    with access_point.lan_host().session() as session:
        session.connect()
        for _ in range(20):
            with contextlib.suppress(OSError):  # the socket is full, or we were dropped
                for _ in range(500):
                    flooding.send(FLOODS[name])
            start = time.monotonic()
            asked = other.request()
            answer = other.receive(timeout=5)
            assert (answer.id, answer.status) == (asked, STATUS_NO_PAIRED_DEVICES)
            assert session.request("/info").status == 200
            slowest = max(slowest, time.monotonic() - start)
    assert slowest < 2  # a loop that serves one flood before all else takes longer than that
    assert access_point.daemon.resident_kib() - before < access_point.build.memory_limit_kib(2048)


def test_a_client_that_leaves_with_a_request_pending_harms_nobody(
    access_point: AccessPoint, paired_phone: Phone, connect_ipc: Callable[[], IpcClient]
) -> None:
    leaving, staying = connect_ipc(), connect_ipc()
    for _ in range(50):
        leaving.request()
    leaving.close()
    location = sample_location()
    assert paired_phone.location(location).status == 200
    assert staying.receive_report().time == int(location["timestamp"])


def test_garbage_instead_of_tls_is_turned_away(access_point: AccessPoint) -> None:
    for data in (b"GET /info HTTP/1.1\r\n\r\n", os.urandom(2000), b"\x16\x03\x01\xff\xff"):
        with access_point.lan_host().connect_tcp() as raw:
            with contextlib.suppress(OSError):  # turned away before we are done
                raw.sendall(data)
                raw.shutdown(socket.SHUT_WR)
            wait_until(lambda: is_closed(raw), 10, "garbage is kept")
    assert access_point.phone().info().status == 200
