"""velm-bench round: what it counts is what a daemon did, and it is compared with what was measured beside it."""

from __future__ import annotations

import contextlib
import os
import shutil
import subprocess
import sys
from collections import Counter
from collections.abc import Iterator
from dataclasses import replace
from pathlib import Path

import pytest
from velm_bench import rounds
from velm_bench.figures import Figure, Verdict
from velm_bench.instructions import by_library
from velm_bench.round_scene import (
    APP_ATTEST,
    PLAY_INTEGRITY,
    Kind,
    Round,
    Setting,
    move_clock,
)
from velm_bench.watch import CLIENT_CORE, SERVER_CORE, calls_by_name, next_timer_ms, traced
from velm_sim.daemon import wait_until

# The arithmetic.


def counts(**changes: object) -> rounds.Counts:
    members = {
        "calls": Counter(epoll_wait=30, ioctl=170), "floor_calls": Counter(read=50), "rounds": 2,
        "timers_left": 0,
        "heap_bytes": 4e5, "heap_blocks": 4e3, "heap_more": 0, "instructions": None, **changes,
    }  # fmt: skip
    return rounds.Counts(**members)  # type: ignore[arg-type]


HASHES_US, FLOOR_US = 7000.0, 8700.0


def made(spent_us: float, pace: float = 1.0) -> Round:
    """On a machine that takes `pace` times as long."""
    spent_us *= pace
    return Round(spent_us, pace * HASHES_US, spent_us, 12, 15, 9000, 12000)


def turn(spent_us: float, pace: float = 1.0) -> rounds.Turn:
    return rounds.Turn(made(spent_us, pace), made(FLOOR_US, pace), made(FLOOR_US, pace))


def judged(spent_us: float, **changes: object) -> dict[str, Figure]:
    return {
        figure.what: figure
        for figure in rounds.figures(APP_ATTEST, [turn(spent_us)], counts(**changes))
        if figure.unit != "million instructions"
    }


@pytest.mark.parametrize(
    ("spent", "whole", "without"),
    [
        (9550.0, Verdict.HELD, Verdict.HELD),
        (9551.0, Verdict.HELD, Verdict.MISSED),
        (9570.0, Verdict.HELD, Verdict.MISSED),
        (9571.0, Verdict.MISSED, Verdict.MISSED),
    ],
)
def test_a_round_is_held_against_its_floor_with_and_without_the_hashes(
    spent: float, whole: Verdict, without: Verdict
) -> None:
    found = judged(spent)
    assert found["round, App Attest"].peer_value == 8700
    assert found["round, App Attest"].verdict is whole
    assert found["round, App Attest, without two hashes"].peer_value == 1700
    assert found["round, App Attest, without two hashes"].verdict is without


def test_rounds_with_whole_handshakes_are_held_against_the_floor_too() -> None:
    found = list(rounds.whole_figures(APP_ATTEST, [turn(9571)], None))
    assert [(one.what, one.verdict) for one in found[:2]] == [
        ("round, App Attest, whole handshakes", Verdict.MISSED),
        ("round, App Attest, whole handshakes, without two hashes", Verdict.MISSED),
    ]


def test_a_timer_or_a_byte_that_is_left_misses_the_target() -> None:
    found = judged(9000)
    assert found["round, App Attest: timers left"].verdict is Verdict.HELD
    assert found["round, App Attest: more on the heap"].verdict is Verdict.HELD
    calls = found["round, App Attest: system calls"]
    assert (calls.value, calls.peer_value) == (100, 25)
    found = judged(9000, timers_left=1, heap_more=1)
    assert found["round, App Attest: timers left"].verdict is Verdict.MISSED
    assert found["round, App Attest: more on the heap"].verdict is Verdict.MISSED


def test_what_a_round_leaves_behind_is_told() -> None:
    assert rounds.left_behind(judged(20000).values()) == []
    assert rounds.left_behind(judged(9000, timers_left=1, heap_more=48).values()) == [
        "round, App Attest: timers left: 1",
        "round, App Attest: more on the heap: 48 bytes",
    ]


def test_a_round_is_compared_with_the_floor_from_beside_it_and_the_median_counts() -> None:
    """The machine's pace is another in each; once only the round was disturbed, once only its floor."""
    turns = [turn(9550, pace=pace) for pace in (1.0, 1.7, 2.5)]
    usual = turn(9550)
    turns.append(replace(usual, round=made(15000)))
    turns.append(replace(usual, before=made(FLOOR_US, pace=1.3)))
    found = list(rounds.figures(APP_ATTEST, turns, counts()))
    assert found[0].ratio == pytest.approx(9550 / 8700)
    assert found[1].ratio == pytest.approx(1.5)
    assert "half of them 1.50 to 1.50" in found[1].note


def test_a_floor_is_the_mean_of_two() -> None:
    one = rounds.Turn(made(9000), made(FLOOR_US), made(FLOOR_US, pace=3.0))
    assert one.floor_us == 2 * FLOOR_US
    assert one.floor_rest_us == 2 * (FLOOR_US - HASHES_US)


