"""velm-bench growth: it tells what grows, and its points are what they say."""

from __future__ import annotations

import contextlib
import json
from collections.abc import Iterator, Sequence
from pathlib import Path
from xml.etree import ElementTree

import pytest
from velm_bench import growth
from velm_bench.growth import Point
from velm_bench.growth_plot import scale, svg
from velm_bench.round_scene import APP_ATTEST, Setting, come
from velm_sim.access_point import BSSIDS
from velm_sim.build import Build

SAMPLE = [
    Point("paired phones", count, what, float(cost), 2 * float(cost))
    for what, costs in {"round": (10_000, 13_000, 16_000), "/info": (50, 51, 50)}.items()
    for count, cost in zip((1, 32, 64), costs, strict=True)
]


@pytest.mark.parametrize(
    ("costs", "wanted"),
    [
        ([(1, 100.0), (32, 104.0), (64, 119.0)], "flat"),
        ([(1, 100.0), (32, 80.0), (64, 60.0)], "flat"),
        ([(1, 100.0), (32, 200.0), (64, 300.0)], "linear or less"),
        ([(1, 100.0), (2, 150.0), (32, 290.0), (64, 300.0)], "linear or less"),
        ([(1, 100.0), (8, 164.0), (32, 1124.0), (64, 4196.0)], "faster than linear"),
        ([(10, 5.0), (5000, 6.0), (10000, 50.0)], "faster than linear"),
        ([(1, 5.0), (4, 20.0)], "linear or less"),
    ],
)
def test_what_grows_faster_than_linear_is_told(
    costs: Sequence[tuple[int, float]], wanted: str
) -> None:
    assert growth.grows(costs) == wanted


def test_the_table_has_each_point_and_one_verdict_a_line() -> None:
    rows = [line.split() for line in growth.table(SAMPLE).splitlines()]
    assert rows[1] == ["1", "paired", "phones", "round", "10,000", "20,000", "linear", "or", "less"]
    assert rows[2] == ["32", "paired", "phones", "round", "13,000", "26,000"]
    assert rows[4][-1] == "flat"
    assert len(rows) == 7


def test_everything_is_written(tmp_path: Path) -> None:
    growth.write(SAMPLE, tmp_path / "made")
    assert (tmp_path / "made" / "growth.txt").read_text() == growth.table(SAMPLE) + "\n"
    said = json.loads((tmp_path / "made" / "growth.json").read_text())
    assert said[1] == {
        "axis": "paired phones", "count": 32, "what": "round", "cpu_us": 13000.0, "p99_us": 26000.0,
    }  # fmt: skip
    ElementTree.fromstring((tmp_path / "made" / "growth.svg").read_text())


def test_the_picture_has_a_panel_for_each_axis_and_a_line_for_each_cost() -> None:
    root = ElementTree.fromstring(
        svg({
            ("phones", "round"): [(1, 100.0), (64, 200.0)],
            ("phones", "/info"): [(1, 50.0), (64, 50.0)],
            ("clients", "round"): [(1, 100.0), (32, 100.0)],
        })
    )  # fmt: skip
    name = "{http://www.w3.org/2000/svg}"
    assert len(root.findall(f"{name}rect")) == 1 + 2
    drawn = [one for one in root.findall(f"{name}polyline") if not one.get("stroke-dasharray")]
    assert len(drawn) == 3
    heights = [[float(place.split(",")[1]) for place in one.get("points", "").split()]
               for one in drawn]  # fmt: skip
    assert heights[0][0] > heights[0][1], "what costs more is higher up"
    assert heights[1][0] == heights[1][1]


def test_the_scale_is_logarithmic() -> None:
    assert [scale(value, 1, 100) for value in (1, 10, 100)] == pytest.approx([0, 0.5, 1])
    assert scale(5, 5, 5) == 0.5


@pytest.mark.parametrize(("count", "radios"), [(1, 1), (64, 1), (65, 2), (512, 8)])
def test_so_many_bssids_are_set(count: int, radios: int) -> None:
    made = growth.bssid_settings(count)
    found = [value for name, value in made.items() if name.endswith("_hwaddr")]
    assert len(set(found)) == len(found) == count
    assert found[0] == BSSIDS[0]
    assert made["wl_radio_num"] == str(radios)


@pytest.fixture(scope="module")
def setting(pytestconfig: pytest.Config) -> Iterator[Setting]:
    build = Build(pytestconfig.getoption("--build"))
    for name in (
        "velm-https-load", "velm-load", "velm-round-clock.so", "velm-round-hash.so",
    ):  # fmt: skip
        if not build.program(name).exists():
            pytest.skip(f"{name}, which scripts/bench.sh builds, is not there")
    with contextlib.ExitStack() as cleanup:
        yield Setting(build, cleanup)


def test_a_try_on_a_slow_core_counts_at_the_pace_of_a_quick_one(setting: Setting) -> None:
    hashes = iter([200.0, 200.0, 100.0, 100.0])
    tries = iter([(20.0, 60.0), (11.0, 40.0)])
    extent = growth.Extent(1, 1, 1, 0.1, 1, {})
    meter = growth.Meter(setting, extent, lambda: next(hashes), 100.0)
    assert meter._best(2, lambda: next(tries)) == (10.0, 30.0)


def test_a_point_has_all_four_costs(setting: Setting) -> None:
    extent = growth.Extent(1, 1, 2, 0.1, 50, {})
    made = list(growth.with_connections(growth.meter(setting, extent), 20))
    assert [point.what for point in made] == ["round", "phone's part of it", "/info", "search"]
    assert {(point.axis, point.count) for point in made} == {(growth.CONNECTIONS, 20)}
    for point in made:
        assert 0 < point.cpu_us and 0 < point.p99_us
    whole, part, info, search = (point.cpu_us for point in made)
    assert whole > info > search and part > info


def test_the_last_of_many_bssids_is_one_of_the_daemons(setting: Setting) -> None:
    with setting.scene(APP_ATTEST, settings=growth.bssid_settings(70)) as scene:
        scene.phones[0].bssid = "02:00:00:00:01:05"
        come(scene.phones[0])
        scene.phones[0].bssid = "02:00:00:00:01:06"
        with pytest.raises(RuntimeError):
            come(scene.phones[0])
