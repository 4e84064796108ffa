"""The LAN bridge gets another address: the servers move to it, and to nothing else."""

from __future__ import annotations

import os
import re
import signal
import socket
import ssl
import struct
import subprocess
from collections.abc import Callable, Iterator
from typing import TypeVar

import pytest
from test_interrupted import SLOW, SLOWLY, begin, slow_hash
from velm_harness.sample import Sample
from velm_sim.access_point import SERIAL_NUMBER, AccessPoint
from velm_sim.certificates import Identity, make_server
from velm_sim.cloud import Cloud
from velm_sim.daemon import wait_until
from velm_sim.etc_files import ADMIN
from velm_sim.ipc_client import IpcClient
from velm_sim.lan_http import LanHost, Session
from velm_sim.namespaces import Network
from velm_sim.phone import Phone, sample_location
from velm_sim.ssdp import Searcher, discover, search_message

OLD = Network.AP_ADDRESS
# Within the phones' subnet, so that they reach whichever the bridge has.
ADDRESSES = tuple(f"192.168.1.{host}" for host in range(100, 120))
NEW, OTHER = ADDRESSES[:2]
MOVES = 1000
BURST = 600  # twice what the kernel keeps for the daemon
STOPPED = "velm_http_server - http_server_stop"


class Lan:
    """The addresses of the access point, as an administrator changes them."""

    def __init__(self, network: Network) -> None:
        self.network = network
        # The first address of a subnet takes the others along otherwise.
        with network.ap.entered():
            with open("/proc/sys/net/ipv4/conf/br0/promote_secondaries", "w") as setting:
                setting.write("1")

    def change(self, *commands: str) -> None:
        self.network.ap.batch("".join(f"{command}\n" for command in commands))

    def add(self, address: str) -> None:
        self.change(f"addr add {address}/24 dev br0")

    def remove(self, address: str) -> None:
        self.change(f"addr del {address}/24 dev br0")

    def restore(self) -> None:
        self.change("addr flush dev br0", f"addr add {OLD}/24 dev br0")


@pytest.fixture
def lan(network: Network) -> Iterator[Lan]:
    made = Lan(network)
    yield made
    made.restore()


@pytest.fixture(scope="session")
def identity() -> Identity:
    """A certificate for every address that the access point moves to."""
    return make_server([OLD, *ADDRESSES])


@pytest.fixture
def cold_access_point(cold_access_point: AccessPoint, identity: Identity) -> AccessPoint:
    at = cold_access_point.directory
    identity.write(at / "server_cert.pem", at / "server_key.pem")
    return cold_access_point


class Moved:
    """How the tests reach an access point that moves."""

    def __init__(self, access_point: AccessPoint, lan: Lan, identity: Identity) -> None:
        self.access_point, self.lan, self.identity = access_point, lan, identity
        self.daemon = access_point.daemon

    def host(self, address: str, number: int = 9) -> LanHost:
        host = self.access_point.lan_host(number)
        host.server, host.certificate_pem = address, self.identity.pem
        return host

    def phone(self, address: str = OLD, number: int = 0) -> Phone:
        phone = self.access_point.phone(number)
        phone.host = self.host(address, number)
        return phone

    def wait_until_serving(self, host: LanHost) -> None:
        def serves() -> bool:
            try:
                reply = host.request("/info")
            except (ConnectionError, ssl.SSLError):
                return False
            return (reply.status, reply.json()["serialNumber"]) == (200, SERIAL_NUMBER)

        wait_until(serves, 10, f"nobody serves at {host.server}")

    def move(self, address: str) -> None:
        self.lan.add(address)
        self.wait_until_serving(self.host(address))

    def listening(self) -> list[str]:
        """The addresses at which the daemon's port listens."""
        with self.lan.network.ap.entered(), open("/proc/thread-self/net/tcp") as table:
            rows = [line.split() for line in table.readlines()[1:]]
        found = []
        for row in rows:
            address, port = row[1].split(":")
            if row[3] == "0A" and int(port, 16) == self.access_point.port:
                found.append(socket.inet_ntoa(struct.pack("=I", int(address, 16))))
        return found

    def servers(self) -> tuple[str, str]:
        return self.daemon.https_listener(), self.daemon.ipc_listener()


