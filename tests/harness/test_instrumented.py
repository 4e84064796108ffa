"""What an instrumented build makes of a run of its programs."""

from __future__ import annotations

from pathlib import Path

import pytest
from velm_harness.instrumented import InstrumentedBuild, SanitizerError
from velm_sim.build import PROGRAMS


@pytest.fixture
def build(tmp_path: Path) -> InstrumentedBuild:
    programs = tmp_path / "asan" / "bin"
    programs.mkdir(parents=True)
    for name in PROGRAMS:
        (programs / name).touch()
    return InstrumentedBuild(tmp_path / "asan")


def test_a_report_of_a_sanitizer_is_raised_once(build: InstrumentedBuild, tmp_path: Path) -> None:
    build.judge(tmp_path)
    (tmp_path / "sanitizer.1234").write_text("heap-use-after-free")
    with pytest.raises(SanitizerError, match="heap-use-after-free"):
        build.judge(tmp_path)
    build.judge(tmp_path)


def test_reports_go_where_they_are_looked_for(build: InstrumentedBuild, tmp_path: Path) -> None:
    options = build.environment(tmp_path)["ASAN_OPTIONS"]
    assert f"log_path={tmp_path}/sanitizer:" in options


def test_a_build_that_is_not_instrumented_needs_nothing(
    build: InstrumentedBuild, tmp_path: Path
) -> None:
    plain = InstrumentedBuild(build.directory.rename(tmp_path / "release"))
    assert not plain.preload()
    assert not plain.environment(tmp_path)
    assert plain.memory_limit_kib(256) == 256
    assert build.memory_limit_kib(256) > 256
