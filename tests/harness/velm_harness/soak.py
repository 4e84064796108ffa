"""Many round trips in one process: what the daemon holds at the end is what it held after the first
hundred.

A round trip: a local client asks, the daemon pushes to the paired phone by the cloud, the phone
connects, fetches a challenge, posts its location signed, the client receives that very location.
Pushes leave a while after they were asked for, so trips do not wait for their own: the daemon's
clock goes on by 61 s each time, so that each request is pushed for. The pushes that the cloud saw
are counted every hundred trips and at each measurement, where none may be missing.

What is compared: resident memory, memory of its own (private and dirty), open descriptors, and the
number of events in the daemon's loop, which are its open timers and watched descriptors. A
preloaded library counts the events; the daemon itself has nothing for it.
"""

from __future__ import annotations

import argparse
import contextlib
import os
import re
import signal
import sys
import time
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path
from xml.etree import ElementTree

from velm_sim.access_point import AccessPoint, Credentials
from velm_sim.answers import Answer
from velm_sim.build import Build, BuildError
from velm_sim.cloud import Cloud
from velm_sim.daemon import Daemon, wait_until
from velm_sim.ipc_client import IpcClient
from velm_sim.namespaces import Network, remove_stale
from velm_sim.phone import Phone, sample_location

from .instrumented import InstrumentedBuild
from .preloads import library

WARM = 100
PUSH_INTERVAL = 61
TRIPS_A_COUNT = 100  # of pushes, so that the cloud is never far behind
MEASURES, TRIPS_A_MEASURE = 6, 10
GROWTH_KIB = 512  # what the allocator's pages may move by
SENT = Answer.json({"name": "sent"})


class SoakFailure(AssertionError):
    """A round trip went wrong, or something grew."""


@dataclass(frozen=True)
class Measure:
    """What the daemon holds when nobody is connected."""

    resident_kib: int
    private_kib: int
    descriptors: int
    events: int

    def __str__(self) -> str:
        return (
            f"resident {self.resident_kib} KiB, private dirty {self.private_kib} KiB, "
            f"{self.descriptors} descriptors, {self.events} events"
        )


class Soak:
    """One daemon, one paired phone, one local client."""

    def __init__(self, build: Build, cleanup: contextlib.ExitStack) -> None:
        credentials = Credentials()
        self.network = Network()
        cleanup.callback(self.network.close)
        self.cloud = Cloud(
            self.network.cloud, Network.CLOUD_ADDRESS, credentials.cloud, credentials.account
        )
        self.cloud.start()
        cleanup.callback(self.cloud.stop)
        self.access_point = AccessPoint(build, self.network, credentials)
        cleanup.callback(self.access_point.close)
        self.access_point.nvram_set({"zelkad_debug_level": "warn"})
        self.access_point.configure({"logger.file": "no"})
        self.events_file = self.access_point.directory / "events"
        self.daemon = self._start(build)
        self.phone: Phone = self.access_point.phone()
        self.pushes = 0
        self.trips = 0
        if self.phone.pair().status != 200:
            raise SoakFailure("the phone is not paired")

    def _start(self, build: Build) -> Daemon:
        probe = {"VELM_EVENT_PROBE": str(self.events_file)}
        daemon = self.access_point.prepare(clock=True, environment=probe)
        daemon.preload = (library(build, "event_probe"),)
        daemon.start()
        self.moment = int(time.time())
        daemon.stop_clock(self.moment)
        daemon.wait_until_serving()
        return daemon

    def run(self, trips: int) -> None:
        """That many round trips; then nobody is connected."""
        with IpcClient(self.access_point.socket_path) as client:
            for _ in range(trips):
                self._trip(client)
                if self.trips % TRIPS_A_COUNT == 0:
                    self._count_pushes()
        self._count_pushes()

    def _trip(self, client: IpcClient) -> None:
        self.moment += PUSH_INTERVAL
        self.daemon.stop_clock(self.moment)
        self.cloud.clock_offset = self.moment - time.time()
        # The cloud looks at no access token: one may run out while its push is on the way.
        self.cloud.fcm.answer_always(SENT)
        self.trips += 1
        client.request()
        latitude = (self.trips % 180_000) / 1000 - 90
        with self.phone.host.session() as session:
            reply = self.phone.send(self.phone.prepare("/challenge"), session)
            challenge = str(reply.json()["challenge"])
            request = self.phone.prepare_location(
                sample_location(latitude=latitude), challenge=challenge
            )
            status = self.phone.send(request, session).status
        if status != 200:
            raise SoakFailure(f"trip {self.trips}: /location is answered with {status}")
        received = client.receive_report().latitude
        if received != latitude:
            raise SoakFailure(f"trip {self.trips}: {received} is reported, not {latitude}")

    def _count_pushes(self) -> None:
        """Each trip had its push."""
        self.cloud.fcm.wait(self.trips - self.pushes, timeout=20)
        seen = len(self.cloud.fcm.requests)
        if seen != self.trips - self.pushes:
            raise SoakFailure(f"{seen} pushes for {self.trips - self.pushes} trips")
        self.pushes += seen
        for endpoint in (self.cloud.fcm, self.cloud.token):
            endpoint.reset()

    def measure(self) -> Measure:
        """When what the trips have left has gone: connections close, freed memory goes back."""
        wait_until(lambda: not self.cloud.open_connections, 10, "the cloud is left alone")
        time.sleep(2.5)
        rollup = Path(f"/proc/{self.daemon.pid}/smaps_rollup").read_text()
        sizes = dict(re.findall(r"^(\w+):\s+(\d+) kB", rollup, re.MULTILINE))
        return Measure(
            int(sizes["Rss"]),
            int(sizes["Private_Dirty"]),
            self.daemon.descriptors(),
            self._events(),
        )

    def settled(self) -> Measure:
        """Of several measurements, with trips between: the least memory, the most of the others.

        How many free pages the allocator happens to hold is different each time.
        """
        measures = []
        for _ in range(MEASURES):
            self.run(TRIPS_A_MEASURE)
            measures.append(self.measure())
        return Measure(
            min(one.resident_kib for one in measures),
            min(one.private_kib for one in measures),
            max(one.descriptors for one in measures),
            max(one.events for one in measures),
        )

    def _events(self) -> int:
        self.events_file.unlink(missing_ok=True)
        os.kill(self.daemon.pid, signal.SIGUSR1)
        wait_until(
            lambda: self.events_file.exists() and self.events_file.read_text().endswith("\n"),
            5,
            "no count of events",
        )
        return int(self.events_file.read_text())


