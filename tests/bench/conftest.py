"""What the tests of rounds share."""

from __future__ import annotations

import contextlib
from collections.abc import Iterator

import pytest
from velm_bench.round_scene import Setting
from velm_sim.build import Build


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
