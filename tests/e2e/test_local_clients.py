"""Clients of the Unix socket that read slowly or not at all, and programs that take every place."""

from __future__ import annotations

import contextlib
import os
import re
import signal
import threading
import time
from collections.abc import Callable
from pathlib import Path

import pytest
from velm_harness.sample import Sample
from velm_sim.access_point import AccessPoint
from velm_sim.cloud import Cloud
from velm_sim.daemon import Daemon, wait_until
from velm_sim.ipc_client import (
    HEADER,
    REPORT,
    REQUEST,
    STATUS_NO_PAIRED_DEVICES,
    IpcClient,
    Report,
)
from velm_sim.limits import LOCAL_CLIENTS
from velm_sim.phone import Phone, sample_location

LONGEST_LIST = 950  # a body holds at most 1,000 values; some are the phone's words about itself
KERNEL_ROOM = 400  # more reports than the kernel keeps for a client that does not read


def numbered_list(first: int, count: int) -> list[dict[str, float]]:
    """Locations that a body has room for, numbered by their latitude."""
    return [{"latitude": number / 100} for number in range(first, first + count)]


def numbers(reports: list[Report]) -> list[int]:
    return [round(report.latitude * 100) for report in reports]


class Reader(threading.Thread):
    """Reads that many reports of one client, with a pause before each when told so."""

    def __init__(self, client: IpcClient, count: int, pause: float = 0) -> None:
        super().__init__(daemon=True)
        self.client, self.count, self.pause = client, count, pause
        self.reports: list[Report] = []
        self.ids: list[int] = []
        self.failure: Exception | None = None
        self.start()

    def run(self) -> None:
        try:
            while len(self.reports) < self.count:
                time.sleep(self.pause)
                frame = self.client.receive()
                assert frame.type == REPORT
                self.ids.append(frame.id)
                self.reports.append(Report.decode(frame.payload))
        except (OSError, AssertionError) as failure:
            self.failure = failure

    def result(self) -> list[Report]:
        self.join(30)
        assert self.failure is None, (len(self.reports), self.failure)
        assert not self.is_alive()
        assert self.ids == sorted(self.ids)
        return self.reports


@pytest.mark.each_machine
def test_every_client_that_reads_gets_every_report_of_the_longest_list(
    paired_phone: Phone, connect_ipc: Callable[[], IpcClient]
) -> None:
    asking, bystander, slow = connect_ipc(), connect_ipc(), connect_ipc()
    readers = [
        Reader(asking, LONGEST_LIST),
        Reader(bystander, LONGEST_LIST),
        Reader(slow, LONGEST_LIST, pause=0.001),
    ]
    assert paired_phone.location([0] * LONGEST_LIST).status == 200
    for reader in readers:
        assert len(reader.result()) == LONGEST_LIST
    for client in (asking, bystander, slow):
        assert client.is_silent(0.1)


@pytest.mark.each_machine
def test_reports_come_in_the_order_of_the_lists(
    paired_phone: Phone, connect_ipc: Callable[[], IpcClient]
) -> None:
    readers = [Reader(connect_ipc(), 600), Reader(connect_ipc(), 600, pause=0.001)]
    for first in (0, 300):
        assert paired_phone.location(numbered_list(first, 300)).status == 200
    for reader in readers:
        assert numbers(reader.result()) == list(range(600))


def fill(phone: Phone, client: IpcClient) -> int:
    """Posts lists that nobody reads until one of them has no room; how many were taken."""
    taken = 0
    while taken < 40:
        reply = phone.location([0] * LONGEST_LIST)
        if reply.status == 503:
            return taken
        assert reply.status == 200
        taken += 1
    raise AssertionError("what waits for a client has no bound")


@pytest.mark.not_emulated("the emulator's memory is measured as well")
def test_what_was_answered_with_200_is_reported_and_what_has_no_room_with_503(
    access_point: AccessPoint, paired_phone: Phone, ipc: IpcClient
) -> None:
    before = access_point.daemon.resident_kib()
    taken = fill(paired_phone, ipc)
    assert taken > 3
    access_point.daemon.wait_log("no room for 950 locations while a client does not read")
    if not access_point.build.is_asan:
        assert access_point.daemon.resident_kib() - before < 1500
    assert paired_phone.host.request("/info").status == 200
    expected = taken * LONGEST_LIST
    assert len(Reader(ipc, expected).result()) == expected
    assert ipc.is_silent(0.1)
    assert paired_phone.location(sample_location(latitude=1.5)).status == 200
    assert ipc.receive_report().latitude == 1.5


def test_a_client_that_does_not_read_holds_the_others_up_until_it_goes(
    paired_phone: Phone, connect_ipc: Callable[[], IpcClient]
) -> None:
    stalled, other = connect_ipc(), connect_ipc()
    assert paired_phone.location([0] * KERNEL_ROOM).status == 200
    assert paired_phone.location(sample_location(latitude=1.5)).status == 200
    reader = Reader(other, KERNEL_ROOM + 1)
    reader.join(0.5)
    assert reader.is_alive() and len(reader.reports) < KERNEL_ROOM
    stalled.close()
    assert reader.result()[-1].latitude == 1.5


