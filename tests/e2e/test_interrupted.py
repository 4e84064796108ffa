"""Whoever goes away in the middle of something harms nobody: phones, clients, the cloud, a reload.

The instrumented build makes these tests strict: at the end of each, a touch of freed memory or a
leak is a failure.
"""

from __future__ import annotations

import functools
import itertools
import os
import resource
import signal
import socket
import struct
import time
from collections.abc import Callable, Iterator

import pytest
from velm_harness.phone_api import LOGIN_PATHS
from velm_harness.promptness import assert_prompt, latencies
from velm_sim.access_point import SERIAL_NUMBER, AccessPoint
from velm_sim.answers import SILENCE, Answer
from velm_sim.cloud import HOSTS, UNREGISTERED, Cloud
from velm_sim.daemon import Daemon, wait_until
from velm_sim.dns import DnsServer
from velm_sim.etc_files import ADMIN, hashed
from velm_sim.ipc_client import STATUS_NO_PAIRED_DEVICES, IpcClient
from velm_sim.lan_http import LanHost
from velm_sim.limits import PUSH_GAP
from velm_sim.namespaces import Network
from velm_sim.phone import Login, Phone, Prepared, Profile

# Its password takes a fifth of a second and more to check, in which the request is paused.
SLOW = Login("slow", ADMIN.password)
SLOW_ROUNDS = 150_000
UNDER_CHECK = "current state: user_pass_check"


@pytest.fixture
def slow_login(cold_access_point: AccessPoint) -> AccessPoint:
    """An access point that serves, with an account whose password is slow to check."""
    cold_access_point.etc.set_accounts([ADMIN], {SLOW.username: slow_hash()})
    cold_access_point.start()
    return cold_access_point


@functools.cache
def slow_hash() -> str:
    quick = hashed(SLOW.password)
    made = hashed(SLOW.password, f"$6$rounds={SLOW_ROUNDS}$")
    assert made.startswith(f"$6$rounds={SLOW_ROUNDS}$") and len(made) > len(quick)
    return made


def leave_by_reset(connection: socket.socket) -> None:
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def leave_properly(connection: socket.socket) -> None:
    connection.close()


LEAVINGS = {"reset": leave_by_reset, "close": leave_properly}
SLOWLY = {"username": SLOW.username}

REQUESTS: dict[str, Callable[[Phone], Prepared]] = {
    **{path: lambda phone, path=path: phone.prepare_login(path, auth=SLOWLY) for path in LOGIN_PATHS},
    "/pair by attestation": lambda phone: phone.prepare_pair(
        auth=SLOWLY, pair={"friendlyName": "Changed"}
    ),
    "/pair by assertion": lambda phone: phone.prepare_pair(
        by="assertion", auth=SLOWLY, pair={"friendlyName": "Changed"}
    ),
    "/location": lambda phone: phone.prepare_location(auth=SLOWLY),
}


def begin(access_point: AccessPoint, request: Prepared, host: LanHost) -> socket.socket:
    """Sends the request and returns when its password is being checked."""
    head = f"POST {request.path} HTTP/1.1\r\nHost: x\r\nContent-Length: {len(request.body)}\r\n"
    head += "".join(f"{name}: {value}\r\n" for name, value in request.headers.items())
    connection = host.connect_tls()
    mark = access_point.daemon.log_mark()
    connection.sendall(head.encode() + b"\r\n" + request.body)
    access_point.daemon.wait_log(UNDER_CHECK, start=mark)
    return connection


def assert_serves(access_point: AccessPoint) -> None:
    reply = access_point.lan_host(9).request("/info")
    assert (reply.status, reply.json()["serialNumber"]) == (200, SERIAL_NUMBER)


@pytest.mark.parametrize("name", REQUESTS)
def test_a_phone_leaves_while_the_password_is_checked_of(
    name: str, slow_login: AccessPoint
) -> None:
    phone, daemon = slow_login.phone(), slow_login.daemon
    for leave in LEAVINGS.values():
        mark = daemon.log_mark()
        assert phone.pair().status == 200
        daemon.wait_log("finish_async", start=mark)
        before, mark = daemon.descriptors(), daemon.log_mark()
        leave(begin(slow_login, REQUESTS[name](phone), phone.host))
        # Gets what it asked for, and nothing of the one who left and whose descriptor it has.
        assert_serves(slow_login)
        daemon.wait_log("finish_async", start=mark, count=2)
        wait_until(lambda: daemon.descriptors() <= before, 5, "descriptors stay open")


@pytest.mark.parametrize("leave", LEAVINGS)
def test_a_phone_leaves_while_its_info_is_paused(leave: str, slow_login: AccessPoint) -> None:
    daemon, host = slow_login.daemon, slow_login.lan_host(1)
    before = daemon.descriptors()
    leaving = host.connect_tls()
    # The daemon checks a password while the request comes and its sender goes.
    phone = slow_login.phone()
    busy = begin(slow_login, phone.prepare("/challenge", auth=SLOWLY), phone.host)
    leaving.sendall(b"GET /info HTTP/1.1\r\nHost: x\r\n\r\n")
    LEAVINGS[leave](leaving)
    assert busy.recv(4096).startswith(b"HTTP/1.1 200 ")
    busy.close()
    assert_serves(slow_login)
    wait_until(lambda: daemon.descriptors() <= before, 5, "descriptors stay open")


