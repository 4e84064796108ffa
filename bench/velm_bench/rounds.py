"""velm-bench round: what a whole round costs velmd, beside what its arithmetic and its system calls cost by
themselves in the same run."""

from __future__ import annotations

import argparse
import contextlib
import os
import statistics
import struct
import sys
import threading
from collections import Counter
from collections.abc import Callable, Iterator, Sequence
from dataclasses import dataclass
from pathlib import Path

from velm_sim.build import Build
from velm_sim.phone import Phone

from .figures import Figure, at_most, ratio_at_most, table
from .round_scene import APP_ATTEST, PLAY_INTEGRITY, Kind, Round, Scene, Setting, come
from .watch import CLIENT_CORE, calls_by_name, traced

MANY = 10  # phones


@dataclass(frozen=True)
class Extent:
    """How often."""

    rounds: int
    traced: int
    counted: int  # with the heap watched
    visits: int  # of many phones


FULL = Extent(11, 2, 2, 12)
QUICK = Extent(2, 1, 1, 2)
WARM_UP = 1
HEAP_WARM_UP = 2  # what is kept for good has come by then


@dataclass(frozen=True)
class Pieces:
    """The floor of one round."""

    hashes_us: float
    rest_us: float
    signing_only_us: float  # the rest with one bare signing in place of the server's connection

    @classmethod
    def of(cls, said: dict[str, float], kind: Kind) -> Pieces:
        proof = said["token_us"] if kind.is_android else said["check_us"]
        beside = said["client_connection_us"] + proof + said["calls_us"]
        return cls(
            said["hashes_us"], said["server_connection_us"] + beside, said["signing_us"] + beside
        )


@dataclass(frozen=True)
class Counts:
    """What must be counted by runs of their own, since counting takes time."""

    calls: Counter[str]
    rounds: int
    timers_left: int
    heap_bytes: float  # taken by a round
    heap_blocks: float
    heap_more: int  # held after the last round, beyond what was held after the first

    @property
    def calls_per_round(self) -> float:
        return self.calls.total() / self.rounds


def median(values: Sequence[float]) -> float:
    return statistics.median(values)


def measure(
    scene: Scene, floor: Callable[[], dict[str, float]], kind: Kind, count: int
) -> tuple[list[Round], list[Pieces]]:
    """Rounds and floors take turns, so that whatever else the machine does strikes both alike."""
    rounds, floors = [], []
    for turn in range(WARM_UP + count):
        pieces = Pieces.of(floor(), kind)
        made = scene.round()
        if turn >= WARM_UP:
            rounds.append(made)
            floors.append(pieces)
    return rounds, floors


def count_calls(scene: Scene, scratch: Path, rounds: int) -> Counter[str]:
    trace = scratch / "trace"
    with traced(scene.pid, trace):
        for _ in range(rounds):
            scene.round()
    return calls_by_name(trace.read_text())


HEAP = struct.Struct("=4Q")  # blocks and bytes taken so far, and of these held


def count_heap(
    setting: Setting, kind: Kind, rounds: int, warm_up: int = HEAP_WARM_UP
) -> tuple[float, float, int]:
    """Bytes and blocks of a round, and by how many bytes the heap has grown in all."""
    file = setting.scratch / "heap"
    file.write_bytes(bytes(HEAP.size))

    def counts(scene: Scene) -> tuple[int, ...]:
        scene.timers_left()
        return HEAP.unpack(file.read_bytes())

    with setting.scene(kind, heap=file) as scene:
        for _ in range(warm_up):
            scene.round()
        before = counts(scene)
        for _ in range(rounds):
            scene.round()
        after = counts(scene)
    taken = [(late - early) / rounds for early, late in zip(before, after, strict=True)]
    return taken[1], taken[0], after[3] - before[3]


def of_kind(setting: Setting, kind: Kind, extent: Extent) -> list[Figure]:
    with setting.scene(kind) as scene, setting.floor() as floor:
        rounds, floors = measure(scene, floor, kind, extent.rounds)
        calls = count_calls(scene, setting.scratch, extent.traced)
        timers = scene.timers_left()
    taken, blocks, more = count_heap(setting, kind, extent.counted)
    counts = Counts(calls, extent.traced, timers, taken, blocks, more)
    return list(figures(kind, rounds, floors, counts))


