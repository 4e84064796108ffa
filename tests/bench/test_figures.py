"""The benchmarks' table, JSON and picture, made of figures that nobody measured."""

from __future__ import annotations

import json
from pathlib import Path
from xml.etree import ElementTree

import pytest
from velm_bench.figures import (
    Figure,
    Verdict,
    at_least,
    at_most,
    ratio_at_least,
    ratio_at_most,
    table,
    write,
)
from velm_bench.load import Best, Load, LoadError, judged
from velm_bench.micro import micro_figures, speed_verify_us
from velm_bench.plot import position, svg
from velm_bench.servers import Server
from velm_bench.watch import _entered

SAMPLE = [
    Figure("/info, 16 kept", "requests/s", 15000.0, "nginx", 10000.0, ratio_at_least(1.0)),
    Figure("/info, 16 kept", "us CPU", 26.0, "nginx", 20.0, ratio_at_most(1.25)),
    Figure("idle: wake-ups", "a minute", 0.0, "lighttpd", 60.0, at_most(0)),
    Figure("stripped velmd", "kB", 355.4),
    Figure("SSDP and IPC", "", None, note="velm-load is not built"),
]


@pytest.mark.parametrize(
    ("value", "peer", "target", "verdict"),
    [
        (10.0, 10.0, ratio_at_most(1.0), Verdict.HELD),
        (10.1, 10.0, ratio_at_most(1.0), Verdict.MISSED),
        (10.0, 10.0, ratio_at_least(1.0), Verdict.HELD),
        (9.9, 10.0, ratio_at_least(1.0), Verdict.MISSED),
        (18.0, 1.0, at_most(18), Verdict.HELD),
        (18.1, 99.0, at_most(18), Verdict.MISSED),
        (99.0, 1.0, at_least(99), Verdict.HELD),
        (98.9, 1.0, at_least(99), Verdict.MISSED),
        (1.0, 1.0, None, Verdict.NO_TARGET),
        (None, 1.0, ratio_at_most(1.0), Verdict.NOT_MEASURED),
        (1.0, None, ratio_at_most(1.0), Verdict.NOT_MEASURED),
    ],
    ids=lambda value: str(getattr(value, "value", value)).replace("\n", " "),
)
def test_verdicts_on_both_sides_of_a_target(
    value: float | None, peer: float | None, target: object, verdict: Verdict
) -> None:
    assert Figure("x", "us", value, "peer", peer, target).verdict is verdict  # type: ignore[arg-type]


def test_the_furthest_from_its_target_is_found_whatever_its_kind() -> None:
    twice_as_slow = Figure("a", "1/s", 5.0, "peer", 10.0, ratio_at_least(1.0))
    a_half_too_much = Figure("b", "us", 15.0, "peer", 10.0, ratio_at_most(1.0))
    assert max([*SAMPLE, a_half_too_much, twice_as_slow], key=lambda one: one.excess) is (
        twice_as_slow
    )
    assert twice_as_slow.excess == pytest.approx(2.0)
    assert Figure("c", "us", 900.0).excess == 0, "without a target nothing is far"


def test_the_table_shows_both_figures_ratio_target_and_verdict() -> None:
    lines = table(SAMPLE).splitlines()
    assert len(lines) == 2 + len(SAMPLE)
    assert lines[2].split() == [
        "/info,", "16", "kept", "15,000", "requests/s", "nginx", "10,000", "1.50",
        "at", "least", "1", "x", "held",
    ]  # fmt: skip
    assert "1.30  at most 1.25 x" in lines[3] and lines[3].endswith("missed")
    assert lines[6].endswith("not measured (velm-load is not built)")