class Rounds:
    """Stands for a scene: whose turn it was is written down."""

    def __init__(self, name: str, turns: list[str]) -> None:
        self.name, self.turns = name, turns

    def round(self) -> Round:
        self.turns.append(self.name)
        return made(float(len(self.turns)))


def test_velmd_and_its_floor_take_turns() -> None:
    turns: list[str] = []
    velmd, floor = Rounds("velmd", turns), Rounds("floor", turns)
    found = rounds.measure(velmd, floor, 3)  # type: ignore[arg-type]
    assert turns == ["velmd", "floor", *("floor", "velmd") * 3, "floor"]
    assert [(one.before.cpu_us, one.round.cpu_us, one.after.cpu_us) for one in found] == [
        (3, 4, 5), (5, 6, 7), (7, 8, 9),
    ]  # fmt: skip


def test_instructions_are_compared_with_and_without_the_hashes() -> None:
    velmd = Counter({"libcrypt.so.1.1.0": 86_000_000, "libcrypto.so.3": 8_000_000, "velmd": 400_000})
    floor = Counter({"libcrypt.so.1.1.0": 86_000_000, "libcrypto.so.3": 7_000_000})
    figures = rounds.figures(
        APP_ATTEST, [turn(9000)], counts(instructions=rounds.Instructions(velmd, floor))
    )
    found = [(one.value, one.peer_value) for one in figures if one.unit == "million instructions"]
    assert found == [(94.4, 93.0), (8.4, 7.0)]


def test_without_callgrind_the_instructions_are_not_measured() -> None:
    figures = rounds.figures(APP_ATTEST, [turn(9000)], counts())
    assert [one.verdict for one in figures if one.unit == "million instructions"] == [
        Verdict.NOT_MEASURED
    ]


def test_many_phones_are_compared_with_the_visits_beside_them_and_the_worst_counts() -> None:
    def crowd(last_us: float, pace: float) -> rounds.Crowd:
        return rounds.Crowd(Round(8e4, 7e4, 8e4, 12, 15, 1, pace * last_us), pace * 9e3, pace * 8e3)

    crowds = [crowd(72_000, 1.0), crowd(81_000, 2.0), crowd(72_000, 3.0)]
    found = rounds.crowd_figures(crowds, crowds[0].together)
    assert found[0].ratio == pytest.approx(0.9)
    assert found[0].verdict is Verdict.HELD
    assert found[0].note == "the median 0.80"
    assert found[1].ratio == pytest.approx(81 / 80)


@pytest.mark.parametrize(
    ("values", "wanted"),
    [([3.0], 3.0), ([1.0, 9.0, 2.0], 9.0), (list(map(float, range(1, 201))), 198.0)],
    ids=["one", "few", "many"],
)
def test_the_99th_percentile_of_few_is_the_highest(values: list[float], wanted: float) -> None:
    assert rounds.highest(values) == wanted


# Watching.


PROFILE = """\
events: Ir
ob=(1) /usr/bin/velmd
fl=(1) a.cpp
fn=(1) main
5 100
+2 20
cob=(2) /usr/lib/libc.so.6
cfi=(2) b.c
cfn=(2) malloc
calls=3 7
9 5000
* 1

ob=(2)
fn=(2)
7 4000
-1 999
calls=1 7
7 1000
ob=(1)
fn=(3) end
1 8
totals: 5128
"""


def test_instructions_are_counted_for_the_library_that_ran_them() -> None:
    assert by_library(PROFILE) == Counter({"velmd": 129, "libc.so.6": 4999})


def test_calls_are_counted_by_name_without_the_one_that_was_under_way() -> None:
    trace = (
        "7 epoll_wait(3, [], 32, 1000) = 0\n"
        "7 getpid() = 7\n"
        "7 read(4,  <unfinished ...>\n"
        "7 <... read resumed>\"x\", 1) = 1\n"
        "7 read(4, \"y\", 1) = 1\n"
        "7 +++ killed +++\n"
    )
    assert calls_by_name(trace) == Counter(read=2, getpid=1)
    for begin in ("", "7 <... epoll_wait resumed>[], 32, 1000) = 0\n", "7 restart_syscall() = 0\n"):
        late = begin + trace.partition("\n")[2]
        assert calls_by_name(late) == calls_by_name(trace)
    assert calls_by_name("") == Counter()


@contextlib.contextmanager
def sleeper(timeout: str) -> Iterator[subprocess.Popen[bytes]]:
    """It waits, in a loop of its own, and wakes for each line."""
    script = (
        "import os, select, sys\n"
        "loop = select.epoll()\n"
        "loop.register(0, select.EPOLLIN)\n"
        f"while not loop.poll({timeout}) or os.read(0, 1):\n"
        "    os.getppid()\n"
    )
    with subprocess.Popen([sys.executable, "-c", script], stdin=subprocess.PIPE) as process:
        try:
            yield process
        finally:
            process.kill()


