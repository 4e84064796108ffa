"""Phones find the daemon by SSDP, and nothing that a LAN can send keeps it from serving."""

from __future__ import annotations

import json
import socket
import struct
import subprocess
import threading
import time
from collections.abc import Iterator
from pathlib import Path

import pytest
from velm_sim import gssdp_client
from velm_sim.access_point import BSSIDS, AccessPoint
from velm_sim.namespaces import Network
from velm_sim.ssdp import (
    DEVICE_TYPE,
    GROUP,
    LARGEST_DATAGRAM,
    PORT,
    Answer,
    Searcher,
    discover,
    search_message,
)

SAMPLES = sorted((Path(__file__).resolve().parents[1] / "data" / "ssdp").glob("*.txt"))
PHONE = Network.PHONE_ADDRESSES[0]
IDENTITY = "5c085b95-b4a7-45fa-b6f3-"


@pytest.fixture
def searcher(network: Network) -> Iterator[Searcher]:
    with Searcher(network.phone, PHONE) as made:
        yield made


def assert_exact(answer: Answer, access_point: AccessPoint, mac: str = BSSIDS[0]) -> None:
    """Every byte; of the time, that it is the present one."""
    date = answer.headers["DATE"]
    written = time.mktime(time.strptime(date, "%Y-%m-%d.%H:%M:%S"))
    assert abs(time.time() - written) < 5
    assert answer.raw.decode() == (
        "HTTP/1.1 200 OK\r\n"
        f"DATE: {date}\r\n"
        f"LOCATION: https://{Network.AP_ADDRESS}:{access_point.port}/info\r\n"
        "SERVER: VELMD\r\n"
        f"ST: {DEVICE_TYPE}\r\n"
        f"USN: uuid:{IDENTITY}{mac.replace(':', '').lower()}::{DEVICE_TYPE}\r\n"
        "\r\n"
    )
    assert (answer.address, answer.port) == (Network.AP_ADDRESS, PORT)


def assert_silent(searcher: Searcher, datagrams: list[bytes], to: str) -> None:
    """None of them is answered: the only answer is the one to a search sent after them."""
    for datagram in datagrams:
        searcher.send(datagram, to)
    searcher.ask(search_message(), Network.AP_ADDRESS)
    assert searcher.receive(0) is None


@pytest.mark.each_machine
@pytest.mark.parametrize("to", [GROUP, Network.AP_ADDRESS])
def test_a_search_is_answered_to_the_byte(
    to: str, access_point: AccessPoint, searcher: Searcher
) -> None:
    assert_exact(searcher.ask(search_message(), to), access_point)


@pytest.mark.each_machine
def test_the_location_that_was_found_serves_info(
    access_point: AccessPoint, network: Network
) -> None:
    (answer,) = discover(network.phone, PHONE)
    host = access_point.lan_host()
    host.server, host.port = answer.host, answer.https_port
    reply = host.request(answer.path)
    assert (reply.status, reply.json()["serialNumber"]) == (200, "NV-2207-001942")


@pytest.mark.parametrize("target", ["ssdp:all", "upnp:rootdevice", DEVICE_TYPE + "0", ""])
def test_a_search_for_something_else_is_not_answered(
    target: str, access_point: AccessPoint, searcher: Searcher
) -> None:
    assert_silent(searcher, [search_message(target)], GROUP)


def sample(path: Path, name: str) -> str:
    lines = path.read_text().splitlines()
    prefix = f"{name}: "
    return next((line.removeprefix(prefix) for line in lines if line.startswith(prefix)), "")


@pytest.mark.parametrize("path", SAMPLES, ids=lambda path: path.stem)
def test_a_real_client_is_answered_only_when_it_asks_for_us(
    path: Path, access_point: AccessPoint, searcher: Searcher
) -> None:
    assert_silent(searcher, [bytes.fromhex(sample(path, "hex"))], GROUP)
    variant = bytes.fromhex(sample(path, "velmd_hex"))
    if variant:
        assert_exact(searcher.ask(variant), access_point)