def figures(
    kind: Kind, rounds: Sequence[Round], floors: Sequence[Pieces], counts: Counts
) -> Iterator[Figure]:
    """The best round and the best of each piece: what disturbs them only makes them worse."""
    what = f"round, {kind.name}"
    spent = min(one.cpu_us for one in rounds)
    rest = min(one.rest_us for one in floors)
    hashes = min(one.hashes_us for one in floors)
    yield Figure(what, "us CPU", spent, "its floor", hashes + rest, ratio_at_most(1.10))
    yield Figure(
        f"{what}, without two hashes", "us CPU", spent - hashes, "its floor", rest,
        ratio_at_most(1.5),
    )  # fmt: skip
    bare = min(one.signing_only_us for one in floors)
    yield Figure(
        f"{what}, without two hashes", "us CPU", spent - hashes, "floor, a signing for a handshake", bare
    )
    yield Figure(f"{what}: system calls", "", counts.calls_per_round)
    yield Figure(f"{what}: taken from the heap", "bytes", counts.heap_bytes)
    yield Figure(f"{what}: taken from the heap", "blocks", counts.heap_blocks)
    yield Figure(f"{what}: wake-ups", "", median([one.wakeups for one in rounds]))
    yield Figure(
        f"{what}: phone's coming to report, without its own time", "us",
        median([one.wait_us for one in rounds]),
    )  # fmt: skip
    yield Figure(f"{what}: timers left", "", counts.timers_left, target=at_most(0))
    yield Figure(f"{what}: more on the heap", "bytes", counts.heap_more, target=at_most(0))


# Many phones at once.


def all_phones(phones: Sequence[Phone]) -> float:
    """Each by itself, all at the same moment; their own time runs beside velmd's and is not taken off."""
    problems: list[BaseException] = []

    def visit(phone: Phone) -> None:
        try:
            come(phone)
        except BaseException as problem:  # told where it can be seen
            problems.append(problem)

    threads = [threading.Thread(target=visit, args=(phone,)) for phone in phones]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if problems:
        raise problems[0]
    return 0.0


def first_phone(phones: Sequence[Phone]) -> float:
    come(phones[0])
    return 0.0


def highest(values: Sequence[float]) -> float:
    """The 99th percentile; of fewer than a hundred the highest."""
    return sorted(values)[max(0, -(-len(values) * 99 // 100) - 1)]


def many_phones(setting: Setting, extent: Extent) -> list[Figure]:
    with setting.scene(APP_ATTEST, phones=MANY) as scene:
        with_pushes = scene.round(all_phones, reports=MANY)
        alone, together = [], []
        for _ in range(extent.visits):
            alone.append(scene.visits(first_phone, reports=1))
            together.append(scene.visits(all_phones, reports=MANY))
    one = median([visit.last_report_us for visit in alone])
    work = median([visit.cpu_us for visit in alone])
    last = highest([visit.last_report_us for visit in together])
    what = f"{MANY} phones at once"
    return [
        Figure(f"{what}: the last report", "us p99", last, f"{MANY} visits one by one", MANY * one,
               ratio_at_most(1.0)),
        Figure(f"{what}: the last report", "us p99", last, f"CPU of {MANY} visits", MANY * work),
        Figure(f"{what}: each", "us CPU", median([one.cpu_us for one in together]) / MANY,
               "a visit alone", work),
        Figure(f"{what}, with {MANY} pushes", "us CPU", with_pushes.cpu_us),
    ]  # fmt: skip


# The whole.

Part = tuple[str, Callable[[], list[Figure]]]


def parts(setting: Setting, extent: Extent) -> list[Part]:
    return [
        *((f"rounds, {kind.name}", lambda kind=kind: of_kind(setting, kind, extent))
          for kind in (APP_ATTEST, PLAY_INTEGRITY)),
        ("rounds, many phones", lambda: many_phones(setting, extent)),
    ]  # type: ignore[misc]  # fmt: skip


@contextlib.contextmanager
def own_core() -> Iterator[None]:
    """Phones and cloud run in this process: it leaves the daemon's core alone."""
    before = os.sched_getaffinity(0)
    if len(before) > 1:
        os.sched_setaffinity(0, {CLIENT_CORE})
    try:
        yield
    finally:
        os.sched_setaffinity(0, before)


@contextlib.contextmanager
def prepared(build: Build) -> Iterator[Setting]:
    with contextlib.ExitStack() as cleanup:
        cleanup.enter_context(own_core())
        yield Setting(build, cleanup)


def main() -> int:
    parser = argparse.ArgumentParser(prog="velm-bench round", description=__doc__)
    parser.add_argument("--quick", action="store_true", help="few rounds: rough figures")
    parser.add_argument("--rounds", type=int, help="how many rounds of each kind")
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    given = parser.parse_args()
    extent = QUICK if given.quick else FULL
    if given.rounds:
        extent = Extent(given.rounds, extent.traced, extent.counted, extent.visits)
    with prepared(Build(given.build)) as setting:
        made = [figure for _, part in parts(setting, extent) for figure in part()]
    print(table(made))
    return 0


if __name__ == "__main__":
    sys.exit(main())