def compare(first: Measure, last: Measure, growth_kib: int = GROWTH_KIB) -> list[str]:
    """What is not as it was."""
    problems = [
        f"{name}: {getattr(first, name)} then, {getattr(last, name)} now"
        for name in ("descriptors", "events")
        if getattr(first, name) != getattr(last, name)
    ]
    problems += [
        f"{name}: {getattr(first, name)} then, {getattr(last, name)} now"
        for name in ("resident_kib", "private_kib")
        if getattr(last, name) - getattr(first, name) > growth_kib
    ]
    return problems


def soak(build: Build, trips: int, seconds: float) -> str:
    """Runs them and prints the figures; returns what is wrong, empty when nothing is."""
    begin = time.monotonic()
    with contextlib.ExitStack() as cleanup:
        made = Soak(build, cleanup)
        try:
            made.run(WARM)
            first = made.settled()
            print(f"after {made.trips:6}: {first} (settled)", flush=True)
            for goal in _goals(trips):
                made.run(goal - made.trips)
                print(f"after {made.trips:6}: {made.measure()}", flush=True)
                if time.monotonic() - begin > seconds:
                    print(f"stopped after {seconds:.0f} s")
                    break
            last = made.settled()
            print(f"after {made.trips:6}: {last} (settled)", flush=True)
            made.access_point.stop()
            return "\n".join(compare(first, last, build.memory_limit_kib(GROWTH_KIB)))
        except (SoakFailure, TimeoutError, OSError) as problem:
            return f"{problem}\n{made.daemon.tail()}"


def _goals(trips: int) -> Iterator[int]:
    """Where to measure: at ten points, or each thousand trips."""
    pace = max(min(trips // 10, 1000), WARM)
    yield from range(2 * WARM + pace, trips, pace)
    yield max(trips, 2 * WARM)


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("trips", type=int, nargs="?", default=100_000)
    parser.add_argument("--seconds", type=float, default=float("inf"), help="at most that long")
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--junit", type=Path, help="write the result there, as JUnit does")
    given = parser.parse_args()
    try:
        build = InstrumentedBuild(given.build)
    except BuildError as problem:
        print(problem, file=sys.stderr)
        return 2
    remove_stale()
    begin = time.monotonic()
    problem = soak(build, given.trips, given.seconds)
    if given.junit:
        suite = ElementTree.Element("testsuite", name="soak")
        case = ElementTree.SubElement(
            suite, "testcase", name=f"{given.trips} trips", time=f"{time.monotonic() - begin:.1f}"
        )
        if problem:
            ElementTree.SubElement(case, "failure", message="not as after the first hundred")
        ElementTree.ElementTree(suite).write(given.junit, encoding="unicode")
    print(problem or "as after the first hundred")
    return 1 if problem else 0


if __name__ == "__main__":
    sys.exit(main())