@pytest.fixture
def moved(access_point: AccessPoint, lan: Lan, identity: Identity) -> Moved:
    return Moved(access_point, lan, identity)


def assert_refused(host: LanHost) -> None:
    with pytest.raises(ConnectionRefusedError):
        host.connect_tcp()


def assert_closed(connection: socket.socket) -> None:
    """The daemon has ended the connection, in order or by a reset."""
    connection.settimeout(5)
    try:
        assert connection.recv(1) == b""
    except TimeoutError:
        raise
    except OSError:
        pass  # a reset, or TLS that misses its farewell


# What moves.


def test_https_moves_to_the_new_address_and_the_old_one_is_closed(moved: Moved) -> None:
    kept = moved.host(OLD).connect_tls()
    moved.move(NEW)
    assert moved.listening() == [NEW]
    assert_refused(moved.host(OLD))
    assert_closed(kept)
    kept.close()
    moved.lan.remove(OLD)
    assert moved.host(NEW).request("/info").status == 200
    moved.daemon.wait_log(f"netlink_ip_address_changed - br0 new ip: {NEW}")


def test_local_clients_are_closed_and_find_the_socket_where_it_was(
    moved: Moved, connect_ipc: Callable[[], IpcClient]
) -> None:
    before = connect_ipc()
    listener = moved.daemon.ipc_listener()
    moved.move(NEW)
    assert before.receive_packet() == b""
    wait_until(lambda: moved.daemon.ipc_listener() not in ("", listener), 5, "no IPC")
    connect_ipc().request()
    moved.daemon.wait_log("location_server_cmd_handler - no paired devices")


def test_the_push_carries_the_new_address(
    moved: Moved, cloud: Cloud, connect_ipc: Callable[[], IpcClient]
) -> None:
    phone = moved.phone()
    assert phone.pair().status == 200
    moved.move(NEW)
    connect_ipc().request()
    (push,) = cloud.fcm.wait()
    location = push.json()["message"]["apns"]["payload"]["location"]
    assert location == f"{NEW}:{moved.access_point.port}"


def test_a_search_finds_the_new_address(moved: Moved) -> None:
    source, namespace = Network.PHONE_ADDRESSES[0], moved.lan.network.phone
    (before,) = discover(namespace, source)
    moved.move(NEW)
    moved.lan.remove(OLD)
    # By multicast and by unicast.
    (after,) = discover(namespace, source)
    with Searcher(namespace, source) as searcher:
        direct = searcher.ask(search_message(), NEW)
    locations = [answer.location for answer in (before, after, direct)]
    port = moved.access_point.port
    assert locations == [f"https://{address}:{port}/info" for address in (OLD, NEW, NEW)]
    assert after.address == NEW


def test_a_phone_paired_before_is_heard_at_the_new_address(
    moved: Moved, connect_ipc: Callable[[], IpcClient]
) -> None:
    phone = moved.phone()
    assert phone.pair().status == 200
    # Only the servers begin anew: a challenge that waits goes on waiting.
    challenge = phone.fetch_challenge()
    moved.move(NEW)
    moved.lan.remove(OLD)
    client = connect_ipc()
    phone.host = moved.host(NEW, 0)
    assert phone.location(challenge=challenge).status == 200
    assert client.receive_report().phone_ip == phone.host.source


def test_it_moves_back(moved: Moved) -> None:
    moved.move(NEW)
    moved.lan.remove(OLD)
    moved.move(OLD)
    assert moved.listening() == [OLD]


def test_a_reload_finds_the_address_that_the_bridge_has(moved: Moved) -> None:
    moved.move(NEW)
    moved.lan.remove(OLD)
    moved.access_point.reload()
    assert moved.listening() == [NEW]


