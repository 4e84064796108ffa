"""The LAN comes late, bounces and is rebuilt: the servers end on an address that the bridge has."""

from __future__ import annotations

import errno
import os
import random
import shutil
import signal
import socket
import struct
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from test_moving_lan import ADDRESSES, NEW, OLD, OTHER, STOPPED, Lan, Moved, overrun, while_stopped
from velm_harness.call_fault import CallFault
from velm_harness.sample import Sample
from velm_sim.access_point import AccessPoint
from velm_sim.certificates import Identity, make_server
from velm_sim.daemon import wait_until
from velm_sim.ipc_client import IpcClient
from velm_sim.limits import LAN_COMMAND_TIME
from velm_sim.namespaces import Network
from velm_sim.ssdp import PORT, Searcher, search_message

CANNOT_BIND = "call failed: evhtp_bind_socket( http_server_instance, "
WAITS = "wait_for_address - until an interface has "
PHONE = Network.PHONE_ADDRESSES[0]
PROMPT = 0.05  # from an address to the server at it


@pytest.fixture
def lan(network: Network) -> Iterator[Lan]:
    made = Lan(network)
    yield made
    rebuild_bridge_if_gone(made)
    made.restore()


@pytest.fixture(scope="session")
def identity() -> Identity:
    """A certificate for every address that the access point moves to."""
    return make_server([OLD, *ADDRESSES])


class FakeIp:
    """The `ip` of the daemon: the real one, unless told to fail, to hang, to print nothing, or to
    change the addresses as soon as it has printed them."""

    def __init__(self, directory: Path) -> None:
        self.directory = directory
        directory.mkdir()
        real = shutil.which("ip")
        script = directory / "ip"
        script.write_text(
            "#!/bin/sh\n"
            f"cd {directory}\n"
            "echo >> runs\n"
            "[ -e fail ] && exit 1\n"
            "[ -e silent ] && exit 0\n"
            "while [ -e hang ]; do sleep 0.01; done\n"
            f'{real} "$@"\n'
            f"[ -e afterwards ] && {real} -batch afterwards\n"
            "exit 0\n"
        )
        script.chmod(0o755)

    @property
    def environment(self) -> dict[str, str]:
        return {"PATH": f"{self.directory}:{os.environ['PATH']}"}

    @property
    def runs(self) -> int:
        file = self.directory / "runs"
        return len(file.read_text()) if file.exists() else 0

    def be(self, what: str, text: str = "") -> None:
        (self.directory / what).write_text(text)

    def be_itself(self) -> None:
        for what in ("fail", "silent", "hang", "afterwards"):
            (self.directory / what).unlink(missing_ok=True)


@pytest.fixture
def fake_ip(cold_access_point: AccessPoint) -> FakeIp:
    return FakeIp(cold_access_point.directory / "commands")


@pytest.fixture
def cold(
    cold_access_point: AccessPoint, lan: Lan, identity: Identity, fake_ip: FakeIp
) -> Moved:
    """An access point that is not started yet and runs the fake command."""
    at = cold_access_point.directory
    identity.write(at / "server_cert.pem", at / "server_key.pem")
    cold_access_point.prepare(environment=fake_ip.environment)
    return Moved(cold_access_point, lan, identity)


@pytest.fixture
def moved(cold: Moved) -> Moved:
    cold.daemon.start()
    cold.daemon.wait_until_serving()
    return cold


def serves_at(moved: Moved, address: str) -> None:
    limit = LAN_COMMAND_TIME + 5
    wait_until(lambda: moved.listening() == [address], limit, f"nobody listens at {address}")
    moved.wait_until_serving(moved.host(address))
    assert moved.daemon.alive()


def seconds_until_served(moved: Moved, address: str, begin: Callable[[], None]) -> float:
    begin()
    start = time.monotonic()
    wait_until(lambda: address in moved.listening(), 10, f"nobody listens at {address}")
    return time.monotonic() - start


def has_timer(moved: Moved) -> bool:
    """True when the idle daemon wakes by itself within a while."""
    status = Path(f"/proc/{moved.daemon.pid}/status")

    def wakes() -> int:
        lines = [line for line in status.read_text().splitlines() if "ctxt_switches" in line]
        return sum(int(line.split()[1]) for line in lines)

    time.sleep(1.2)  # what a stop of the servers frees is given back within a second
    before = wakes()
    time.sleep(1.2)
    return wakes() != before