@pytest.mark.parametrize("name", REQUESTS)
def test_a_reload_takes_or_leaves_a_request_whole(name: str, slow_login: AccessPoint) -> None:
    """The password is checked while the reload waits for the LAN's address: either may end first."""
    phone = slow_login.phone()
    assert phone.pair().status == 200
    stored = slow_login.nvram_show()
    request = REQUESTS[name](phone)
    idle = slow_login.lan_host(2).session()
    with idle:
        assert idle.request("/info").status == 200
        connection = begin(slow_login, request, phone.host)
        slow_login.reload()
        answer = connection.recv(4096)
        connection.close()
    if answer:
        assert answer.startswith(b"HTTP/1.1 200 ")
        changes = name.startswith(("/pair by", "/unpair"))
    else:
        changes = False
    assert (slow_login.nvram_show() != stored) == changes
    assert phone.location().status == (412 if changes and name == "/unpair" else 200)


def test_a_reload_while_every_kind_of_request_waits(slow_login: AccessPoint) -> None:
    phone = slow_login.phone()
    assert phone.pair().status == 200
    requests = [make(phone) for make in REQUESTS.values()]
    connections = []
    for number, request in enumerate(requests):
        session = slow_login.lan_host(number).session()
        session.connect()
        connections.append((session, request))
    daemon = slow_login.daemon
    listener = daemon.https_listener()
    os.kill(daemon.pid, signal.SIGSTOP)
    for session, request in connections:
        session.send(request.path, request.body, request.headers)
    os.kill(daemon.pid, signal.SIGHUP)
    for session, _ in connections[::2]:
        session.close()
    os.kill(daemon.pid, signal.SIGCONT)
    wait_until(lambda: daemon.https_listener() not in ("", listener), 10, "no new server")
    assert_serves(slow_login)
    for session, _ in connections[1::2]:
        session.close()
    assert_serves(slow_login)


# Local clients.


def take_descriptors(daemon: Daemon) -> None:
    """Not one more can be opened."""
    used = {int(name) for name in os.listdir(f"/proc/{daemon.pid}/fd")}
    lowest_free = next(number for number in itertools.count() if number not in used)
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (lowest_free, 4096))


def give_descriptors(daemon: Daemon) -> None:
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (4096, 4096))


def test_a_client_leaves_without_reading_its_other_answers(
    access_point: AccessPoint, connect_ipc: Callable[[], IpcClient]
) -> None:
    before = access_point.daemon.descriptors()
    for _ in range(20):
        client = connect_ipc()
        for _ in range(10):
            client.request()
        assert client.receive().status == STATUS_NO_PAIRED_DEVICES
        client.close()
    other = connect_ipc()
    asked = other.request(request_id=4711)
    answer = other.receive()
    assert (answer.id, answer.status) == (asked, STATUS_NO_PAIRED_DEVICES)
    other.close()
    wait_until(lambda: access_point.daemon.descriptors() <= before, 5, "connections are kept")


def test_a_reload_with_requests_of_clients_waiting_closes_them(
    access_point: AccessPoint,
    cloud: Cloud,
    paired_phone: Phone,
    connect_ipc: Callable[[], IpcClient],
) -> None:
    staying, leaving = connect_ipc(), connect_ipc()
    for client in (staying, leaving):
        client.request()
    cloud.fcm.wait()
    leaving.close()
    access_point.reload()
    assert staying.receive_packet() == b""
    # The report of the phone goes to whoever is there now.
    late = connect_ipc()
    assert paired_phone.location().status == 200
    assert late.receive_report().valid == 1


@pytest.mark.movable_clock
def test_a_request_that_nobody_answered_is_forgotten_after_ten_minutes(
    access_point: AccessPoint,
    cloud: Cloud,
    paired_phone: Phone,
    connect_ipc: Callable[[], IpcClient],
) -> None:
    ipc = connect_ipc()
    ipc.request()
    cloud.fcm.wait()
    access_point.move_clock(590)
    connect_ipc().close()  # which makes the daemon look at once
    access_point.daemon.wait_log("Conn delete")
    assert "Removing orphaned request" not in access_point.log()
    access_point.move_clock(602)  # nobody tells it; it looks every few seconds
    access_point.daemon.wait_log("Removing orphaned request")
    assert paired_phone.location().status == 200
    assert ipc.receive_report().valid == 1


def test_without_descriptors_local_clients_wait_and_are_served_afterwards(
    access_point: AccessPoint, connect_ipc: Callable[[], IpcClient]
) -> None:
    daemon = access_point.daemon
    held = connect_ipc()
    held.request()
    assert held.receive().status == STATUS_NO_PAIRED_DEVICES
    take_descriptors(daemon)
    waiting = [connect_ipc() for _ in range(4)]
    for client in waiting:
        client.request()
    spent = daemon.cpu_seconds()
    # In this time a daemon that spins would burn a second.
    assert waiting[0].is_silent(1)
    assert daemon.cpu_seconds() - spent < 0.3
    give_descriptors(daemon)
    held.request()
    for client in [held, *waiting]:
        assert client.receive().status == STATUS_NO_PAIRED_DEVICES