def test_velmctl_watch_goes_on_watching(moved: Moved) -> None:
    phone = moved.phone()
    assert phone.pair().status == 200
    program = str(moved.access_point.build.program("velmctl"))
    command = [program, "watch", "--socket", str(moved.access_point.socket_path), "--json"]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as watcher:
        assert watcher.stdout
        try:
            moved.daemon.wait_log("Connection accepted")
            moved.move(NEW)
            moved.daemon.wait_log("Connection accepted", count=2)
            phone.host = moved.host(NEW, 0)
            assert phone.location(sample_location(latitude=-7.25)).status == 200
            assert "-7.25" in watcher.stdout.readline()
        finally:
            watcher.kill()


# What changes nothing. Each change is one that the daemon logs, so that it is known to be over.

NO_MOVES: dict[str, tuple[list[str], list[str], str]] = {
    "another interface": (
        ["addr add 198.51.100.77/24 dev wan0"],
        ["addr del 198.51.100.77/24 dev wan0"],
        "netlink_ip_address_changed - wan0 new ip: 198.51.100.77",
    ),
    "the address of the LAN on another interface": (
        [f"addr add {OLD}/32 dev wan0"],
        [f"addr del {OLD}/32 dev wan0"],
        f"netlink_ip_address_changed - wan0 new ip: {OLD}",
    ),
    "the same address": (
        [f"addr change {OLD}/24 dev br0 valid_lft 3600 preferred_lft 3600"],
        [f"addr change {OLD}/24 dev br0 valid_lft forever preferred_lft forever"],
        f"netlink_ip_address_changed - br0 new ip: {OLD}",
    ),
    "an IPv6 address": (
        ["addr add fd00::1/64 dev br0 nodad", "addr add 198.51.100.78/24 dev wan0"],
        ["addr del fd00::1/64 dev br0", "addr del 198.51.100.78/24 dev wan0"],
        "netlink_ip_address_changed - wan0 new ip: 198.51.100.78",
    ),
    "an interface that comes and goes": (
        ["link add br9 type bridge", "link del br9"],
        [],
        "netlink_cb - RTM_DELLINK",
    ),
    "the uplink down and up": (
        ["link set wan0 down", "link set wan0 up"],
        [],
        "netlink_cb - RTM_NEWLINK",
    ),
    "the bridge down and up": (
        ["link set br0 down", "link set br0 up"],
        [],
        "netlink_cb - RTM_NEWLINK",
    ),
    "the port of the bridge down and up": (
        ["link set lan0 down", "link set lan0 up"],
        [],
        "netlink_cb - RTM_NEWLINK",
    ),
}


@pytest.mark.parametrize("what", NO_MOVES)
def test_nothing_changes_by(
    what: str, moved: Moved, connect_ipc: Callable[[], IpcClient]
) -> None:
    commands, undo, line = NO_MOVES[what]
    client, servers = connect_ipc(), moved.servers()
    with moved.host(OLD).session() as session:
        assert session.request("/info").status == 200
        mark = moved.daemon.log_mark()
        try:
            moved.lan.change(*commands)
            moved.daemon.wait_log(line, start=mark)
            # On the same connection: a closed one would not be opened again.
            assert session.request("/info").status == 200
        finally:
            moved.lan.change(*undo)
    client.request()
    assert client.receive(timeout=5).payload
    assert moved.servers() == servers
    log = moved.daemon.log(mark)
    assert STOPPED not in log and "ssdp_server_stop" not in log


def test_an_address_that_is_taken_away_changes_nothing(moved: Moved) -> None:
    moved.move(NEW)
    servers, mark = moved.servers(), moved.daemon.log_mark()
    moved.lan.remove(OLD)
    # The kernel announces the one that takes the first place as new.
    moved.daemon.wait_log(f"netlink_ip_address_changed - br0 new ip: {NEW}", start=mark)
    assert moved.host(NEW).request("/info").status == 200
    assert moved.servers() == servers
    assert STOPPED not in moved.daemon.log(mark)


