"""velm-bench round: what it counts is what a daemon did, and its floor does the work that it names."""

from __future__ import annotations

import contextlib
import shutil
import subprocess
import sys
from collections import Counter
from collections.abc import Iterator
from pathlib import Path

import pytest
from velm_bench import rounds
from velm_bench.figures import Figure, Verdict
from velm_bench.instructions import by_library, can_count, counted, counting
from velm_bench.round_scene import (
    APP_ATTEST,
    PLAY_INTEGRITY,
    Kind,
    Round,
    Setting,
    ask,
    move_clock,
)
from velm_bench.watch import calls_by_name, next_timer_ms, traced
from velm_sim.build import Build
from velm_sim.daemon import wait_until

PIECES = {
    "hashes_us": 7000.0, "server_connection_us": 300.0, "client_connection_us": 900.0,
    "signing_us": 50.0, "check_us": 100.0, "token_us": 150.0, "calls_us": 400.0,
}  # fmt: skip


@pytest.fixture(scope="module")
def setting(pytestconfig: pytest.Config) -> Iterator[Setting]:
    build = Build(pytestconfig.getoption("--build"))
    for name in (
        "velm-round-floor", "velm-round-clock.so", "velm-round-hash.so", "velm-round-heap.so",
    ):
        if not build.program(name).exists():
            pytest.exit(f"{build.program(name)} is not built", returncode=2)
    with contextlib.ExitStack() as cleanup:
        yield Setting(build, cleanup)


# The arithmetic.


def counts(**changes: object) -> rounds.Counts:
    made = {
        "calls": Counter(epoll_wait=30, ioctl=170), "rounds": 2, "timers_left": 0,
        "heap_bytes": 4e5, "heap_blocks": 4e3, "heap_more": 0, "instructions": None, **changes,
    }  # fmt: skip
    return rounds.Counts(**made)  # type: ignore[arg-type]


HASHES_US = 7000.0


def turn(spent_us: float, kind: Kind = APP_ATTEST, pace: float = 1.0) -> rounds.Turn:
    """On a machine that takes `pace` times as long."""
    made = rounds.Pieces.of({name: pace * value for name, value in PIECES.items()}, kind)
    spent_us *= pace
    return rounds.Turn(Round(spent_us, pace * HASHES_US, spent_us, 12, 15, 9000, 12000), made)


def judged(spent_us: float, kind: Kind = APP_ATTEST, **changes: object) -> dict[str, Figure]:
    made = rounds.figures(kind, [turn(spent_us, kind)], counts(**changes))
    # The first of a name is the one with a target.
    found: dict[str, Figure] = {}
    for figure in made:
        found.setdefault(figure.what, figure)
    return found


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


def test_the_floor_of_an_android_phone_has_its_token_in_place_of_the_check() -> None:
    assert judged(9000, PLAY_INTEGRITY)["round, Play Integrity"].peer_value == 8750


def test_a_timer_or_a_byte_that_is_left_misses_the_target() -> None:
    found = judged(9000)
    assert found["round, App Attest: timers left"].verdict is Verdict.HELD
    assert found["round, App Attest: more on the heap"].verdict is Verdict.HELD
    assert found["round, App Attest: system calls"].value == 100
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
    disturbed = turn(9550)
    turns.append(rounds.Turn(turn(15000).round, disturbed.floor))
    turns.append(rounds.Turn(disturbed.round, turn(9550, pace=1.3).floor))
    found = list(rounds.figures(APP_ATTEST, turns, counts()))
    assert found[0].ratio == pytest.approx(9550 / 8700)
    assert found[1].ratio == pytest.approx(1.5)
    assert "half of them 1.50 to 1.50" in found[1].note


def test_a_floor_is_the_mean_of_two() -> None:
    one, other = turn(9000).floor, turn(9000, pace=3.0).floor
    assert one.between(other) == turn(9000, pace=2.0).floor


def test_instructions_are_compared_with_and_without_the_hashes() -> None:
    velmd = Counter({"libcrypt.so.1.1.0": 86_000_000, "libcrypto.so.3": 8_000_000, "velmd": 400_000})
    floor = Counter({"libcrypt.so.1.1.0": 86_000_000, "libcrypto.so.3": 7_000_000})
    made = rounds.figures(
        APP_ATTEST, [turn(9000)], counts(instructions=rounds.Instructions(velmd, floor))
    )
    found = [(one.value, one.peer_value) for one in made if one.unit == "million instructions"]
    assert found == [(94.4, 93.0), (8.4, 7.0)]


