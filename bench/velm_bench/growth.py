"""velm-bench growth: what a round, /info and a search cost when there is more of something."""

from __future__ import annotations

import argparse
import contextlib
import json
import sys
import time
from collections.abc import Callable, Iterator, Sequence
from dataclasses import asdict, dataclass
from pathlib import Path

from velm_sim.access_point import BSSIDS, PORT
from velm_sim.build import Build
from velm_sim.ipc_client import IpcClient
from velm_sim.limits import LOCAL_CLIENTS

from .figures import number
from .growth_plot import svg
from .https import ordinary_hash
from .load import LoadClient
from .micro import required
from .packets import SSDP_PORT
from .packets import Load as PacketLoad
from .round_scene import APP_ATTEST, Scene, Setting, come
from .rounds import MANY, highest, on_core, prepared
from .servers import ADDRESS, Server
from .watch import SERVER_CORE, cpu_us, forget_environment

SSIDS_OF_A_RADIO = 64


@dataclass(frozen=True)
class Point:
    """What one thing costs with `count` of another."""

    axis: str
    count: int
    what: str
    cpu_us: float
    p99_us: float


@dataclass(frozen=True)
class Extent:
    rounds: int
    tries: int
    visits: int
    info_seconds: float
    searches: int
    counts: dict[str, tuple[int, ...]]


PHONES, CLIENTS, CONNECTIONS = "paired phones", "local clients", "connections"
BSSIDS_AXIS, SETTINGS = "BSSIDs", "settings in the store"

