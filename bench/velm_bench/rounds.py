"""velm-bench round: what a whole round costs velmd, beside what it costs a bare program that has the same peers
in the same run."""

from __future__ import annotations

import argparse
import contextlib
import dataclasses
import os
import statistics
import struct
import sys
import threading
from collections import Counter
from collections.abc import Callable, Iterable, Iterator, Sequence
from dataclasses import dataclass
from pathlib import Path

from velm_sim.build import Build
from velm_sim.phone import Phone

from . import instructions
from .figures import Figure, Verdict, at_most, number, ratio_at_most, table
from .round_scene import APP_ATTEST, PLAY_INTEGRITY, Kind, Round, Scene, Setting, come
from .watch import CLIENT_CORE, awake, calls_by_name, forget_environment, traced

MANY = 10  # phones
LEFT = (": timers left", ": more on the heap")


@dataclass(frozen=True)
class Extent:
    """How often."""

    rounds: int
    whole_handshakes: int  # more rounds, in which the cloud goes on from no session
    processes: int  # that share these rounds
    traced: int  # of each process
    counted: int  # with the heap watched, or the instructions
    visits: int  # of many phones


FULL = Extent(18, 18, 3, 1, 2, 12)
QUICK = Extent(3, 2, 1, 1, 1, 2)
WARM_UP = 1
HEAP_WARM_UP = 2  # what is kept for good has come by then


@dataclass(frozen=True)
class Turn:
    """A round of velmd, and those of the bare program right before and right after it. A machine that does
    other things changes its pace within seconds, so a round is compared with these two only."""

    round: Round
    before: Round
    after: Round

    @property
    def floor_us(self) -> float:
        return (self.before.cpu_us + self.after.cpu_us) / 2

    @property
    def floor_rest_us(self) -> float:
        return (self.before.rest_us + self.after.rest_us) / 2


@dataclass(frozen=True)
class Instructions:
    """Of one round in user space, by library."""

    velmd: Counter[str]
    floor: Counter[str]

    @staticmethod
    def without_hashes(counted: Counter[str]) -> int:
        return sum(count for name, count in counted.items() if not name.startswith("libcrypt.so"))


@dataclass(frozen=True)
class Counts:
    """What must be counted by runs of their own, since counting takes time."""

    calls: Counter[str]
    floor_calls: Counter[str]
    rounds: int
    timers_left: int
    heap_bytes: float  # taken by a round
    heap_blocks: float
    heap_more: int  # held after the last round, beyond what was held after the first
    instructions: Instructions | None  # None without callgrind


def median(values: Sequence[float]) -> float:
    return statistics.median(values)


def measure(scene: Scene, floor: Scene, count: int) -> list[Turn]:
    """They take turns: one sleeps while the other has its round."""
    for _ in range(WARM_UP):
        scene.round()
    floors = [floor.round() for _ in range(WARM_UP + 1)][WARM_UP:]
    turns = []
    for _ in range(count):
        made = scene.round()
        floors.append(floor.round())
        turns.append(Turn(made, *floors[-2:]))
    return turns