def test_clients_that_do_not_read_are_dropped_together_after_15_seconds(
    access_point: AccessPoint,
    paired_phone: Phone,
    connect_ipc: Callable[[], IpcClient],
    sample: Sample,
) -> None:
    if not sample.whole:
        pytest.skip("takes 15 s: the time itself is measured in the tests of the connection")
    stalled = connect_many(connect_ipc, LOCAL_CLIENTS - 1)
    reader = Reader(connect_ipc(), KERNEL_ROOM)
    reader.client.timeout = 20
    begin = time.monotonic()
    assert paired_phone.location([0] * KERNEL_ROOM).status == 200
    assert len(reader.result()) == KERNEL_ROOM
    assert 14 < time.monotonic() - begin < 18
    access_point.daemon.wait_log("Write timeout", count=len(stalled))


# The places.


def connect_many(connect: Callable[[], IpcClient], count: int) -> list[IpcClient]:
    """One after the other: the kernel lets a few wait, and refuses the next one meanwhile."""
    made: list[IpcClient] = []

    def connected() -> bool:
        with contextlib.suppress(BlockingIOError):
            made.append(connect())
        return len(made) == count

    wait_until(connected, 10, "the daemon does not accept")
    return made


def test_idle_connections_of_one_program_do_not_lock_the_others_out(
    access_point: AccessPoint, connect_ipc: Callable[[], IpcClient]
) -> None:
    idle = connect_many(connect_ipc, LOCAL_CLIENTS + 8)
    afc = connect_ipc()
    afc.request()
    assert afc.receive().status == STATUS_NO_PAIRED_DEVICES
    assert [one.receive_packet(timeout=2) for one in idle[:9]] == [b""] * 9
    assert all(one.is_silent(0) for one in idle[9:])
    access_point.daemon.wait_log(f"accept_cb - too many connections: {LOCAL_CLIENTS}")


def test_a_client_that_waits_for_its_report_keeps_its_place(
    cloud: Cloud, paired_phone: Phone, connect_ipc: Callable[[], IpcClient]
) -> None:
    afc = connect_ipc()
    afc.request()
    cloud.fcm.wait()
    connect_many(connect_ipc, 2 * LOCAL_CLIENTS)
    assert paired_phone.location().status == 200
    assert afc.receive_report().valid == 1


# What is left behind.


@pytest.mark.not_emulated("the emulator's memory is measured as well")
def test_a_long_packet_leaves_no_memory_behind(
    access_point: AccessPoint, connect_ipc: Callable[[], IpcClient]
) -> None:
    if access_point.build.is_asan:
        pytest.skip("the sanitizer keeps what is freed")
    client = connect_ipc()
    client.request()
    assert client.receive().status == STATUS_NO_PAIRED_DEVICES
    before = access_point.daemon.resident_kib()
    skipped = HEADER.pack(REQUEST, 65535, 1, 0, 0) + bytes(65535)
    client.send(skipped * 2)
    client.request()
    assert client.receive(timeout=10).status == STATUS_NO_PAIRED_DEVICES
    assert access_point.daemon.resident_kib() - before < 64


def wake_ups(daemon: Daemon) -> int:
    found = re.search(
        r"^voluntary_ctxt_switches:\s+(\d+)", Path(f"/proc/{daemon.pid}/status").read_text(), re.M
    )
    assert found
    return int(found.group(1))


def test_a_request_wakes_nobody_once_its_report_has_come(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request()
    cloud.fcm.wait()
    assert paired_phone.location().status == 200
    assert ipc.receive_report().valid == 1
    time.sleep(4)  # whoever had something to do has done it
    before = wake_ups(access_point.daemon)
    time.sleep(4)  # a timer of a second would wake it four times
    assert wake_ups(access_point.daemon) - before <= 1


# What is said of a place, and the socket's path.


@pytest.mark.each_machine
@pytest.mark.parametrize(
    "changes",
    [{"latitude": 90.5}, {"longitude": -180.5}, {"latitude": -91}, {"longitude": 181}],
    ids=str,
)
def test_a_place_that_is_on_no_map_is_not_handed_on(
    changes: dict[str, float], access_point: AccessPoint, paired_phone: Phone, ipc: IpcClient
) -> None:
    bad = sample_location(**changes)
    assert paired_phone.location([bad, sample_location(latitude=2.5)]).status == 200
    assert ipc.receive_report().latitude == 2.5
    assert "WARN" in access_point.daemon.wait_log(" is none, device id ")


def test_a_file_at_the_path_of_the_socket_is_left_alone(
    access_point: AccessPoint, paired_phone: Phone
) -> None:
    path = access_point.socket_path
    path.unlink()
    path.write_text("somebody's")
    os.kill(access_point.daemon.pid, signal.SIGHUP)
    access_point.daemon.wait_log("Cannot create listener")
    assert path.read_text() == "somebody's"
    assert paired_phone.location().status == 200, "the rest is served"
    path.unlink()
    access_point.reload()
    with IpcClient(path) as client:
        assert paired_phone.location().status == 200
        assert client.receive_report().valid == 1