# An address that cannot be bound yet.


def test_a_move_whose_address_cannot_be_bound_yet_ends_there(
    cold_access_point: AccessPoint, cold: Moved
) -> None:
    if cold_access_point.build.is_asan:
        pytest.skip("the sanitizer has wrappers of its own around the same calls")
    fault = CallFault(cold_access_point.directory / "fault")
    cold_access_point.prepare(
        environment=fault.environment, preload=[fault.library(cold_access_point.build)]
    )
    daemon = cold_access_point.daemon
    cold.daemon = daemon
    daemon.start()
    daemon.wait_until_serving()
    mark = daemon.log_mark()
    fault.fail("bind", 1, errno.EADDRNOTAVAIL)
    cold.lan.add(NEW)
    serves_at(cold, NEW)
    assert fault.failed == 1
    assert daemon.log(mark).count(CANNOT_BIND) == 1


def keep_busy_while(parent: int) -> None:
    while os.getppid() == parent:
        pass
    os._exit(0)


def test_every_move_of_a_busy_access_point_ends_at_the_new_address(
    moved: Moved, sample: Sample
) -> None:
    rounds = 1200 if sample.whole else 25
    at, rng = OLD, random.Random(sample.seed)
    parent, children = os.getpid(), []
    try:
        while len(children) < 3:
            children.append(os.fork())
            if children[-1] == 0:
                keep_busy_while(parent)
        for number in range(rounds):
            to = ADDRESSES[number % len(ADDRESSES)]
            moved.lan.add(to)
            if rng.random() < 0.5:
                moved.lan.remove(at)
                wait_until(lambda: moved.listening() == [to], 10, f"{number}: not at {to}")
            else:
                wait_until(lambda: moved.listening() == [to], 10, f"{number}: not at {to}")
                moved.lan.remove(at)
            at = to
    finally:
        for child in children:
            os.kill(child, signal.SIGKILL)
            os.waitpid(child, 0)
    serves_at(moved, at)


@pytest.mark.parametrize("stays", [OLD, NEW])
def test_an_address_that_flaps_ends_at_what_stayed(
    stays: str, moved: Moved, sample: Sample
) -> None:
    flaps, rng = (5000 if sample.whole else 150), random.Random(sample.seed)
    with moved.lan.network.ap.script() as script:
        for _ in range(flaps):
            script.run(f"addr add {NEW}/24 dev br0")
            time.sleep(rng.uniform(0, 0.005))
            script.run(f"addr del {NEW}/24 dev br0")
            time.sleep(rng.uniform(0, 0.005))
        if stays == NEW:
            script.run(f"addr add {NEW}/24 dev br0")
    serves_at(moved, stays)


def test_the_only_address_that_flaps_is_served_when_it_stays(moved: Moved, sample: Sample) -> None:
    flaps, rng = (2000 if sample.whole else 100), random.Random(sample.seed)
    with moved.lan.network.ap.script() as script:
        for number in range(flaps):
            address = (OLD, NEW)[number % 2]
            script.run("addr flush dev br0")
            time.sleep(rng.uniform(0, 0.005))
            script.run(f"addr add {address}/24 dev br0")
            time.sleep(rng.uniform(0, 0.005))
    serves_at(moved, address)


# Without an address.


def test_started_without_an_address_it_waits_and_serves_local_clients(cold: Moved) -> None:
    cold.lan.change("addr flush dev br0")
    cold.daemon.start()
    cold.daemon.wait_log("http_server_start - end")
    assert cold.daemon.log().count(CANNOT_BIND) == 1
    wait_until(cold.daemon.ipc_listener, 5, "no IPC")
    client = IpcClient(cold.access_point.socket_path)
    client.request()
    assert client.receive(timeout=5).payload
    client.close()
    took = seconds_until_served(cold, NEW, lambda: cold.lan.add(NEW))
    serves_at(cold, NEW)
    assert cold.daemon.log().count(CANNOT_BIND) == 1
    assert took < 4 * PROMPT  # others may be at work on this machine


def test_an_address_that_comes_is_served_at_once(cold: Moved) -> None:
    cold.lan.change("addr flush dev br0")
    cold.daemon.start()
    cold.daemon.wait_log(WAITS + OLD)
    times = []
    for address in (OLD, NEW, OTHER, OLD):
        time.sleep(0.3)  # long enough for the attempts to have become rare
        times.append(seconds_until_served(cold, address, lambda: cold.lan.add(address)))  # noqa: B023
        serves_at(cold, address)
        cold.lan.change("addr flush dev br0")
    assert min(times[1:]) < PROMPT
    assert times[0] < 4 * PROMPT


