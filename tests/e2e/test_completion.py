"""What bash offers behind velmctl and velmd, and that it is what the programs take."""

from __future__ import annotations

import re
import subprocess
from pathlib import Path

import pytest
from velm_sim.build import Build

COMPLETIONS = Path(__file__).resolve().parents[2] / "packaging" / "bash-completion"

# What readline does: the words, the place of the cursor, the function that `complete` has named.
COMPLETE = """
program=$1
shift
source "$COMPLETIONS/$program" || exit
COMP_WORDS=("$program" "$@")
COMP_CWORD=$#
"_$program"
printf '%s\\n' "${COMPREPLY[@]}"
"""


def offered(program: str, *words: str, directory: Path | None = None) -> set[str]:
    """The words that can follow; the last one is completed."""
    done = subprocess.run(
        ["bash", "--norc", "-u", "-c", COMPLETE, "bash", program, *words],
        env={"COMPLETIONS": str(COMPLETIONS), "PATH": "/usr/bin:/bin"},
        cwd=directory,
        capture_output=True,
        text=True,
        timeout=10,
    )
    assert (done.returncode, done.stderr) == (0, "")
    return set(done.stdout.split("\n")) - {""}


def usage(build: Build, tmp_path: Path) -> dict[str, set[str]]:
    """The options of each command, as the program tells them."""
    done = subprocess.run(
        [str(build.program("velmctl")), "--help"],
        env=build.environment(tmp_path),
        capture_output=True,
        text=True,
        timeout=10,
    )
    lines = re.findall(r"velmctl ([a-z]+)(.*)", done.stdout)
    return {command: set(re.findall(r"\[(--?[a-z]+)", rest)) for command, rest in lines}


def test_every_command_is_offered(build: Build, tmp_path: Path) -> None:
    commands = usage(build, tmp_path)
    assert len(commands) == 8
    assert offered("velmctl", "") == set(commands) | {"--help"}


def test_every_option_of_a_command_is_offered_and_no_other(build: Build, tmp_path: Path) -> None:
    for command, options in usage(build, tmp_path).items():
        longer = {"--config"} if {"-c", "--control"} <= options else set()
        assert offered("velmctl", command, "") == options | longer, command


@pytest.mark.parametrize(
    "words, wanted",
    [
        (["st"], {"status"}),
        (["nothing"], set()),
        (["explain", "3", "--f"], {"--follow"}),
        (["--control", "/x", "doctor", "--o"], {"--offline"}),
        (["locate", "--timeout", ""], set()),
        (["unknown", ""], set()),
    ],
)
def test_the_words_before_decide(words: list[str], wanted: set[str]) -> None:
    assert offered("velmctl", *words) == wanted


@pytest.mark.parametrize("program, words", [("velmctl", ["status", "-c"]), ("velmd", ["-c"])])
def test_a_file_is_completed(program: str, words: list[str], tmp_path: Path) -> None:
    for name in ("velmd.conf", "velmd two.conf", "other"):
        (tmp_path / name).touch()
    assert offered(program, *words, "vel", directory=tmp_path) == {"velmd.conf", "velmd two.conf"}


def test_every_option_of_the_daemon_is_offered() -> None:
    page = (COMPLETIONS.parents[1] / "docs" / "man" / "velmd.8").read_text()
    told = {f"-{letter}" for letter in re.findall(r"^\.It Fl ([a-z])\b", page, re.MULTILINE)}
    assert len(told) == 9 and offered("velmd", "-") == told
    assert "lo" in offered("velmd", "-n", "")
