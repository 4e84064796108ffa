"""Memory that runs out: whichever allocation fails, the daemon ends in its fatal line and SIGABRT.

A preloaded allocator fails one in eight allocations of a phase, each in a copy of the daemon; with
--every-fault all of them (about 45,000), those of the C library and of the others included.
"""

from __future__ import annotations

import contextlib
import http.client
import os
import shutil
import signal
import subprocess
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

import pytest
from velm_harness.allocation_fault import AllocationFault
from velm_harness.preloads import library
from velm_harness.sample import Sample
from velm_sim.access_point import PAIRING_MEMBERS, AccessPoint
from velm_sim.build import Build
from velm_sim.cloud import Cloud
from velm_sim.daemon import Daemon, wait_until
from velm_sim.ipc_client import IpcClient
from velm_sim.namespaces import Network
from velm_sim.phone import Phone

PASSES = 8
FATAL = "not enough memory"
PATIENCE = 120.0  # a sweep stops the daemon for a millisecond an allocation

# How a test meets with a daemon that has ended.
GIVEN_UP = (OSError, RuntimeError, ValueError, AssertionError, http.client.HTTPException)


@dataclass
class Rig:
    """An access point whose daemon runs with the failing allocator."""

    access_point: AccessPoint
    fault: AllocationFault
    cloud: Cloud
    patience: float = PATIENCE

    @property
    def daemon(self) -> Daemon:
        return self.access_point.daemon

    def prepare(self) -> None:
        fault, build = self.fault, self.access_point.build
        # A copy forked while the address is looked up is not the parent of that command: it serves
        # at the address of the command line.
        arguments = ["-c", str(self.access_point.configuration_file), "-i", Network.AP_ADDRESS]
        self.access_point.prepare(
            environment=fault.environment, preload=[fault.library(build)], arguments=arguments
        )

    def start(self) -> None:
        self.daemon.start()
        self.daemon.wait_until_serving(self.patience)

    def phone(self) -> Phone:
        phone = self.access_point.phone()
        phone.host.timeout = self.patience
        return phone


# What is done while allocations fail, and what must have been done before.


def do_start(rig: Rig, phone: Phone) -> None:
    rig.start()


def do_pair(rig: Rig, phone: Phone) -> None:
    assert phone.pair().status == 200


def do_reload(rig: Rig, phone: Phone) -> None:
    rig.daemon.reload(rig.patience)


def do_round_trip(rig: Rig, phone: Phone) -> None:
    with IpcClient(rig.access_point.socket_path) as ipc:
        ipc.request()
        rig.cloud.fcm.wait(timeout=rig.patience)
        rig.daemon.wait_log("send_push_handler", timeout=rig.patience)
        assert phone.location().status == 200
        assert ipc.receive_report().valid == 1


PHASES: dict[str, Callable[[Rig, Phone], None]] = {
    "start": do_start,
    "pairing": do_pair,
    "round trip": do_round_trip,
    "reload": do_reload,
}


def bring_before(phase: str, rig: Rig) -> Phone:
    """The daemon's state in which the phase begins."""
    phone = rig.phone()
    if phase != "start":
        rig.start()
        rig.daemon.wait_log("http_server_start - end")
    if phase == "round trip":
        assert phone.pair().status == 200
    return phone


@pytest.fixture
def rig(build: Build, cold_access_point: AccessPoint, cloud: Cloud) -> Rig:
    return make_rig(build, cold_access_point, cloud)


def make_rig(build: Build, access_point: AccessPoint, cloud: Cloud) -> Rig:
    if build.is_asan:
        pytest.skip("an instrumented daemon has an allocator of its own, which never fails")
    made = Rig(access_point, AllocationFault(access_point.directory / "fault"), cloud)
    made.prepare()
    return made


def fatal_lines(daemon: Daemon) -> int:
    """How often the daemon or a copy of it said why it ended, in its log or before there is one."""
    said = (daemon.directory / "stdout").read_text(errors="replace")
    return daemon.log().count(FATAL) + said.count(FATAL)