# Who is in the middle of something.


def test_requests_in_flight_end_with_the_old_server_and_leave_nothing(
    cold_access_point: AccessPoint, lan: Lan, identity: Identity
) -> None:
    cold_access_point.etc.set_accounts([ADMIN], {SLOW.username: slow_hash()})
    cold_access_point.start()
    moved = Moved(cold_access_point, lan, identity)
    phone = moved.phone()
    assert phone.pair().status == 200
    before = moved.daemon.descriptors()
    silent, half = moved.host(OLD, 1).connect_tcp(), moved.host(OLD, 2).connect_tls()
    half.sendall(b"POST /location HTTP/1.1\r\nContent-Le")
    waiting = [moved.host(OLD, 3).connect_tls() for _ in range(5)]
    asking = begin(cold_access_point, phone.prepare_location(auth=SLOWLY), phone.host)
    for one in waiting:
        one.sendall(b"GET /info HTTP/1.1\r\nHost: x\r\n\r\n")
    mark = moved.daemon.log_mark()
    moved.move(NEW)
    # Its check went on and told nobody.
    moved.daemon.wait_log("request gone", start=0)
    for one in (silent, half, asking):
        assert_closed(one)
        one.close()
    for one in waiting:
        one.close()
    assert STOPPED in moved.daemon.log(mark)
    wait_until(lambda: moved.daemon.descriptors() <= before, 5, "descriptors stay open")


def test_paused_requests_are_ended_by_a_move(moved: Moved) -> None:
    daemon = moved.daemon
    phones = [moved.phone(OLD, number) for number in range(8)]
    requests = [phone.prepare_location() for phone in phones]
    sessions: list[Session] = []
    for phone in phones:
        session = phone.host.session()
        session.connect()
        sessions.append(session)
    os.kill(daemon.pid, signal.SIGSTOP)
    for session, request in zip(sessions, requests):
        session.send(request.path, request.body, request.headers)
    moved.lan.add(NEW)
    os.kill(daemon.pid, signal.SIGCONT)
    moved.wait_until_serving(moved.host(NEW))
    assert STOPPED in daemon.log()
    # The instrumented build judges what became of them.
    for session in sessions:
        session.close()
    assert moved.host(NEW).request("/info").status == 200


# Bursts, flapping and forgers.

Result = TypeVar("Result")


def while_stopped(moved: Moved, work: Callable[[], Result]) -> Result:
    """The daemon learns of all of it at once."""
    os.kill(moved.daemon.pid, signal.SIGSTOP)
    try:
        return work()
    finally:
        os.kill(moved.daemon.pid, signal.SIGCONT)


def test_of_addresses_that_come_together_the_last_one_serves(moved: Moved) -> None:
    while_stopped(moved, lambda: [moved.lan.add(address) for address in ADDRESSES])
    moved.wait_until_serving(moved.host(ADDRESSES[-1]))
    moved.daemon.wait_log("http_server_start - end", count=1 + len(ADDRESSES))
    assert moved.listening() == [ADDRESSES[-1]]


def test_an_address_that_has_gone_again_is_not_moved_to(moved: Moved) -> None:
    servers = moved.servers()

    def flap() -> None:
        moved.lan.add(NEW)
        moved.lan.remove(NEW)

    while_stopped(moved, flap)
    moved.daemon.wait_log(f"br0 has lost {NEW} again")
    assert moved.host(OLD).request("/info").status == 200
    assert moved.servers() == servers


def test_of_two_addresses_the_one_that_stayed_serves(moved: Moved) -> None:
    def change() -> None:
        moved.lan.add(NEW)
        moved.lan.add(OTHER)
        moved.lan.remove(NEW)

    while_stopped(moved, change)
    moved.wait_until_serving(moved.host(OTHER))


