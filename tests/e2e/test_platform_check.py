"""Does velm-platform-check say what a vendor's platform library does wrong, and nothing about a good one?

The libraries are stand-ins in C (tests/vendor). Everything stays in a temporary directory.
"""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import pytest
from velm_sim.build import Build

pytestmark = pytest.mark.not_emulated(
    "the emulator has a thread of its own in the process, for which the library is blamed"
)

LIMIT_S = 30

BROKEN = {
    "own pointer": "FAIL each value is the caller's own: the daemon frees it",
    "rotating pointer": "FAIL each value is the caller's own: the daemon frees it",
    "set fails": "FAIL a setting that was set can be read",
    "value for absent": "FAIL an absent setting has a value",
    "short values": "FAIL a value of 256 characters",
    "quotes": "FAIL a value with every printable ASCII character",
    "room": "FAIL room for 80 values of 256 characters, as ten pairings take: only 4 ",
    "private": "FAIL another process sees what was set",
    "commit fails": "FAIL nvram_commit returns 7",
    "thread": "FAIL the library starts no thread",
    "forked": "FAIL the library works after a fork",
    "registration": "FAIL dm_register_app_restart_info returns 3",
}
WORSE = {
    "empty for absent": "WARN an absent setting is an empty text",
    "slow commit": "WARN nvram_commit takes ",
    "slow get": "WARN nvram_unf_get takes ",
    "descriptor": "WARN programs that the daemon starts inherit nothing",
}


def check(
    build: Build, library: str, place: Path, *options: str, fault: str = ""
) -> subprocess.CompletedProcess[str]:
    program = build.directory / "tests" / "vendor" / f"platform_check_{library}"
    assert program.is_file(), f"build the target platform_check_{library} first"
    environment = os.environ | {
        "VENDOR_NVRAM": str(place / "nvram.txt"),
        "VENDOR_REGISTRY": str(place / "registry.txt"),
        "VENDOR_FAULT": fault,
        "ASAN_OPTIONS": "detect_leaks=0",  # a child that ends in a call leaves memory behind
    }
    return subprocess.run(
        [program, *options],
        env=environment, capture_output=True, text=True, timeout=LIMIT_S, check=False,
    )  # fmt: skip


def test_a_good_library_passes_and_keeps_its_settings(build: Build, tmp_path: Path) -> None:
    (tmp_path / "nvram.txt").write_text("zelkad_mode=1\n")
    done = check(build, "vendor", tmp_path, "--register")
    assert done.returncode == 0, done.stdout + done.stderr
    lines = done.stdout.splitlines()
    assert len(lines) > 15
    assert all(line.startswith("OK   ") for line in lines[:-1]), done.stdout
    assert lines[-1] == "The platform library can be used."
    store = (tmp_path / "nvram.txt").read_text()
    assert store.startswith("zelkad_mode=1\n")
    left = dict(line.split("=", 1) for line in store.splitlines())
    assert {name for name, value in left.items() if value} == {"zelkad_mode"}
    assert " velm-platform-check" in (tmp_path / "registry.txt").read_text()


def test_without_its_option_nothing_is_registered(build: Build, tmp_path: Path) -> None:
    assert check(build, "vendor", tmp_path).returncode == 0
    assert not (tmp_path / "registry.txt").exists()


@pytest.mark.parametrize("fault", BROKEN)
def test_a_library_that_breaks_a_rule_fails(build: Build, tmp_path: Path, fault: str) -> None:
    done = check(build, "broken", tmp_path, "--register", fault=fault)
    assert done.returncode == 1
    assert BROKEN[fault] in done.stdout
    assert done.stdout.splitlines()[-1] == "The platform library must be mended first."


@pytest.mark.parametrize("fault", WORSE)
def test_a_library_that_is_worse_than_it_could_be_is_warned_about(
    build: Build, tmp_path: Path, fault: str
) -> None:
    done = check(build, "broken", tmp_path, fault=fault)
    assert done.returncode == 0
    assert WORSE[fault] in done.stdout
    assert done.stdout.splitlines()[-1] == "The platform library can be used."


def test_an_unknown_option_is_told(build: Build, tmp_path: Path) -> None:
    done = check(build, "vendor", tmp_path, "--registre")
    assert done.returncode == 2
    assert done.stderr.startswith("usage: velm-platform-check")