def assert_whole(access_point: AccessPoint, store: Path) -> None:
    """Everything in the store can be read, and its last commit holds whole pairings only."""
    for is_live in (True, False):
        if not is_live:
            (store / "live").unlink(missing_ok=True)
        shown = access_point.nvram("show", environment={"VELM_NVRAM": str(store)})
        assert (shown.returncode, shown.stderr) == (0, ""), store
    settings = dict(line.split("=", 1) for line in shown.stdout.splitlines())
    assert settings["ap_vendor"] == "NORVALE"
    members = [name for name in settings if name.startswith("zelkad_pairing_0_")]
    if settings.get("zelkad_pairing_0_status") == "Valid":
        assert len(members) == len(PAIRING_MEMBERS) and settings["zelkad_pairing_0_attestation_key"]
    else:
        assert not members or set(settings[name] for name in members) <= {"", "Invalid"}


def pytest_generate_tests(metafunc: pytest.Metafunc) -> None:
    if "sweep" in metafunc.fixturenames:
        every = metafunc.config.getoption("--every-fault")
        metafunc.parametrize("sweep", range(PASSES if every else 1))


@pytest.mark.begun_first
@pytest.mark.parametrize("phase", PHASES)
def test_each_allocation_that_fails_ends_the_daemon_in_its_fatal_line(
    phase: str,
    sweep: int,
    rig: Rig,
    sample: Sample,
    record_property: Callable[[str, object], None],
) -> None:
    phone = bring_before(phase, rig)
    rig.fault.sweep(1 + (sample.seed + sweep) % PASSES, PASSES)
    PHASES[phase](rig, phone)
    rig.fault.count()
    # Its answer comes when the last copy has ended.
    assert rig.access_point.lan_host(9).request("/info").status == 200
    outcomes = rig.fault.outcomes()
    assert len(outcomes) > 300
    record_property("failed", len(outcomes))
    others = [f"{other.number}: {other.kind} {other.place()}" for other in outcomes
              if not other.aborted]  # fmt: skip
    assert not others
    assert fatal_lines(rig.daemon) == len(outcomes)
    for store in rig.fault.stores.iterdir():
        assert_whole(rig.access_point, store)


def assert_ended_in_the_fatal_line(daemon: Daemon) -> None:
    wait_until(lambda: not daemon.alive(), 10, "the daemon did not end")
    assert daemon.exit_status() == -signal.SIGABRT
    assert fatal_lines(daemon) >= 1


def copied_store(rig: Rig) -> Path:
    """The store is looked at in ways that change it."""
    at = rig.access_point.directory
    return Path(shutil.copytree(at / "nvram", at / "nvram-copy"))


# Two thirds of the way are far from what any of them begins with.
@pytest.mark.parametrize("part", [0.0, 0.35, 0.7])
@pytest.mark.parametrize("phase", PHASES)
def test_memory_that_is_gone_for_good_ends_the_daemon_in_its_fatal_line(
    phase: str, part: float, rig: Rig, cloud: Cloud
) -> None:
    totals = {"start": 17000, "pairing": 7900, "round trip": 11000, "reload": 8000}
    phone = bring_before(phase, rig)
    phone.host.timeout = rig.patience = 5
    # Behind what happens before the log is set up.
    rig.fault.fail_from(200 + int(part * totals[phase]))
    with contextlib.suppress(*GIVEN_UP):
        PHASES[phase](rig, phone)
    assert_ended_in_the_fatal_line(rig.daemon)
    assert FATAL in rig.daemon.log()
    assert_whole(rig.access_point, copied_store(rig))


def test_a_program_without_a_malloc_behind_its_own_says_what_to_build(build: Build) -> None:
    if build.is_asan:
        pytest.skip("an instrumented daemon has an allocator of its own")
    environment = os.environ | {"LD_PRELOAD": str(library(build, "no_next_malloc"))}
    done = subprocess.run(
        [build.program("velmd"), "-v"],
        env=environment, capture_output=True, text=True, timeout=10, check=False,
    )  # fmt: skip
    assert done.returncode == -signal.SIGABRT
    assert "static program: build with -DVELM_CHECK_MALLOC=OFF" in done.stderr
