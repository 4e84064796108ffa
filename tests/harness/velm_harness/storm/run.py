"""A storm: everything that can happen to the daemon, in an order drawn from a seed.

After each step a model says what must be true, and the daemon is held against it. The same seed
gives the same schedule, however long the storm lasts and however fast the machine is.
"""

from __future__ import annotations

import argparse
import itertools
import sys
import time
import traceback
from collections import Counter
from collections.abc import Iterator
from dataclasses import dataclass, field
from pathlib import Path
from xml.etree import ElementTree

from velm_sim.build import Build, BuildError
from velm_sim.namespaces import remove_stale

from ..instrumented import InstrumentedBuild
from .checks import check
from .schedule import Step, schedule
from .steps import perform
from .world import World

STEPS_A_PROGRESS_LINE = 50
TAIL, WIDTH = 80, 300  # of the log that a failure shows
# Brings up whatever is made once and kept, so that the first census counts it: both access
# tokens, a push, a report.
WARM_UP = (
    Step(0, 0, "pair", {"phone": 0, "by": "attestation", "flaw": "none", "name": "Warm",
                        "push_token": "fcm-warm", "google": "none"}),
    Step(0, 0, "pair", {"phone": 3, "by": "assertion", "flaw": "none", "name": "Warm too",
                        "push_token": "fcm-warm-too", "google": "none"}),
    Step(0, 0, "ask", {"client": 0, "fault": "none", "which": 0, "certificate": "other_ca",
                       "within": 60}),
    Step(0, 0, "location", {"phone": 0, "flaw": "none", "latitude": 1.5, "rssi": -40,
                            "google": "none"}),
    Step(0, 0, "datagrams", {"seed": 0, "count": 1}),
    Step(0, 61, "census", {}),
)  # fmt: skip


@dataclass
class Outcome:
    """How a storm went."""

    seed: int
    steps: int = 0
    seconds: float = 0.0
    kinds: Counter[str] = field(default_factory=Counter)
    returns: int = 0  # how often everybody was served again after the LAN changed
    slowest: float = 0.0
    problem: str = ""


def run_step(world: World, step: Step) -> None:
    world.log.begin_step()
    world.allowed_before = world.allowed
    world.allowed = [r"missing auth token"] if world.model.may_push() else []
    world.jump(step.jump)
    perform(world, step.kind, step.arguments)
    check(world)


def steps_from(seed: int, first: int) -> Iterator[Step]:
    return itertools.islice(schedule(seed), first - 1, None)


def storm(build: Build, seed: int, seconds: float, first: int = 1) -> Outcome:
    """Runs the steps of the seed from `first` on until the time is over or something is wrong."""
    outcome, begin = Outcome(seed), time.monotonic()
    world = World(build)
    # Of the start itself.
    world.allow(r"nvram_get_parameter - cannot get zelkad_")
    try:
        step = WARM_UP[0]
        try:
            begin = time.monotonic()
            for step in itertools.chain(WARM_UP, steps_from(seed, first)):
                run_step(world, step)
                outcome.seconds = time.monotonic() - begin
                outcome.steps = step.number
                if step.number:
                    outcome.kinds[step.kind] += 1
                if step.number and step.number % STEPS_A_PROGRESS_LINE == 0:
                    print(progress(world, outcome), flush=True)
                if step.number and outcome.seconds >= seconds:
                    break
            step = Step(outcome.steps, 0, "census", {})
            run_step(world, step)
            world.daemon.stop()
            outcome.returns, outcome.slowest = len(world.returns), max(world.returns, default=0)
        except Exception as problem:  # whatever it is, the storm has failed in this step
            outcome.problem = describe(world, step, problem, seed)
    finally:
        world.close()
    return outcome


def describe(world: World, step: Step, problem: Exception, seed: int) -> str:
    log = [
        line if len(line) <= WIDTH else f"{line[: WIDTH // 2]} ... {line[-WIDTH // 2 :]}"
        for line in [*world.log.tail, *world.log.read()]
        if "   zelkad_pairing_" not in line
    ][-TAIL:]
    return "\n".join(
        [
            *log,
            "-- what happened",
            *traceback.format_exception(problem)[-3:],
            f"seed {seed}, step {step}",
            f"expected: {problem}",
        ]
    )


def progress(world: World, outcome: Outcome) -> str:
    live = len(world.model.live())
    return (
        f"seed {outcome.seed}: step {outcome.steps}, {outcome.seconds:.0f} s, {live} paired, "
        f"{len(world.cloud.fcm.requests)} pushes, {world.descriptors()} descriptors, "
        f"{world.daemon.resident_kib()} KiB"
    )


def write_junit(path: Path, outcome: Outcome) -> None:
    suite = ElementTree.Element("testsuite", name="storm")
    case = ElementTree.SubElement(
        suite, "testcase", name=f"seed {outcome.seed}", time=f"{outcome.seconds:.1f}"
    )
    if outcome.problem:
        failure = ElementTree.SubElement(case, "failure", message="not as the model says")
        printable = "".join(c for c in outcome.problem if c.isprintable() or c in "\n\t")
        failure.text = printable
    ElementTree.ElementTree(suite).write(path, encoding="unicode")


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("seed", type=int)
    parser.add_argument("seconds", type=float)
    parser.add_argument("--build", default="build/asan")
    parser.add_argument("--junit", type=Path, help="write the result there, as JUnit does")
    parser.add_argument("--dry-run", action="store_true", help="print the schedule only")
    parser.add_argument("--steps", type=int, default=200, help="of a dry run")
    parser.add_argument(
        "--first", type=int, default=1, metavar="STEP", help="leave out the steps before that one"
    )
    return parser.parse_args()


def main() -> int:
    given = arguments()
    if given.dry_run:
        for step in itertools.islice(steps_from(given.seed, given.first), given.steps):
            print(step)
        return 0
    try:
        build = InstrumentedBuild(given.build)
    except BuildError as problem:
        print(problem, file=sys.stderr)
        return 2
    remove_stale()
    outcome = storm(build, given.seed, given.seconds, given.first)
    if given.junit:
        write_junit(given.junit, outcome)
    if outcome.problem:
        print(outcome.problem, file=sys.stderr)
        return 1
    kinds = ", ".join(f"{count} {kind}" for kind, count in outcome.kinds.most_common())
    print(f"seed {outcome.seed}: {outcome.steps} steps in {outcome.seconds:.0f} s, all as expected")
    print(f"  {kinds}")
    print(f"  after {outcome.returns} LAN events served again within {outcome.slowest:.2f} s")
    return 0


if __name__ == "__main__":
    sys.exit(main())