# Half of the most is among them: there it shows whether something grows faster than linear.
FULL = Extent(2, 3, 20, 0.5, 2000, {
    PHONES: (1, 8, 32, 64),
    CLIENTS: (1, 4, LOCAL_CLIENTS // 2, LOCAL_CLIENTS),
    CONNECTIONS: (1, 8, 32, 64),
    BSSIDS_AXIS: (1, 32, 256, 512),
    SETTINGS: (10, 500, 5000, 10000),
})  # fmt: skip
QUICK = Extent(1, 2, 4, 0.2, 200, {
    PHONES: (1, 2, 4),
    CLIENTS: (1, LOCAL_CLIENTS // 2, LOCAL_CLIENTS),
    CONNECTIONS: (1, 32, 64),
    BSSIDS_AXIS: (1, 256, 512),
    SETTINGS: (10, 5000, 10000),
})  # fmt: skip


# What is measured at a point.


Costs = tuple[float, float]  # CPU and 99th percentile, in microseconds
HASHES = 20


@dataclass(frozen=True)
class Meter:
    """The clients, run beside a scene's daemon. `hash_us` makes password hashes on the daemon's core: a
    core that other programs share runs at half its pace at times, and such times are taken out."""

    setting: Setting
    extent: Extent
    hash_us: Callable[[], float]
    hash_at_best_us: float

    def measure(
        self, axis: str, count: int, scene: Scene, others: Sequence[IpcClient] = ()
    ) -> Iterator[Point]:
        tries = self.extent.tries
        visit = self._best(tries, lambda: self._visits(scene, others))
        # One push follows the other.
        rounds = 1 if len(scene.phones) > MANY else self.extent.rounds
        whole = self._best(rounds, lambda: self._round(scene, others))
        yield Point(axis, count, "round", whole[0], visit[1])
        yield Point(axis, count, "phone's part of it", *visit)
        yield Point(axis, count, "/info", *self._best(tries, lambda: self._info(scene)))
        yield Point(axis, count, "search", *self._best(tries, lambda: self._search(scene)))

    def _best(self, tries: int, attempt: Callable[[], Costs]) -> Costs:
        """Of several, at the core's best pace."""
        found = []
        for _ in range(tries):
            before = self.hash_us()
            cpu, p99 = attempt()
            pace = self.hash_at_best_us / ((before + self.hash_us()) / 2)
            found.append((cpu * pace, p99 * pace))
        return min(cpu for cpu, _ in found), min(p99 for _, p99 in found)

    def _round(self, scene: Scene, others: Sequence[IpcClient]) -> Costs:
        made = scene.round()
        for client in others:
            client.receive_report()
        return made.cpu_us, made.last_report_us

    def _visits(self, scene: Scene, others: Sequence[IpcClient]) -> Costs:
        """The last phone comes again and again. CPU of a visit, and the 99th percentile of the time to
        its report."""
        took = []
        with scene.client() as client:
            before = cpu_us(scene.pid)
            for _ in range(self.extent.visits):
                scene.settle(longer_than_ms=0)  # the connection before has gone: there may be 64
                begin = time.perf_counter_ns()
                come(scene.phones[-1])
                client.receive_report()
                took.append((time.perf_counter_ns() - begin) / 1000)
                for other in others:
                    other.receive_report()
            spent = cpu_us(scene.pid) - before
        return spent / self.extent.visits, highest(took)

    def https(self) -> LoadClient:
        authority = self.setting.scratch / "ecdsa.ca"
        authority.write_text(self.setting.credentials.server.pem)
        program = Path(required(self.setting.programs, "velm-https-load"))
        return LoadClient(program, self.setting.network.ap, {"ecdsa": authority})

    def _info(self, scene: Scene) -> Costs:
        found = self.https().run(
            "kept", served_by(scene), "--connections", "1",
            "--seconds", str(self.extent.info_seconds),
        )  # fmt: skip
        return found.cpu_us, found.p99_us

    def _search(self, scene: Scene) -> Costs:
        load = PacketLoad(required(self.setting.programs, "velm-load"), self.setting.network.ap)
        said = load.ask(
            "ssdp", scene.pid, self.extent.searches, "--address", f"{ADDRESS}:{SSDP_PORT}",
            "--outstanding", "1",
        )  # fmt: skip
        return said["cpu_us"], said["p99_us"]


def served_by(scene: Scene) -> Server:
    return Server("velmd", scene.pid, {"ecdsa": PORT})


# The axes: each makes `count` of its thing.


def with_phones(meter: Meter, count: int) -> Iterator[Point]:
    with meter.setting.scene(APP_ATTEST, phones=count) as scene:
        yield from meter.measure(PHONES, count, scene)


def with_clients(meter: Meter, count: int) -> Iterator[Point]:
    with meter.setting.scene(APP_ATTEST) as scene, contextlib.ExitStack() as opened:
        others = []
        for _ in range(count - 1):
            others.append(opened.enter_context(scene.client()))
            scene.settle(longer_than_ms=0)  # taken: only five can wait
        yield from meter.measure(CLIENTS, count, scene, others)


def with_connections(meter: Meter, count: int) -> Iterator[Point]:
    """The one that asks is among them."""
    with meter.setting.scene(APP_ATTEST) as scene, contextlib.ExitStack() as held:
        if count > 1:
            held.enter_context(meter.https().idle_connections(served_by(scene), count - 1))
        yield from meter.measure(CONNECTIONS, count, scene)


def bssid_settings(count: int) -> dict[str, str]:
    """As many, over as many radios as that takes; the first is the one that phones have."""
    radios = -(-count // SSIDS_OF_A_RADIO)
    made = {"wl_radio_num": str(radios)}
    for radio in range(radios):
        of_radio = min(SSIDS_OF_A_RADIO, count - radio * SSIDS_OF_A_RADIO)
        made[f"wl{radio}_maxssid"] = str(of_radio)
        for ssid in range(of_radio):
            name = f"wl{radio}" + (f".{ssid}" if ssid else "")
            made[f"{name}_hwaddr"] = f"02:00:00:00:{radio:02x}:{ssid:02x}"
    return {**made, "wl0_hwaddr": BSSIDS[0]}


def with_bssids(meter: Meter, count: int) -> Iterator[Point]:
    with meter.setting.scene(APP_ATTEST, settings=bssid_settings(count)) as scene:
        if count > 1:
            scene.phones[0].bssid = list(bssid_settings(count).values())[-1]
        yield from meter.measure(BSSIDS_AXIS, count, scene)


def with_settings(meter: Meter, count: int) -> Iterator[Point]:
    others = {f"other_{number:05}": "a value" for number in range(count)}
    with meter.setting.scene(APP_ATTEST, settings=others) as scene:
        yield from meter.measure(SETTINGS, count, scene)


AXES: dict[str, Callable[[Meter, int], Iterator[Point]]] = {
    PHONES: with_phones,
    CLIENTS: with_clients,
    CONNECTIONS: with_connections,
    BSSIDS_AXIS: with_bssids,
    SETTINGS: with_settings,
}


# What it comes to.


def grows(costs: Sequence[tuple[int, float]]) -> str:
    """How a cost grows with the count. Of one that grows linearly, half has come at half of the most; of one
    that grows with the square, a quarter."""
    (least, first), (most, last) = costs[0], costs[-1]
    more = last - first
    if more < 0.2 * first:
        return "flat"
    half, at_half = min(costs, key=lambda one: abs(one[0] - (least + most) / 2))
    share = (half - least) / (most - least)
    return "faster than linear" if at_half - first < 0.75 * share * more else "linear or less"


def lines(points: Sequence[Point]) -> dict[tuple[str, str], list[Point]]:
    found: dict[tuple[str, str], list[Point]] = {}
    for point in points:
        found.setdefault((point.axis, point.what), []).append(point)
    return found


def table(points: Sequence[Point]) -> str:
    rows = [("with", "what", "us CPU", "us p99", "CPU grows")]
    for (axis, what), line in lines(points).items():
        for at, point in enumerate(line):
            verdict = grows([(one.count, one.cpu_us) for one in line]) if at == 0 else ""
            rows.append((
                f"{point.count} {axis}", what, number(point.cpu_us), number(point.p99_us), verdict,
            ))  # fmt: skip
    widths = [max(len(row[column]) for row in rows) for column in range(5)]
    return "\n".join(
        f"{row[0]:<{widths[0]}}  {row[1]:<{widths[1]}}  {row[2]:>{widths[2]}}  "
        f"{row[3]:>{widths[3]}}  {row[4]}".rstrip()
        for row in rows
    )


def hash_us() -> float:
    """One password hash on the daemon's core."""
    with on_core(SERVER_CORE):
        begin = time.thread_time_ns()
        ordinary_hash()
        return (time.thread_time_ns() - begin) / 1000


def meter(setting: Setting, extent: Extent) -> Meter:
    return Meter(setting, extent, hash_us, min(hash_us() for _ in range(HASHES)))


def measure(setting: Setting, extent: Extent, axes: Sequence[str]) -> list[Point]:
    points: list[Point] = []
    used = meter(setting, extent)
    for axis in axes:
        for count in extent.counts[axis]:
            points += AXES[axis](used, count)
            print(f"{count} {axis}: done", file=sys.stderr, flush=True)
    return points


def write(points: Sequence[Point], directory: Path) -> None:
    directory.mkdir(parents=True, exist_ok=True)
    (directory / "growth.txt").write_text(table(points) + "\n")
    (directory / "growth.json").write_text(
        json.dumps([asdict(point) for point in points], indent=2) + "\n"
    )
    drawn = {
        key: [(point.count, point.cpu_us) for point in line]
        for key, line in lines(points).items()
    }
    (directory / "growth.svg").write_text(svg(drawn))


def main() -> int:
    parser = argparse.ArgumentParser(prog="velm-bench growth", description=__doc__)
    parser.add_argument("--quick", action="store_true", help="few points: rough figures")
    parser.add_argument("--axis", choices=tuple(AXES), action="append", help="this one only")
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--output", type=Path, help="a directory; else BUILD/../bench")
    given = parser.parse_args()
    build = Build(given.build)
    forget_environment()
    with prepared(build) as setting:
        points = measure(setting, QUICK if given.quick else FULL, given.axis or tuple(AXES))
    write(points, given.output or build.directory.parent / "bench")
    print(table(points))
    return 0


if __name__ == "__main__":
    sys.exit(main())