def overrun(moved: Moved) -> None:
    """More changes than the kernel keeps for one listener, all on an interface of their own."""
    changes = [
        f"addr {change} 10.77.{number // 250}.{1 + number % 250}/32 dev br9\n"
        for number in range(BURST // 2)
        for change in ("add", "del")
    ]
    moved.lan.change("link add br9 type bridge", *changes, "link del br9")


def test_a_move_that_the_kernel_could_not_announce_is_found(moved: Moved) -> None:
    def change() -> None:
        overrun(moved)
        moved.lan.add(NEW)
        moved.lan.remove(OLD)

    while_stopped(moved, change)
    moved.daemon.wait_log("netlink_cb - recvfrom failed: No buffer space available")
    moved.wait_until_serving(moved.host(NEW))
    # And what comes afterwards is heard again.
    moved.move(OTHER)


def test_lost_announcements_of_others_change_nothing(moved: Moved) -> None:
    servers = moved.servers()
    while_stopped(moved, lambda: overrun(moved))
    mark = moved.daemon.log_mark()
    moved.daemon.wait_log("netlink_cb - recvfrom failed: No buffer space available")
    moved.lan.change("addr add 198.51.100.79/24 dev wan0", "addr del 198.51.100.79/24 dev wan0")
    moved.daemon.wait_log("wan0 new ip: 198.51.100.79", start=mark)
    assert moved.servers() == servers
    assert STOPPED not in moved.daemon.log(mark)


def netlink_number(moved: Moved) -> int:
    """The number at which the daemon's routing socket receives."""
    inodes = set()
    for name in os.listdir(f"/proc/{moved.daemon.pid}/fd"):
        target = os.readlink(f"/proc/{moved.daemon.pid}/fd/{name}")
        found = re.fullmatch(r"socket:\[(\d+)\]", target)
        if found:
            inodes.add(found.group(1))
    with moved.lan.network.ap.entered(), open("/proc/thread-self/net/netlink") as table:
        rows = [line.split() for line in table.readlines()[1:]]
    (number,) = [int(row[2]) for row in rows if row[1] == "0" and row[-1] in inodes]
    return number


def test_what_another_process_announces_is_not_believed(moved: Moved) -> None:
    forged = "10.66.66.66"
    with moved.lan.network.ap.entered():
        index = socket.if_nametoindex("br0")
        sender = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 0)
    local = struct.pack("=HH4s", 8, 2, socket.inet_aton(forged))
    head = struct.pack("=IHHII", 16 + 8 + len(local), 20, 0, 0, 0)
    about = struct.pack("=BBBBI", socket.AF_INET, 24, 0, 0, index)
    servers = moved.servers()
    with sender:
        sender.bind((0, 0))
        number = netlink_number(moved)
        assert sender.sendto(head + about + local, (number, 0)) == 32
    moved.lan.change("addr add 198.51.100.80/24 dev wan0", "addr del 198.51.100.80/24 dev wan0")
    log = moved.daemon.wait_log("wan0 new ip: 198.51.100.80")
    assert forged not in log
    assert moved.servers() == servers


# For years.


@pytest.mark.begun_first
def test_many_moves_leave_as_many_descriptors_and_as_much_memory(
    moved: Moved, sample: Sample
) -> None:
    # The instrumented build takes several times as long and shows a leak at once.
    few = moved.access_point.build.is_asan or not sample.whole
    count = MOVES // 10 if few else MOVES
    daemon, at, host = moved.daemon, OLD, moved.host(OLD)
    descriptors = daemon.descriptors()

    def moves(count: int) -> None:
        nonlocal at
        for number in range(count):
            host.server = ADDRESSES[number % len(ADDRESSES)]
            moved.lan.add(host.server)
            moved.wait_until_serving(host)
            moved.lan.remove(at)
            at = host.server

    moves(50)
    memory = daemon.resident_kib()
    moves(count)
    wait_until(lambda: daemon.descriptors() == descriptors, 5, "descriptors stay open")
    assert daemon.resident_kib() - memory < moved.access_point.build.memory_limit_kib(256)
    assert moved.listening() == [at]