def test_a_reload_without_an_address_keeps_the_one_in_use(moved: Moved) -> None:
    moved.lan.change("addr flush dev br0")
    mark = moved.daemon.log_mark()
    os.kill(moved.daemon.pid, signal.SIGHUP)
    log = moved.daemon.wait_log(WAITS + OLD, start=mark)
    assert f"update_config - the LAN address is not known and stays {OLD}" in log
    moved.lan.add(NEW)
    serves_at(moved, NEW)


def test_an_address_that_comes_back_is_waited_for_and_then_nothing_wakes_the_daemon(
    moved: Moved,
) -> None:
    moved.lan.change("addr flush dev br0")
    os.kill(moved.daemon.pid, signal.SIGHUP)
    moved.daemon.wait_log(WAITS + OLD)
    moved.lan.add(OLD)
    serves_at(moved, OLD)
    with Searcher(moved.lan.network.phone, PHONE) as searcher:
        assert searcher.ask(search_message()).host == OLD
    assert not has_timer(moved)


# The command that knows the address.


@pytest.mark.parametrize("how", ["fail", "silent"])
def test_started_while_the_command_fails_it_finds_the_address(
    how: str, cold: Moved, fake_ip: FakeIp
) -> None:
    cold.lan.change("addr flush dev br0")
    cold.lan.add(NEW)
    fake_ip.be(how)
    cold.daemon.start()
    serves_at(cold, NEW)
    assert "failed to get IP address for wl0" in cold.daemon.log()


@pytest.mark.parametrize("how", ["fail", "silent"])
def test_a_reload_while_the_command_fails_keeps_the_address(
    how: str, moved: Moved, fake_ip: FakeIp
) -> None:
    moved.move(NEW)
    fake_ip.be(how)
    mark = moved.daemon.log_mark()
    moved.daemon.reload()
    serves_at(moved, NEW)
    assert f" ERROR main - update_config - the LAN address is not known and stays {NEW}" in (
        moved.daemon.log(mark)
    )


def test_started_while_the_command_hangs_it_waits_for_its_time(
    cold: Moved, fake_ip: FakeIp
) -> None:
    fake_ip.be("hang")
    cold.daemon.start()
    start = time.monotonic()
    serves_at(cold, OLD)
    assert -0.5 < time.monotonic() - start - LAN_COMMAND_TIME < 3
    wait_until(lambda: not hanging(fake_ip), 5, "the command goes on")


def hanging(fake_ip: FakeIp) -> list[str]:
    found = []
    for entry in Path("/proc").glob("[0-9]*/cmdline"):
        try:
            if str(fake_ip.directory / "ip").encode() in entry.read_bytes():
                found.append(entry.parent.name)
        except OSError:
            pass
    return found


def test_a_reload_while_the_command_hangs_holds_nobody_up(moved: Moved, fake_ip: FakeIp) -> None:
    moved.move(NEW)
    host, mark = moved.host(NEW), moved.daemon.log_mark()
    fake_ip.be("hang")
    os.kill(moved.daemon.pid, signal.SIGHUP)
    start, worst = time.monotonic(), 0.0
    wait_until(lambda: fake_ip.runs == 2, 5, "the command does not run")
    with host.session() as session:
        assert session.request("/info").status == 200
        while time.monotonic() < start + LAN_COMMAND_TIME - 1:
            asked = time.monotonic()
            assert session.request("/info").status == 200
            worst = max(worst, time.monotonic() - asked)
            time.sleep(0.02)
    assert worst < 1
    assert STOPPED not in moved.daemon.log(mark)
    log = moved.daemon.wait_log("http_server_start - end", start=mark)
    assert time.monotonic() - start < LAN_COMMAND_TIME + 3
    assert f"the LAN address is not known and stays {NEW}" in log
    serves_at(moved, NEW)
    assert not hanging(fake_ip)


