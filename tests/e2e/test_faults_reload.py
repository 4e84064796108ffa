"""System calls that fail during a reload, one after the other: the outcome is the one of
docs/faults.md each time, and the next reload puts all right."""

from __future__ import annotations

import contextlib
import errno
import os
import signal
import time
from collections.abc import Iterator
from pathlib import Path

import pytest
from velm_harness.call_fault import CallFault
from velm_harness.everybody import CUT_OFF, is_discovered, unpair_all, use_everything
from velm_harness.sample import Sample
from velm_sim.access_point import AccessPoint, Credentials
from velm_sim.build import Build
from velm_sim.cloud import Cloud
from velm_sim.daemon import Daemon, wait_until
from velm_sim.ipc_client import IpcClient
from velm_sim.namespaces import Network

MOST_CALLS = 150
ALWAYS = 8
ONE_IN = 5

SERVES = "serves"
FATAL = "ends in a fatal line"
NO_CLOUD = "exits with 2"
NO_LOCAL_CLIENTS = "serves phones, and local clients after the next reload"
NO_DISCOVERY = "serves without discovery until the next reload"
NOT_RELOADED = "serves as before: the signal is lost"

NO_LISTENER = "Cannot create listener"
NO_SOCKET = "failed to create socket"


def is_idle(daemon: Daemon) -> bool:
    """Not a nanosecond of a processor in a while, though it could have had one; and it does not wait
    for a command of its own, as it does in the middle of a reload."""
    process = Path(f"/proc/{daemon.pid}")

    def used() -> str:
        return (process / "schedstat").read_text().split()[0]

    def rests() -> bool:
        state = (process / "stat").read_text().rpartition(")")[2].split()[0]
        commands = (process / "task" / str(daemon.pid) / "children").read_text()
        return state == "S" and not commands.strip()

    before = used()
    rested = rests()
    time.sleep(0.02)
    return rested and rests() and used() == before


class Reloads:
    """A daemon that is told to reload while calls fail; a new one when it has ended."""

    def __init__(self, build: Build, network: Network, credentials: Credentials) -> None:
        self._made = (build, network, credentials)
        self.access_point: AccessPoint | None = None

    def close(self) -> None:
        if self.access_point:
            self.access_point.close()
        self.access_point = None

    def begin(self) -> AccessPoint:
        if self.access_point:
            return self.access_point
        self.access_point = made = AccessPoint(*self._made)
        self.fault = CallFault(made.directory / "fault")
        preload = [CallFault.library(made.build)]
        made.prepare(environment=self.fault.environment, preload=preload)
        made.daemon.start()
        made.daemon.wait_until_serving()
        self.use_all(made)
        self.descriptors = made.daemon.descriptors()
        return made

    @staticmethod
    def use_all(access_point: AccessPoint) -> None:
        use_everything(access_point, access_point.phone())
        unpair_all(access_point)
        wait_until(lambda: is_idle(access_point.daemon), 10, "it does not rest")

    def reload(self, call: str, number: int, error: int, *, used: bool) -> str:
        """What comes of a reload in which that call fails; empty when there was none. With `used`
        phones and clients are there before, meanwhile and just after."""
        access_point = self.begin()
        daemon = access_point.daemon
        mark = daemon.log_mark()
        with contextlib.ExitStack() as there:
            if used:
                there.enter_context(IpcClient(access_point.socket_path)).request()
                there.enter_context(access_point.lan_host(1).session()).request("/info")
            self.fault.fail(call, number, error)
            os.kill(daemon.pid, signal.SIGHUP)
            wait_until(lambda: self.settled(mark), 10, "neither serves nor ends")
            if used:
                phone = access_point.phone()
                phone.host.timeout = 2
                with contextlib.suppress(AssertionError, *CUT_OFF):
                    use_everything(access_point, phone)
            self.fault.stop()
        if not self.fault.failed:
            assert daemon.alive(), daemon.tail()
            return ""
        return self.ended() if not daemon.alive() else self.serving(mark)

    def settled(self, mark: int) -> bool:
        assert self.access_point
        daemon = self.access_point.daemon
        if not daemon.alive():
            return True
        log = daemon.log(mark)
        begun = "http_server_start - end" in log
        started = begun and "location_policy_ipc_stop" in log
        if started and (daemon.ipc_listener() or NO_LISTENER in log):
            return True
        return bool(self.fault.failed) and "velm_main_init" not in log and is_idle(daemon)

    def ended(self) -> str:
        assert self.access_point
        daemon = self.access_point.daemon
        tail, status, log = daemon.tail(), daemon.exit_status(), daemon.log()
        self.close()
        if status == 2:
            assert "SSL_CTX_load_verify_locations" in log, tail
            return NO_CLOUD
        assert status == -signal.SIGABRT, tail
        assert " ERROR " in log.splitlines()[-1], tail
        return FATAL

    def serving(self, mark: int) -> str:
        """What is served; after another reload it must be everything."""
        assert self.access_point
        access_point, daemon = self.access_point, self.access_point.daemon
        wait_until(lambda: is_idle(daemon), 10, "it spins")
        assert access_point.lan_host(9).request("/info").status == 200
        assert access_point.phone().pair().status == 200
        log = daemon.log(mark)
        found = SERVES
        if "velm_main_init" not in log:
            found = NOT_RELOADED
        elif not daemon.ipc_listener():
            assert NO_LISTENER in log
            found = NO_LOCAL_CLIENTS
        elif NO_SOCKET in log:
            assert not is_discovered(access_point, 0.1)
            found = NO_DISCOVERY
        else:
            assert is_discovered(access_point, 3)
        daemon.reload()
        self.use_all(access_point)
        assert is_discovered(access_point, 3)
        wait_until(lambda: daemon.descriptors() <= self.descriptors, 10, "descriptors are left")
        # A connection to the cloud may still have been open when they were counted first.
        self.descriptors = daemon.descriptors()
        return found