@pytest.mark.parametrize(("timeout", "wanted"), [("-1", -1), ("600", 600_000)])
def test_when_the_next_timer_is_due_is_read_from_outside(timeout: str, wanted: int) -> None:
    with sleeper(timeout) as process:
        wait_until(lambda: next_timer_ms(process.pid) == wanted, 5, "the timer is not seen")


@pytest.mark.parametrize(("call", "wanted"), [("one.recv(1)", -1), ("os.read(one.fileno(), 1)", None)])
def test_of_a_bare_program_that_waits_recv_alone_is_known(call: str, wanted: int | None) -> None:
    """Its other waits belong to a round."""
    script = f"import os, socket; one, other = socket.socketpair(); print(flush=True); {call}"
    with subprocess.Popen([sys.executable, "-c", script], stdout=subprocess.PIPE) as process:
        try:
            assert process.stdout and process.stdout.readline()
            state = Path(f"/proc/{process.pid}/stat")
            wait_until(lambda: state.read_text().split()[2] == "S", 5, "it does not sleep")
            assert next_timer_ms(process.pid) == wanted
        finally:
            process.kill()


def test_a_thread_stays_on_a_core_for_as_long_as_it_is_told() -> None:
    if (os.cpu_count() or 1) < 2:
        pytest.skip("one core")
    before = os.sched_getaffinity(0)
    with rounds.on_core(CLIENT_CORE), rounds.on_core(SERVER_CORE):
        assert os.sched_getaffinity(0) == {SERVER_CORE}
    assert os.sched_getaffinity(0) == before


def test_a_traced_process_shows_each_call(tmp_path: Path) -> None:
    if not shutil.which("strace"):
        pytest.skip("strace, which scripts/bench.sh installs, is not there")
    with sleeper("-1") as process:
        wait_until(lambda: next_timer_ms(process.pid) == -1, 5, "it does not sleep")
        with traced(process.pid, tmp_path / "trace"):
            assert process.stdin
            process.stdin.write(b"abc")
            process.stdin.flush()
            wait_until(
                lambda: (tmp_path / "trace").read_text().count("getppid(") == 3, 5, "no calls"
            )
    found = calls_by_name((tmp_path / "trace").read_text())
    assert (found["getppid"], found["read"]) == (3, 3)


# A daemon.


@pytest.mark.parametrize("kind", [APP_ATTEST, PLAY_INTEGRITY], ids=lambda kind: kind.name)
def test_rounds_follow_one_another_within_the_minute(setting: Setting, kind: Kind) -> None:
    with setting.scene(kind) as scene:
        one = scene.round()
        assert scene.timers_left() == 0
        assert len(scene.cloud.token.requests) == 1, "the access token was at hand"
        assert len(scene.cloud.fcm.requests) == 2
    assert 0 < one.hashes_us < one.visit_cpu_us < one.cpu_us
    assert one.hashes_us > one.cpu_us / 4, "most of a round are its two hashes"
    assert 0 < one.wait_us <= one.last_report_us
    assert one.wakeups > 0 and one.page_faults > 0


def test_meanwhile_the_cloud_hands_out_no_sessions(setting: Setting) -> None:
    def pushes(scene: rounds.Scene, number: int) -> list[bool]:
        before = len(scene.cloud.resumed)
        for _ in range(number):
            scene.round()
        return scene.cloud.resumed[before:]

    with setting.scene(APP_ATTEST) as scene:
        assert pushes(scene, 2) == [True, True], "the first push came with the access token"
        with setting.cloud.without_sessions():
            assert pushes(scene, 3) == [True, False, False], "the first one used the last session"
        assert pushes(scene, 2) == [False, True]


def test_of_the_heap_of_a_round_no_byte_is_left(setting: Setting) -> None:
    taken, blocks, more = rounds.count_heap(setting, APP_ATTEST, 1, warm_up=1)
    # A TLS connection alone takes more than a thousand blocks.
    assert taken > 100_000 and 1000 < blocks < taken
    assert more <= 0


def test_phones_that_come_together_are_all_heard(setting: Setting) -> None:
    with setting.scene(APP_ATTEST, phones=3) as scene:
        seen = scene.visits(rounds.all_phones, reports=3)
    assert 0 < seen.cpu_us
    assert seen.last_report_us > 0


def test_a_moved_clock_stays_in_its_file(tmp_path: Path) -> None:
    file = tmp_path / "clock"
    file.write_bytes(bytes(8))
    before = file.stat().st_ino
    move_clock(file, 61)
    assert (file.stat().st_ino, file.read_bytes()) == (before, (61).to_bytes(8, sys.byteorder))


def test_velm_bench_round_is_the_command(setting: Setting) -> None:
    done = subprocess.run(
        [str(setting.build.program("velm-bench")), "round", "--help"],
        capture_output=True, text=True, timeout=20,
    )  # fmt: skip
    assert done.returncode == 0
    assert "usage: velm-bench round" in done.stdout and "--rounds" in done.stdout