def test_a_signal_during_a_reload_is_not_lost(moved: Moved, fake_ip: FakeIp) -> None:
    fake_ip.be("hang")
    mark = moved.daemon.log_mark()
    os.kill(moved.daemon.pid, signal.SIGHUP)
    wait_until(lambda: fake_ip.runs == 2, 5, "the command does not run")
    for _ in range(3):
        os.kill(moved.daemon.pid, signal.SIGHUP)
    assert moved.host(OLD).request("/info").status == 200
    moved.access_point.nvram_set({"ap_serial_number": "SN-AFTERWARDS"})
    fake_ip.be_itself()
    moved.daemon.wait_log("velm_main - velm_main_init", start=mark, count=2)
    wait_until(lambda: moved.listening() == [OLD], 5, "nobody listens")
    assert moved.host(OLD).request("/info").json()["serialNumber"] == "SN-AFTERWARDS"
    assert fake_ip.runs == 3


def replacement(by: str) -> str:
    return f"addr add {by}/24 dev br0\naddr del {OLD}/24 dev br0\n"


def test_an_address_replaced_while_the_daemon_starts_is_left(cold: Moved, fake_ip: FakeIp) -> None:
    fake_ip.be("afterwards", replacement(NEW))
    cold.daemon.start()
    serves_at(cold, NEW)


def test_an_address_replaced_during_a_reload_is_left(moved: Moved, fake_ip: FakeIp) -> None:
    fake_ip.be("afterwards", replacement(NEW))
    os.kill(moved.daemon.pid, signal.SIGHUP)
    # The announcement of the new address and the reload may come in either order.
    moved.daemon.wait_log("velm_main - velm_main_init", count=2)
    serves_at(moved, NEW)


def test_reloads_and_replaced_addresses_at_any_distance(moved: Moved, sample: Sample) -> None:
    rounds, rng, at = (1000 if sample.whole else 40), random.Random(sample.seed), OLD
    for number in range(rounds):
        to = ADDRESSES[number % len(ADDRESSES)]
        os.kill(moved.daemon.pid, signal.SIGHUP)
        time.sleep(rng.uniform(0.003, 0.015))
        moved.lan.change(f"addr add {to}/24 dev br0", f"addr del {at}/24 dev br0")
        at = to
        wait_until(lambda: moved.listening() == [to], 10, f"{number}: not at {to}")
    serves_at(moved, at)


# The bridge made anew.


def rebuild_bridge_if_gone(lan: Lan) -> None:
    with lan.network.ap.entered():
        names = [name for _, name in socket.if_nameindex()]
    if "br0" not in names:
        build_bridge(lan)


def build_bridge(lan: Lan, index: int | None = None) -> None:
    number = f"index {index} " if index else ""
    lan.change(
        f"link add br0 {number}type bridge",
        "link set lan0 master br0",
        "link set br0 up",
        f"addr add {OLD}/24 dev br0",
    )


def bridge_index(lan: Lan) -> int:
    with lan.network.ap.entered():
        return socket.if_nametoindex("br0")


@pytest.mark.parametrize("same_index", [False, True])
def test_a_bridge_made_anew_with_the_same_address_is_searched_within_a_second(
    same_index: bool, moved: Moved
) -> None:
    servers, index = moved.servers(), bridge_index(moved.lan)
    for _ in range(25):  # more often than the kernel lets one socket be a member of groups
        moved.lan.change("link del br0")
        build_bridge(moved.lan, index if same_index else None)
    assert (bridge_index(moved.lan) == index) == same_index
    with Searcher(moved.lan.network.phone, PHONE) as searcher:
        start, answer = time.monotonic(), None
        while answer is None and time.monotonic() < start + 10:
            searcher.send(search_message())
            answer = searcher.receive(0.05)
        assert answer is not None and answer.host == OLD
        assert time.monotonic() - start < 1
        assert searcher.ask(search_message(), OLD).host == OLD
    assert moved.host(OLD).request("/info").status == 200
    assert moved.servers() == servers


def found_by(searcher: Searcher) -> str | None:
    """Where the answer to one of three searches leads: phones search several times."""
    for _ in range(3):
        searcher.send(search_message())
        answer = searcher.receive(0.3)
        if answer is not None:
            return answer.host
    return None


def test_renewals_of_the_lease_keep_group_and_servers(moved: Moved) -> None:
    servers = moved.servers()
    with Searcher(moved.lan.network.phone, PHONE) as searcher:
        for lifetime in range(3600, 3630):
            moved.lan.change(
                f"addr change {OLD}/24 dev br0 valid_lft {lifetime} preferred_lft {lifetime}"
            )
            assert found_by(searcher) == OLD  # one may meet the moment between leaving and joining
    moved.lan.change(f"addr change {OLD}/24 dev br0 valid_lft forever preferred_lft forever")
    assert moved.servers() == servers