def median_ratio(pairs: Iterable[tuple[float, float]]) -> tuple[float, float, str]:
    """Of figures and their floors, the two whose ratio is the median, and what half of the ratios lie
    between."""
    ordered = sorted(pairs, key=lambda pair: pair[0] / pair[1])
    last = len(ordered) - 1
    low, high = (ordered[at] for at in (round(last / 4), round(3 * last / 4)))
    spread = f"half of them {low[0] / low[1]:.2f} to {high[0] / high[1]:.2f}"
    return (*ordered[last // 2], spread)


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


def count_instructions(setting: Setting, kind: Kind, rounds: int) -> Instructions | None:
    if not instructions.can_count():
        return None
    found = Instructions(Counter(), Counter())
    profiles = [setting.scratch / f"{name}.callgrind" for name in ("velmd", "floor")]
    with (
        setting.scene(kind, profile=profiles[0]) as scene,
        setting.floor(kind, profile=profiles[1]) as floor,
    ):
        for one, profile, into in zip((scene, floor), profiles, (found.velmd, found.floor), strict=True):
            for _ in range(HEAP_WARM_UP):
                one.round()
            with instructions.counted(one.pid, profile, into):
                for _ in range(rounds):
                    one.round()
    for counted in (found.velmd, found.floor):
        for name in counted:
            counted[name] //= rounds
    return found


def of_kind(setting: Setting, kind: Kind, extent: Extent) -> list[Figure]:
    """In several processes of either, one after another: where the pages of a process lie makes all its
    rounds some percent slower or quicker."""
    turns: list[Turn] = []
    whole: list[Turn] = []
    calls, floor_calls, timers = Counter[str](), Counter[str](), 0
    for _ in range(extent.processes):
        with setting.scene(kind) as scene, setting.floor(kind) as floor:
            turns += measure(scene, floor, -(-extent.rounds // extent.processes))
            with setting.cloud.without_sessions():
                whole += measure(scene, floor, -(-extent.whole_handshakes // extent.processes))
            scene.round()  # so that a session is at hand again
            calls += count_calls(scene, setting.scratch, extent.traced)
            floor_calls += count_calls(floor, setting.scratch, extent.traced)
            timers += scene.timers_left()
    taken, blocks, more = count_heap(setting, kind, extent.counted)
    counted = count_instructions(setting, kind, extent.counted)
    with setting.cloud.without_sessions():
        counted_whole = count_instructions(setting, kind, extent.counted)
    traced_rounds = extent.traced * extent.processes
    counts = Counts(calls, floor_calls, traced_rounds, timers, taken, blocks, more, counted)
    return [*figures(kind, turns, counts), *whole_figures(kind, whole, counted_whole)]


def figures(kind: Kind, turns: Sequence[Turn], counts: Counts) -> Iterator[Figure]:
    what = f"round, {kind.name}"
    yield from against_floor(what, turns, counts.instructions)
    rounds = [one.round for one in turns]
    calls, bare = (made.total() / counts.rounds for made in (counts.calls, counts.floor_calls))
    yield Figure(f"{what}: system calls", "", calls, "its floor", bare)
    yield Figure(f"{what}: taken from the heap", "bytes", counts.heap_bytes)
    yield Figure(f"{what}: taken from the heap", "blocks", counts.heap_blocks)
    yield Figure(f"{what}: wake-ups", "", median([one.wakeups for one in rounds]))
    yield Figure(f"{what}: page faults", "", median([one.page_faults for one in rounds]))
    yield Figure(
        f"{what}: phone's coming to report, without its own time", "us",
        median([one.wait_us for one in rounds]),
    )  # fmt: skip
    yield Figure(f"{what}{LEFT[0]}", "", counts.timers_left, target=at_most(0))
    yield Figure(f"{what}{LEFT[1]}", "bytes", counts.heap_more, target=at_most(0))


def whole_figures(
    kind: Kind, turns: Sequence[Turn], counted: Instructions | None
) -> Iterator[Figure]:
    """Of rounds in which the cloud has to show its certificates, as the floor's always does."""
    return against_floor(f"round, {kind.name}, whole handshakes", turns, counted)


def against_floor(
    what: str, turns: Sequence[Turn], counted: Instructions | None
) -> Iterator[Figure]:
    rest = f"{what}, without two hashes"
    spent, bare, spread = median_ratio((one.round.cpu_us, one.floor_us) for one in turns)
    yield Figure(what, "us CPU", spent, "its floor", bare, ratio_at_most(1.10), spread)
    spent, bare, spread = median_ratio((one.round.rest_us, one.floor_rest_us) for one in turns)
    yield Figure(rest, "us CPU", spent, "its floor", bare, ratio_at_most(1.5), spread)
    yield from instruction_figures(what, rest, counted)


def instruction_figures(
    what: str, rest: str, counted: Instructions | None
) -> Iterator[Figure]:
    unit = "million instructions"
    if counted is None:
        yield Figure(what, unit, None, note="valgrind is not installed")
        return
    yield Figure(
        what, unit, counted.velmd.total() / 1e6, "its floor", counted.floor.total() / 1e6
    )
    velmd, floor = map(Instructions.without_hashes, (counted.velmd, counted.floor))
    yield Figure(rest, unit, velmd / 1e6, "its floor", floor / 1e6)


def left_behind(figures: Iterable[Figure]) -> list[str]:
    """What a round has left, though it may leave nothing, on whatever machine."""
    return [
        f"{figure.what}: {number(figure.value)} {figure.unit}".rstrip()
        for figure in figures
        if figure.what.endswith(LEFT) and figure.verdict is Verdict.MISSED
    ]


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


@dataclass(frozen=True)
class Crowd:
    """A visit of all phones at once, and what one phone's takes, by those right before and right after."""

    together: Round
    one_last_us: float
    one_cpu_us: float


def crowd(scene: Scene) -> Crowd:
    def alone() -> Round:
        return scene.visits(first_phone, reports=1)

    before, together, after = alone(), scene.visits(all_phones, reports=MANY), alone()
    return Crowd(
        together, (before.last_report_us + after.last_report_us) / 2,
        (before.cpu_us + after.cpu_us) / 2,
    )  # fmt: skip


def many_phones(setting: Setting, extent: Extent) -> list[Figure]:
    with setting.scene(APP_ATTEST, phones=MANY) as scene:
        with_pushes = scene.round(all_phones, reports=MANY)
        made = [crowd(scene) for _ in range(extent.visits)]
    return crowd_figures(made, with_pushes)


def crowd_figures(made: Sequence[Crowd], with_pushes: Round) -> list[Figure]:
    """Of ratios to one phone's visits the 99th percentile counts: of so few the highest."""
    last = sorted(made, key=lambda one: one.together.last_report_us / one.one_last_us)
    worst, usual = last[-1], last[(len(last) - 1) // 2]
    what = f"{MANY} phones at once"
    usual_ratio = usual.together.last_report_us / (MANY * usual.one_last_us)
    return [
        Figure(f"{what}: the last report", "us p99", worst.together.last_report_us,
               f"{MANY} visits one by one", MANY * worst.one_last_us, ratio_at_most(1.0),
               f"the median {usual_ratio:.2f}"),
        Figure(f"{what}: the last report", "us p99", worst.together.last_report_us,
               f"CPU of {MANY} visits", MANY * worst.one_cpu_us),
        Figure(f"{what}: each", "us CPU", median([one.together.cpu_us for one in made]) / MANY,
               "a visit alone", median([one.one_cpu_us for one in made])),
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
def on_core(core: int) -> Iterator[None]:
    """This thread, and what it starts meanwhile."""
    before = os.sched_getaffinity(0)
    if (os.cpu_count() or 1) > 1:
        os.sched_setaffinity(0, {core})
    try:
        yield
    finally:
        os.sched_setaffinity(0, before)


@contextlib.contextmanager
def prepared(build: Build) -> Iterator[Setting]:
    with contextlib.ExitStack() as cleanup:
        cleanup.enter_context(awake())
        cleanup.enter_context(on_core(CLIENT_CORE))  # phones and cloud are in this process
        yield Setting(build, cleanup)


def main() -> int:
    parser = argparse.ArgumentParser(prog="velm-bench round", description=__doc__)
    parser.add_argument("--quick", action="store_true", help="few rounds: rough figures")
    parser.add_argument("--rounds", type=int, help="how many rounds of each kind")
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    given = parser.parse_args()
    extent = QUICK if given.quick else FULL
    if given.rounds:
        extent = dataclasses.replace(extent, rounds=given.rounds)
    forget_environment()
    with prepared(Build(given.build)) as setting:
        made = [figure for _, part in parts(setting, extent) for figure in part()]
    print(table(made))
    left = left_behind(made)
    for line in left:
        print(f"left behind by a round: {line}", file=sys.stderr)
    return 1 if left else 0


if __name__ == "__main__":
    sys.exit(main())
