"""The router on which the package is tried, once for each shell."""

from __future__ import annotations

from pathlib import Path

import pytest
from openwrt_router import SHELLS, Router
from velm_sim.build import Build, BuildError


@pytest.fixture(scope="session")
def build(pytestconfig: pytest.Config) -> Build:
    try:
        return Build(pytestconfig.getoption("--build"))
    except BuildError as problem:
        pytest.exit(str(problem), returncode=2)


@pytest.fixture(params=SHELLS)
def router(request: pytest.FixtureRequest, build: Build, tmp_path: Path) -> Router:
    made = Router(tmp_path / "root", SHELLS[request.param], build)
    made.working_directory.mkdir()
    made.install()
    made.environment["LC_ALL"] = "C"
    return made
