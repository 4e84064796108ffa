"""The packages of scripts/package.sh, and a minimal machine in a network with a cloud and phones."""

from __future__ import annotations

import shutil
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from velm_harness.booted import Booted, why_not_bootable
from velm_harness.packaged import REPOSITORY
from velm_sim.access_point import AccessPoint, Credentials
from velm_sim.build import Build
from velm_sim.cloud import Cloud
from velm_sim.namespaces import Network, remove_stale

PACKAGES = REPOSITORY / "build/package"
OURS = ("velmd", "velmd-nvram", "libvelm-dev")


@pytest.fixture(scope="session")
def packages() -> dict[str, Path]:
    """By name."""
    found = {file.name.partition("_")[0]: file for file in PACKAGES.glob("*.deb")}
    if missing := [name for name in OURS if name not in found]:
        pytest.exit(f"no package {', '.join(missing)}: run scripts/package.sh first", returncode=2)
    return {name: found[name] for name in OURS}


def needed_by(package: Path) -> set[str]:
    """The names of what it depends on, of alternatives the first."""
    command = ["dpkg-deb", "--field", str(package), "Depends"]
    depends = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    return {part.split("|")[0].split("(")[0].strip() for part in depends.split(",")} - {"", *OURS}


@pytest.fixture(scope="session")
def minimal_root(packages: dict[str, Path]) -> Path:
    """A Debian with what the packages depend on, and no more. It is made once and kept.

    It comes from where this machine has its own packages from.
    """
    wanted = ",".join(sorted(set().union(*map(needed_by, packages.values()))))
    root, stamp = PACKAGES / "minimal-root", PACKAGES / "minimal-root.stamp"
    if root.exists() and stamp.exists() and stamp.read_text() == wanted:
        return root
    if shutil.which("mmdebstrap") is None:
        pytest.skip("mmdebstrap is not installed")
    shutil.rmtree(root, ignore_errors=True)
    apt = Path("/etc/apt")
    sources = [apt / "sources.list.d/debian.sources", apt / "sources.list"]
    source = next(path for path in sources if path.exists() and path.stat().st_size)
    done = subprocess.run(
        ["mmdebstrap", "--variant=minbase", f"--include={wanted}", _suite(), root, source],
        capture_output=True, text=True, timeout=900,
    )  # fmt: skip
    assert done.returncode == 0, done.stderr
    stamp.write_text(wanted)
    return root


def _suite() -> str:
    lines = Path("/etc/os-release").read_text().splitlines()
    return next(line for line in lines if line.startswith("VERSION_CODENAME=")).partition("=")[2]


@pytest.fixture(scope="session")
def network() -> Iterator[Network]:
    remove_stale()
    made = Network()
    yield made
    made.close()


@pytest.fixture(scope="session")
def credentials() -> Credentials:
    return Credentials()


@pytest.fixture(scope="session")
def cloud(network: Network, credentials: Credentials) -> Iterator[Cloud]:
    made = Cloud(network.cloud, network.CLOUD_ADDRESS, credentials.cloud, credentials.account)
    made.start()
    yield made
    made.stop()


@pytest.fixture
def phones(
    pytestconfig: pytest.Config, network: Network, credentials: Credentials
) -> Iterator[AccessPoint]:
    """An access point that is never started: it knows what the phones need."""
    made = AccessPoint(Build(pytestconfig.getoption("--build")), network, credentials)
    yield made
    made.close()


@pytest.fixture
def machine(minimal_root: Path, packages: dict[str, Path], network: Network) -> Iterator[Booted]:
    """With our packages at hand, not installed."""
    if reason := why_not_bootable():
        pytest.skip(reason)
    made = Booted(network.ap.path, minimal_root)
    try:
        for name, file in packages.items():
            made.write(f"var/tmp/{name}.deb", file.read_bytes())
        made.boot()
        yield made
    finally:
        made.close()