def test_libgssdp_finds_the_daemon(access_point: AccessPoint, network: Network) -> None:
    command = network.phone.command(
        "/usr/bin/python3", gssdp_client.__file__, "eth0", DEVICE_TYPE, "10"
    )
    done = subprocess.run(command, capture_output=True, text=True, timeout=30)
    assert done.returncode == 0, done.stderr
    mac = BSSIDS[0].replace(":", "")
    assert json.loads(done.stdout) == [
        {
            "usn": f"uuid:{IDENTITY}{mac}::{DEVICE_TYPE}",
            "locations": [f"https://{Network.AP_ADDRESS}:{access_point.port}/info"],
        }
    ]


@pytest.mark.each_machine
def test_the_group_is_served_on_the_lan_only(
    access_point: AccessPoint, network: Network, searcher: Searcher
) -> None:
    """Even while another program of the access point has joined it on the uplink."""
    with (
        network.ap.socket(kind=socket.SOCK_DGRAM) as other,
        Searcher(network.cloud, Network.CLOUD_ADDRESS) as outside,
    ):
        other.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        other.bind((GROUP, PORT))
        member = socket.inet_aton(GROUP) + socket.inet_aton(Network.UPLINK_ADDRESS)
        other.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, member)
        other.settimeout(5)
        outside.send(search_message())
        assert other.recv(2048) == search_message()  # it did reach the access point
        searcher.ask(search_message(), Network.AP_ADDRESS)
        assert outside.receive(0) is None


@pytest.mark.each_machine
def test_thirty_two_outstanding_searches_are_all_answered(
    access_point: AccessPoint, searcher: Searcher
) -> None:
    for _ in range(50):
        for _ in range(32):
            searcher.send(search_message())
        for _ in range(32):
            assert searcher.receive(5) is not None


def test_a_reload_moves_it_to_another_port_and_identity(
    access_point: AccessPoint, searcher: Searcher
) -> None:
    mac = "00:1A:2B:3C:4D:77"
    access_point.nvram_set({"zelkad_discovery_ssdp_port": "1901", "wl0_hwaddr": mac})
    access_point.reload()
    answer = searcher.ask(search_message(), port=1901)
    assert answer.headers["USN"] == f"uuid:{IDENTITY}001a2b3c4d77::{DEVICE_TYPE}"
    searcher.send(search_message())
    searcher.send(search_message(), Network.AP_ADDRESS)
    searcher.ask(search_message(), port=1901)
    assert searcher.receive(0.2) is None


def test_reloads_leave_it_answering_with_as_many_descriptors(
    access_point: AccessPoint, searcher: Searcher
) -> None:
    access_point.reload()
    before = access_point.daemon.descriptors()
    for _ in range(10):
        assert_exact(searcher.ask(search_message()), access_point)
        access_point.reload()
    assert access_point.daemon.descriptors() == before


def udp_ports(access_point: AccessPoint) -> set[int]:
    lines = Path(f"/proc/{access_point.daemon.pid}/net/udp").read_text().splitlines()[1:]
    return {int(line.split()[1].rpartition(":")[2], 16) for line in lines}


def test_with_port_0_there_is_no_discovery_and_the_rest_runs(
    cold_access_point: AccessPoint,
) -> None:
    cold_access_point.configure({"ssdp.server.port": "0"})
    cold_access_point.start()
    assert PORT not in udp_ports(cold_access_point)
    assert "ssdp_server_start - port is not configured" in cold_access_point.log()
    assert cold_access_point.phone().info().status == 200


def test_without_a_mac_address_there_is_no_discovery_and_the_rest_runs(
    cold_access_point: AccessPoint,
) -> None:
    cold_access_point.nvram_set({"wl0_hwaddr": "nonsense"})
    cold_access_point.start()
    assert PORT not in udp_ports(cold_access_point)
    assert "ssdp_server_start - cannot prepare uuid with nonsense" in cold_access_point.log()
    assert cold_access_point.phone().info().status == 200


