"""Does a source file become the same object in every folder, also with debug information?

Two files are compiled as the build compiles them, in two folders. ./scripts/reproducible.sh compares whole
programs.
"""

from __future__ import annotations

import json
import shlex
import shutil
import subprocess
from pathlib import Path

import pytest
from velm_sim.build import Build

REPOSITORY = Path(__file__).resolve().parents[2]


def compile_in(build: Build, source: str, folder: Path, build_folder: Path) -> bytes:
    """What the build would make of the file if it were in these folders."""
    for part in ("src", "include", "platform"):
        shutil.copytree(REPOSITORY / part, folder / part, dirs_exist_ok=True)
    build_folder.mkdir(parents=True, exist_ok=True)
    database = json.loads((build.directory / "compile_commands.json").read_text())
    entry = next(one for one in database if one["file"] == str(REPOSITORY / source))
    moved = (
        entry["command"]
        .replace(str(build.directory.resolve()), str(build_folder))
        .replace(str(REPOSITORY), str(folder))
    )
    words = shlex.split(moved)
    if words[0].endswith("ccache"):
        words.pop(0)
    words[words.index("-o") + 1] = "made.o"
    subprocess.run([*words, "-g"], cwd=build_folder, check=True, timeout=60)
    return (build_folder / "made.o").read_bytes()


@pytest.mark.parametrize("source", ["src/text/rfc3339.cpp", "src/bytes/reader.cpp"])
def test_two_folders_give_the_same_object(build: Build, tmp_path: Path, source: str) -> None:
    if build.is_asan:
        pytest.skip("only the release build ships; the other reads headers that were compiled before")
    inside = tmp_path / "one"
    first = compile_in(build, source, inside, inside / "build" / "x")
    second = compile_in(build, source, tmp_path / "another" / "folder", tmp_path / "elsewhere")
    assert str(tmp_path).encode() not in first + second
    assert first == second