# Several addresses.


def add_beside(moved: Moved, address: str) -> None:
    """Of a subnet of its own, so that the kernel announces nothing when the other one goes."""
    moved.lan.change(f"addr add {address}/32 dev br0")


def remove_first(moved: Moved) -> None:
    moved.lan.change(f"addr del {OLD}/24 dev br0", "route add 192.168.1.0/24 dev br0")


@pytest.fixture
def beside(cold: Moved) -> Moved:
    """Started with OLD in use and NEW beside it."""
    add_beside(cold, NEW)
    cold.daemon.start()
    cold.daemon.wait_until_serving()
    assert cold.listening() == [OLD]
    return cold


def test_when_the_address_in_use_goes_the_other_one_serves(beside: Moved) -> None:
    remove_first(beside)
    serves_at(beside, NEW)
    with Searcher(beside.lan.network.phone, PHONE) as searcher:
        assert searcher.ask(search_message()).host == NEW


def test_the_other_address_that_goes_moves_nothing(beside: Moved) -> None:
    servers, mark = beside.servers(), beside.daemon.log_mark()
    beside.lan.change(f"addr del {NEW}/32 dev br0", "addr add 198.51.100.81/24 dev wan0",
                      "addr del 198.51.100.81/24 dev wan0")  # fmt: skip
    beside.daemon.wait_log("wan0 new ip: 198.51.100.81", start=mark)
    assert beside.host(OLD).request("/info").status == 200
    assert beside.servers() == servers


def test_the_first_of_several_addresses_announced_again_moves_nothing(beside: Moved) -> None:
    servers, mark = beside.servers(), beside.daemon.log_mark()
    lifetime = "valid_lft 3600 preferred_lft 3600"
    beside.lan.change(f"addr change {OLD}/24 dev br0 {lifetime}")
    beside.daemon.wait_log(f"netlink_ip_address_changed - br0 new ip: {OLD}", start=mark)
    assert beside.host(OLD).request("/info").status == 200
    assert beside.servers() == servers
    assert STOPPED not in beside.daemon.log(mark)


def test_that_the_address_in_use_went_is_found_when_it_could_not_be_announced(
    beside: Moved,
) -> None:
    def change() -> None:
        overrun(beside)
        remove_first(beside)

    while_stopped(beside, change)
    beside.daemon.wait_log("netlink_cb - recvfrom failed: No buffer space available")
    serves_at(beside, NEW)


# Who is answered.


def test_a_search_from_the_uplink_is_not_answered(moved: Moved) -> None:
    network = moved.lan.network
    with (
        Searcher(network.phone, PHONE) as inside,
        Searcher(network.cloud, Network.CLOUD_ADDRESS) as outside,
    ):
        for to in (Network.UPLINK_ADDRESS, OLD):
            outside.send(search_message(), to)
        assert inside.ask(search_message(), OLD).host == OLD
        assert inside.ask(search_message()).host == OLD
        assert outside.receive(0.2) is None


def checksum(data: bytes) -> int:
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    return ~((total & 0xFFFF) + (total >> 16)) & 0xFFFF


def test_no_answer_leaves_the_lan_for_a_forged_sender(moved: Moved) -> None:
    """A host of the LAN names one beyond the uplink as the sender."""
    network = moved.lan.network
    with network.ap.entered():
        for name in ("all", "br0"):
            Path(f"/proc/sys/net/ipv4/conf/{name}/rp_filter").write_text("0")
    with (
        Searcher(network.cloud, Network.CLOUD_ADDRESS) as victim,
        Searcher(network.phone, PHONE) as inside,
    ):
        with network.phone.entered():
            forger = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW)
        with forger:
            text = search_message()
            port = victim.socket.getsockname()[1]
            udp = struct.pack("!HHHH", port, PORT, 8 + len(text), 0) + text
            ends = socket.inet_aton(Network.CLOUD_ADDRESS) + socket.inet_aton(OLD)
            head = struct.pack("!BBHHHBBH", 0x45, 0, 20 + len(udp), 1, 0, 64, 17, 0) + ends
            head = head[:10] + struct.pack("!H", checksum(head)) + head[12:]
            forger.sendto(head + udp, (OLD, 0))
        assert inside.ask(search_message(), OLD).host == OLD
        assert victim.receive(0.2) is None