def test_without_callgrind_the_instructions_are_not_measured() -> None:
    made = rounds.figures(APP_ATTEST, [turn(9000)], counts())
    assert [one.verdict for one in made if one.unit == "million instructions"] == [
        Verdict.NOT_MEASURED
    ]


def test_many_phones_are_compared_with_the_visits_beside_them_and_the_worst_counts() -> None:
    def crowd(last_us: float, pace: float) -> rounds.Crowd:
        return rounds.Crowd(Round(8e4, 7e4, 8e4, 12, 15, 1, pace * last_us), pace * 9e3, pace * 8e3)

    made = [crowd(72_000, 1.0), crowd(81_000, 2.0), crowd(72_000, 3.0)]
    found = rounds.crowd_figures(made, made[0].together)
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


@pytest.mark.skipif(not can_count(), reason="valgrind, which scripts/bench.sh installs, is not there")
def test_the_floor_is_counted_by_its_daemons_part_alone(setting: Setting) -> None:
    """Two hashes, by which the rest is known to be there, and neither the check nor the other ends."""
    found: dict[str, Counter[str]] = {}
    for name in ("round_floor_counted", "round_floor_counted_check"):
        profile = setting.scratch / name
        found[name] = Counter()
        with setting.floor_process(counting(profile, [name])) as process:
            with counted(process.pid, profile, found[name]):
                ask(process)
    whole, check = found.values()
    assert 60e6 < whole["libcrypt.so.1.1.0"] < 120e6
    assert whole["libssl.so.3"] > 50_000 and "libssl.so.3" not in check
    assert 300_000 < check.total() < 3_000_000 < rounds.Instructions.without_hashes(whole) < 20e6


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


# The floor.


def test_the_floor_does_every_piece_each_time(setting: Setting) -> None:
    with setting.floor() as floor:
        said = [floor(), floor()]
    for one in said:
        assert set(one) == set(PIECES)
        assert min(one.values()) > 5, "each of them takes some microseconds"
    # Two hashes of 5000 rounds are milliseconds, and a check takes longer than to sign.
    assert said[1]["hashes_us"] > 1000 > said[1]["check_us"] / 10
    assert said[1]["client_connection_us"] > said[1]["check_us"]


def test_a_floor_with_another_password_fails(setting: Setting) -> None:
    with setting.floor():
        at = setting.scratch / "floor"
        (at / "password").write_text("another")
        done = subprocess.run(
            [str(setting.build.program("velm-round-floor")), str(at), "192.168.1.1",
             "fcm.googleapis.com", "-1", "-1"],
            input="\n", capture_output=True, text=True, timeout=20,
        )  # fmt: skip
    assert (done.returncode, done.stdout) == (1, "")
    assert "the password has another hash" in done.stderr


# A daemon.


@pytest.mark.parametrize("kind", [APP_ATTEST, PLAY_INTEGRITY], ids=lambda kind: kind.name)
def test_rounds_follow_one_another_within_the_minute(setting: Setting, kind: Kind) -> None:
    with setting.scene(kind) as scene:
        beside: list[float] = []
        one = scene.round(beside=lambda: beside.append(scene.hashes_us()))
        assert scene.timers_left() == 0
        assert len(scene.cloud.token.requests) == 1, "the access token was at hand"
        assert len(scene.cloud.fcm.requests) == 2
    assert 0 < one.hashes_us < one.visit_cpu_us < one.cpu_us
    assert one.hashes_us > one.cpu_us / 4, "most of a round are its two hashes"
    # Before the phone came and after it.
    assert len(beside) == 2 and beside[1] - beside[0] == pytest.approx(one.hashes_us)
    assert 0 < one.wait_us <= one.last_report_us
    assert one.wakeups > 0 and one.page_faults > 0


def test_of_the_heap_of_a_round_no_byte_is_left(setting: Setting) -> None:
    taken, blocks, more = rounds.count_heap(setting, APP_ATTEST, 1, warm_up=1)
    # A TLS connection alone takes more than a thousand blocks.
    assert taken > 100_000 and 1000 < blocks < taken
    assert more <= 0


def test_phones_that_come_together_are_all_heard(setting: Setting) -> None:
    with setting.scene(APP_ATTEST, phones=3) as scene:
        made = scene.visits(rounds.all_phones, reports=3)
    assert 0 < made.cpu_us
    assert made.last_report_us > 0


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