def test_without_descriptors_a_push_fails_and_a_later_one_arrives(
    cold_access_point: AccessPoint, cloud: Cloud
) -> None:
    cold_access_point.start(clock=True)
    daemon = cold_access_point.daemon
    assert cold_access_point.phone().pair().status == 200
    with IpcClient(cold_access_point.socket_path) as ipc:
        ipc.request(request_id=1)
        cloud.fcm.wait(1)
        cloud.drop_connections()
        wait_until(lambda: cloud.open_connections == 0, 5, "connections stay open")
        daemon.wait_log("send_push_handler")
        cold_access_point.move_clock(61)
        connections = cloud.connections
        take_descriptors(daemon)
        ipc.request()
        time.sleep(PUSH_GAP + 0.5)  # the push is due; no descriptor is left for the log
        assert cloud.connections == connections
        give_descriptors(daemon)
        cold_access_point.move_clock(122)
        ipc.request()
        cloud.fcm.wait(2)


# The cloud.


PUSH_ANSWERS: dict[str, Answer] = {
    "success": Answer.json({"name": "projects/x/messages/1"}, delay=0.7),
    "no such phone": Answer(UNREGISTERED.status, UNREGISTERED.body, delay=0.7),
    "failure": Answer(503, b"", delay=0.7),
    "garbage": Answer(raw=b"\0garbage\r\n\r\n", delay=0.7),
    "too much": Answer(body=Answer.over_large(2 << 20).body, delay=0.7),
    "nothing": SILENCE,
}


@pytest.mark.parametrize("name", PUSH_ANSWERS)
def test_a_reload_while_the_push_service_thinks_of(
    name: str,
    access_point: AccessPoint,
    cloud: Cloud,
    paired_phone: Phone,
    connect_ipc: Callable[[], IpcClient],
) -> None:
    cloud.fcm.answer_next(PUSH_ANSWERS[name])
    connect_ipc().request()
    cloud.fcm.wait()
    mark = access_point.daemon.log_mark()
    access_point.reload()
    if name == "nothing":
        cloud.drop_connections()
    access_point.daemon.wait_log("send_push_handler", start=mark)
    # Who is gone for the service is unpaired, whenever its answer comes.
    gone = name == "no such phone"
    assert access_point.pairing(0)["status"] == ("Invalid" if gone else "Valid")
    assert paired_phone.location().status == (412 if gone else 200)


def test_a_reload_while_pushes_wait_for_their_turn(
    access_point: AccessPoint,
    cloud: Cloud,
    pair_phones: Callable[[int], list[Phone]],
    connect_ipc: Callable[[], IpcClient],
) -> None:
    pair_phones(3)
    connect_ipc().request()
    cloud.fcm.wait(1)
    mark = access_point.daemon.log_mark()
    access_point.reload()
    access_point.daemon.wait_log("missing auth token", start=mark, count=2)
    assert len(cloud.fcm.requests) == 1
    assert_serves(access_point)


def test_a_pairing_that_ends_while_its_push_is_answered(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    cloud.fcm.answer_next(Answer(UNREGISTERED.status, UNREGISTERED.body, delay=0.7))
    ipc.request()
    cloud.fcm.wait()
    assert paired_phone.unpair().status == 200
    other = access_point.phone(1, Profile(name="In the same slot"))
    assert other.pair().status == 200
    access_point.daemon.wait_log("unpaired (unregistered token)")
    assert access_point.pairing(0)["name"] == "In the same slot"
    assert access_point.pairing(0)["status"] == "Valid"


@pytest.fixture
def dead_dns(network: Network) -> Iterator[DnsServer]:
    made = DnsServer(
        network.cloud, network.CLOUD_ADDRESS, dict.fromkeys(HOSTS, network.CLOUD_ADDRESS), False
    )
    yield made
    made.stop()


def test_info_is_prompt_while_no_name_server_answers(
    cold_access_point: AccessPoint, cloud: Cloud, dead_dns: DnsServer
) -> None:
    cold_access_point.etc.set_hosts({})
    cold_access_point.etc.set_resolvers([Network.CLOUD_ADDRESS])
    cold_access_point.start()
    assert cold_access_point.phone().pair().status == 200
    with IpcClient(cold_access_point.socket_path) as ipc, (
        cold_access_point.lan_host().session()
    ) as session:
        session.connect()
        control = latencies(cold_access_point.daemon, session)
        ipc.request()
        wait_until(lambda: bool(dead_dns.asked), 5, "the name server is not asked")
        assert_prompt(latencies(cold_access_point.daemon, session), control)
    assert not cloud.connections
    # Asking is not over: a reload in the middle of it is harmless too.
    cold_access_point.reload()
    assert_serves(cold_access_point)
