"""Does `cmake --install` put everything where it belongs, and is what ships hardened?"""

from __future__ import annotations

import os
import re
import stat
import subprocess
from pathlib import Path

import pytest
from velm_harness.version import VERSION
from velm_sim.build import Build

PREFIX = "opt/velm"
INSTALLED = {
    "sbin/velmd": 0o755,
    "bin/nvram": 0o755,
    "bin/velmctl": 0o755,
    "include/velm/location_policy.h": 0o644,
    "include/velm/platform/dm.h": 0o644,
    "include/velm/platform/nvram.h": 0o644,
    "share/bash-completion/completions/velmctl": 0o644,
    "share/bash-completion/completions/velmd": 0o644,
    "share/doc/velmd/examples/velmd.conf": 0o644,
    "share/man/man1/nvram.1": 0o644,
    "share/man/man1/velmctl.1": 0o644,
    "share/man/man5/velmd.conf.5": 0o644,
    "share/man/man8/velmd.8": 0o644,
}
PROGRAMS = [name for name, mode in INSTALLED.items() if mode == 0o755]


def run(*command: str | Path, **environment: str) -> str:
    done = subprocess.run(
        [str(word) for word in command],
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        timeout=60,
        env={**os.environ, "LC_ALL": "C", **environment},
    )
    assert done.returncode == 0, done.stdout
    return done.stdout


@pytest.fixture(scope="module")
def installed(build: Build, tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The prefix, inside a DESTDIR: nothing of the machine is written."""
    root = tmp_path_factory.mktemp("root")
    run("cmake", "--install", build.directory, "--prefix", f"/{PREFIX}", DESTDIR=str(root))
    assert [path.name for path in root.iterdir()] == [PREFIX.split("/")[0]]
    return root / PREFIX


@pytest.fixture
def hardened(build: Build) -> None:
    cache = (build.directory / "CMakeCache.txt").read_text()
    kind = re.search(r"^CMAKE_BUILD_TYPE:\w+=(.*)$", cache, re.MULTILINE)
    if not kind or kind.group(1) != "Release":
        pytest.skip("only the release build ships, and only it is hardened")


def test_every_file_has_its_place_and_mode_and_there_is_no_other(installed: Path) -> None:
    found = {
        str(path.relative_to(installed)): stat.S_IMODE(path.stat().st_mode)
        for path in installed.rglob("*")
        if path.is_file()
    }
    assert found == INSTALLED


@pytest.mark.parametrize("program", PROGRAMS)
def test_is_stripped(program: str, installed: Path) -> None:
    sections = run("readelf", "--wide", "--sections", installed / program)
    assert ".dynsym" in sections
    assert ".symtab" not in sections and ".debug_info" not in sections


@pytest.mark.parametrize("program", PROGRAMS)
def test_carries_no_path_of_the_build(program: str, installed: Path, hardened: None) -> None:
    dynamic = run("readelf", "--dynamic", installed / program)
    assert "RPATH" not in dynamic and "RUNPATH" not in dynamic
    repository = str(Path(__file__).resolve().parents[2])
    assert repository.encode() not in (installed / program).read_bytes()


def test_the_installed_daemon_runs(installed: Path, build: Build) -> None:
    assert run(installed / "sbin" / "velmd", "-v") == f"velmd {VERSION}\n"


def test_the_loader_searches_first_where_most_symbols_are(installed: Path, hardened: None) -> None:
    dynamic = run("readelf", "--dynamic", installed / "sbin" / "velmd")
    libraries = re.findall(r"\(NEEDED\).*\[(.+)\]", dynamic)
    assert libraries[0].startswith("libcrypto.so"), libraries


def test_the_installed_headers_are_enough_for_a_c_program(installed: Path, tmp_path: Path) -> None:
    source = tmp_path / "client.c"
    headers = [name for name in INSTALLED if name.endswith(".h")]
    lines = [f"#include <{name.removeprefix('include/')}>\n" for name in headers]
    source.write_text("".join(lines) + "int main(void) { return 0; }\n")
    run("cc", "-std=c11", "-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only",
        f"-I{installed / 'include'}", source)  # fmt: skip


@pytest.mark.parametrize("program", PROGRAMS)
def test_may_be_loaded_anywhere(program: str, installed: Path, hardened: None) -> None:
    assert re.search(r"Type: +DYN ", run("readelf", "--file-header", installed / program))
    assert re.search(r"FLAGS_1.*\bPIE\b", run("readelf", "--dynamic", installed / program))


@pytest.mark.parametrize("program", PROGRAMS)
def test_binds_its_symbols_at_start_and_write_protects_them(
    program: str, installed: Path, hardened: None
) -> None:
    assert "GNU_RELRO" in run("readelf", "--wide", "--segments", installed / program)
    assert re.search(r"FLAGS_1.*\bNOW\b", run("readelf", "--dynamic", installed / program))


@pytest.mark.parametrize("program", PROGRAMS)
def test_has_no_executable_stack_and_nothing_writable_and_executable(
    program: str, installed: Path, hardened: None
) -> None:
    segments = run("readelf", "--wide", "--segments", installed / program)
    assert re.search(r"GNU_STACK +(0x\w+ +){5}RW +0x", segments), segments
    assert not re.search(r"LOAD +(0x\w+ +){5}RWE", segments), segments


@pytest.mark.parametrize("program", PROGRAMS)
def test_guards_its_stack(program: str, installed: Path, hardened: None) -> None:
    assert "__stack_chk_fail" in run("nm", "--dynamic", installed / program)


def test_the_daemon_calls_checked_library_functions(installed: Path, hardened: None) -> None:
    symbols = run("nm", "--dynamic", "--undefined-only", installed / "sbin" / "velmd")
    assert re.search(r"\b__\w+_chk\b", symbols.replace("__stack_chk_fail", "")), symbols


def test_the_daemon_writes_and_reads_numbers_alike_wherever_it_runs(installed: Path) -> None:
    """JSON has a point in its numbers; a locale that was set could make it a comma."""
    symbols = run("nm", "--dynamic", "--undefined-only", installed / "sbin" / "velmd")
    assert "printf" in symbols
    assert not re.search(r"locale", symbols), symbols