@pytest.fixture
def reloads(
    build: Build, network: Network, credentials: Credentials, cloud: Cloud
) -> Iterator[Reloads]:
    if build.is_asan:
        pytest.skip("the sanitizer has wrappers of its own around the same calls")
    made = Reloads(build, network, credentials)
    try:
        yield made
    finally:
        made.close()


def outcomes(
    reloads: Reloads, call: str, error: int, sample: Sample, *, used: bool
) -> list[str]:
    """Of each call of a reload, in order. Those that are many are a sample, but for the first."""
    found = []
    numbers = range(1, MOST_CALLS)
    for number in [*numbers[:ALWAYS], *sample.of(numbers[ALWAYS:], ONE_IN)]:
        outcome = reloads.reload(call, number, error, used=used)
        if not outcome:
            return found
        found.append(outcome)
    raise AssertionError(f"{call}: more than {MOST_CALLS}")


# Of each call of a reload that nobody uses: what comes of it when that one fails.
EACH: dict[str, tuple[int, list[str]]] = {
    # For the name servers, HTTPS, discovery, local clients.
    "socket": (errno.EMFILE, [SERVES, FATAL, NO_DISCOVERY, NO_LOCAL_CLIENTS]),
    # The same without the name servers.
    "bind": (errno.EADDRINUSE, [FATAL, FATAL, NO_LOCAL_CLIENTS]),
    "listen": (errno.EADDRINUSE, [FATAL, NO_LOCAL_CLIENTS]),
}

# What may come of any of these when phones and local clients use the daemon as it reloads.
MAY: dict[str, tuple[int, set[str]]] = {
    "accept": (errno.EMFILE, {SERVES}),
    "connect": (errno.ENETUNREACH, {SERVES}),
    # A key that cannot be read stays the one that it was; the server's own must be read.
    "open": (errno.EMFILE, {SERVES, FATAL, NO_CLOUD}),
    # The loop's own wake-ups: for work, and for the signal.
    "read": (errno.EIO, {SERVES, FATAL}),
    "write": (errno.EIO, {SERVES, NOT_RELOADED}),
    "send": (errno.EPIPE, {SERVES}),
    "recv": (errno.ECONNRESET, {SERVES}),
    "renameat": (errno.EIO, {SERVES}),
    "fsync": (errno.EIO, {SERVES}),
    "getrandom": (errno.EAGAIN, {SERVES}),
}


@pytest.mark.parametrize("call", EACH)
def test_each_call_that_fails_at_a_reload_has_its_outcome(
    call: str, reloads: Reloads, sample: Sample
) -> None:
    error, expected = EACH[call]
    assert outcomes(reloads, call, error, sample, used=False) == expected


@pytest.mark.begun_first
@pytest.mark.parametrize("call", MAY)
def test_no_call_that_fails_at_a_reload_does_more_than_is_said(
    call: str, reloads: Reloads, sample: Sample
) -> None:
    error, expected = MAY[call]
    found = outcomes(reloads, call, error, sample, used=True)
    assert set(found) <= expected
    assert found, "none failed"