def padded(head: bytes) -> bytes:
    return head + b"\r\n" * ((LARGEST_DATAGRAM - len(head)) // 2)


REQUEST_LINE = b"M-SEARCH * HTTP/1.1\r\n"
MIXED = [
    search_message(),
    search_message("ssdp:all"),
    search_message().replace(b"\r\n", b"\n"),
    search_message().removesuffix(b"\r\n\r\n"),
    search_message().replace(b"ST:", b"\0ST:"),
    bytes(100),
    b"",
    b"NOTIFY * HTTP/1.1\r\nNTS: ssdp:alive\r\n\r\n",
    padded(REQUEST_LINE),
    REQUEST_LINE + b":" * (LARGEST_DATAGRAM - len(REQUEST_LINE)),
]
ROUNDS = 50_000 // len(MIXED)


class InfoWatch:
    """Asks for /info without a pause on a thread of its own, and keeps the longest wait."""

    def __init__(self, access_point: AccessPoint) -> None:
        self._host = access_point.lan_host(1)
        self._ending = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self.served, self.failed, self.longest = 0, 0, 0.0

    def _run(self) -> None:
        with self._host.session() as session:
            session.request("/info")
            while not self._ending.is_set():
                start = time.monotonic()
                if session.request("/info").status != 200:
                    self.failed += 1
                self.longest = max(self.longest, time.monotonic() - start)
                self.served += 1
                time.sleep(0.002)

    def __enter__(self) -> InfoWatch:
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._ending.set()
        self._thread.join(20)


def flood(flooder: Searcher, searcher: Searcher, rounds: int) -> None:
    """All the mixed datagrams, so many times. After each round a search must be answered, so that
    the kernel has hardly anything to drop; a search that it drops is sent again."""
    for _ in range(rounds):
        for datagram in MIXED:
            flooder.send(datagram, Network.AP_ADDRESS)
        for _ in range(50):
            searcher.send(search_message(), Network.AP_ADDRESS)
            if searcher.receive(0.2) is not None:
                break
        else:
            pytest.fail("searches are not answered any more")


@pytest.mark.not_emulated("what 50,000 datagrams take is the emulator's time and memory")
@pytest.mark.begun_first
def test_fifty_thousand_datagrams_cost_no_memory_and_keep_nobody_waiting(
    cold_access_point: AccessPoint, network: Network, searcher: Searcher
) -> None:
    # A log of every line would be the slowest part, and fill the disk.
    cold_access_point.nvram_set({"zelkad_debug_level": "info"})
    daemon = cold_access_point.start()
    with InfoWatch(cold_access_point) as info, Searcher(network.phone, PHONE) as flooder:
        flood(flooder, searcher, 50)
        memory, descriptors = daemon.resident_kib(), daemon.descriptors()
        flood(flooder, searcher, ROUNDS)
        assert daemon.resident_kib() - memory < cold_access_point.build.memory_limit_kib(256)
        assert daemon.descriptors() == descriptors
    assert (info.failed, info.longest < 2) == (0, True), info.longest
    assert info.served > 100


def test_a_search_whose_answer_has_nowhere_to_go_is_logged(
    access_point: AccessPoint, network: Network, searcher: Searcher
) -> None:
    """A sender's port of 0, as a forged datagram may have it."""
    message = search_message()
    header = struct.pack("!HHHH", 0, PORT, 8 + len(message), 0)  # no checksum
    with network.phone.entered():
        raw = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_UDP)
    with raw:
        raw.sendto(header + message, (Network.AP_ADDRESS, 0))
    access_point.daemon.wait_log("failed to send response to M-SEARCH packet")
    assert_exact(searcher.ask(message), access_point)