def test_everything_is_written(tmp_path: Path) -> None:
    write(SAMPLE, {"cores": 2}, tmp_path / "made", svg(SAMPLE))
    said = json.loads((tmp_path / "made" / "figures.json").read_text())
    assert said["machine"] == {"cores": 2}
    assert [one["verdict"] for one in said["figures"]] == [
        "held", "missed", "held", "", "not measured",
    ]  # fmt: skip
    assert said["figures"][1]["ratio"] == pytest.approx(1.3)
    assert said["figures"][1]["target"] == "at most 1.25 x"
    assert (tmp_path / "made" / "table.txt").read_text() == table(SAMPLE) + "\n"


def test_the_picture_has_a_bar_for_each_ratio() -> None:
    root = ElementTree.fromstring(svg(SAMPLE))
    bars = root.findall("{http://www.w3.org/2000/svg}rect")[1:]
    assert len(bars) == 3
    assert [bar.get("fill") for bar in bars] == ["#2e7d32", "#c62828", "#2e7d32"]
    assert float(bars[0].get("x", 0)) == pytest.approx(position(1.0), abs=0.1)
    assert position(2.0) - position(1.0) == pytest.approx(position(1.0) - position(0.5))
    assert position(1000.0) == position(16.0), "what is far out stays in the picture"


def test_the_best_of_several_runs_is_taken_figure_by_figure() -> None:
    best = Best.of([Load(10, 5, 50, 7, 100, 40, 40), Load(12, 6, 40, 8, 120, 60, 59)])
    assert best == Best(12, 5, 40, 7, 0.99)


def answer(**changes: object) -> dict[str, object]:
    return {
        "requests": 4, "rate": 8.0, "p50_us": 1, "p99_us": 2, "failures": 0, "offered": 0,
        "resumed": 0, "statuses": {"200": 4}, **changes,
    }  # fmt: skip


def test_cpu_time_is_counted_for_a_request() -> None:
    assert judged(Server("velmd", 1, {}), "kept", answer(), 100.0).cpu_us == 25.0


@pytest.mark.parametrize(
    "changes",
    [{"failures": 1}, {"statuses": {"200": 3, "503": 1}}, {"statuses": {}}],
    ids=["a broken connection", "another status", "no answer"],
)
def test_a_run_with_anything_but_200_is_no_result(changes: dict[str, object]) -> None:
    with pytest.raises(LoadError):
        judged(Server("velmd", 1, {}), "kept", answer(**changes), 100.0)


def test_micro_benchmarks_are_paired_by_name() -> None:
    def one(name: str, cpu: float, unit: str) -> dict[str, object]:
        return {"name": name, "cpu_time": cpu, "time_unit": unit, "run_type": "iteration"}

    found = micro_figures(
        {
            "benchmarks": [
                one("assert/velmd", 120.0, "us"),
                one("assert/velmd", 110.0, "us"),
                one("assert/velmd", 130.0, "us"),
                one("assert/bare", 0.1, "ms"),
                one("log/disabled", 2.0, "ns"),
                {**one("assert/velmd_mean", 1.0, "us"), "run_type": "aggregate"},
            ]
        }
    )
    assert [one.what for one in found] == ["in process: assert", "in process: log/disabled"]
    assert found[0].ratio == pytest.approx(1.1)
    assert found[0].target == ratio_at_most(1.02)
    assert found[1].value == pytest.approx(0.002)


def test_the_verification_of_openssl_speed_is_read() -> None:
    said = "+R5:1304:384:1.00\n+F4:4:384:1304.545455:1491.666667\n"
    assert speed_verify_us(said) == pytest.approx(670.4, abs=0.1)


def test_of_a_trace_the_call_that_each_thread_slept_in_does_not_count() -> None:
    trace = (
        "epoll_wait(3, [], 32, 1000) = 0\n"
        "getpid() = 7\n"
        "[pid   12] futex(0x1, FUTEX_WAIT <unfinished ...>\n"
        "[pid   12] write(1, ...) = 1\n"
        "+++ killed +++\n"
    )
    assert _entered(trace) == 2
    assert _entered("") == 0
