"""Instructions in user space, counted by callgrind. They are the same however busy the machine is."""

from __future__ import annotations

import contextlib
import re
import shutil
import subprocess
from collections import Counter
from collections.abc import Iterator
from pathlib import Path

# Of what runs at a fiftieth of its pace.
PATIENCE_S = 120.0


def can_count() -> bool:
    return all(shutil.which(name) for name in ("valgrind", "callgrind_control"))


def counting(into: Path) -> list[str]:
    """The words before a command that shall be counted."""
    return ["valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={into}"]


@contextlib.contextmanager
def counted(pid: int, into: Path, found: Counter[str]) -> Iterator[None]:
    """What the process, begun with `counting(into)`, does meanwhile is added to `found` by library."""
    _tell("--zero", pid)
    yield
    for earlier in into.parent.glob(into.name + ".*"):
        earlier.unlink()
    _tell("--dump", pid)
    (dump,) = into.parent.glob(into.name + ".*")
    found.update(by_library(dump.read_text()))


def _tell(what: str, pid: int) -> None:
    subprocess.run(
        ["callgrind_control", what, str(pid)], check=True, timeout=PATIENCE_S,
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
    )  # fmt: skip


_NAMED = re.compile(r"\((\d+)\)(?: (.*))?")


def by_library(profile: str) -> Counter[str]:
    """Of a profile as callgrind writes it. The cost of a call stands in a line behind "calls=", and
    is the called function's own matter."""
    found: Counter[str] = Counter()
    names: dict[str, str] = {}
    library, is_call = "", False
    for line in profile.splitlines():
        kind, equals, rest = line.partition("=")
        if equals and kind in ("ob", "cob"):
            name = _library(rest, names)
            library = name if kind == "ob" else library
        elif equals and kind == "calls":
            is_call = True
        elif line[:1].isdigit() or line[:1] in ("+", "-", "*"):
            if not is_call:
                found[library] += int((line.split() + ["0"])[1])
            is_call = False
    return found


def _library(text: str, names: dict[str, str]) -> str:
    """"(7) /usr/lib/libc.so.6" the first time, then "(7)"."""
    match = _NAMED.fullmatch(text)
    if not match:
        return text.rpartition("/")[2]
    if match.group(2):
        names[match.group(1)] = match.group(2).rpartition("/")[2]
    return names.get(match.group(1), "")
