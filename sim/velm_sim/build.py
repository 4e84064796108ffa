"""A build of the daemon: where its programs are and what they need to run."""

from __future__ import annotations

import os
import sys
import sysconfig
from pathlib import Path
from typing import Any

PROGRAMS = ("velmd", "nvram", "velmctl")


ELF_CLASS, ELF_DATA, ELF_MACHINE = 4, 5, slice(18, 20)
BIG_ENDIAN = 2
CLASS_64 = 2


class BuildError(RuntimeError):
    """The build is not there or lacks something."""


class Build:
    """A CMake build directory, such as build/release.

    An instrumented build is a subclass: it says what its programs need and judges what they did.
    """

    is_asan = False

    def __init__(self, directory: Path | str) -> None:
        self.directory = Path(directory).resolve()
        missing = [name for name in PROGRAMS if not self.program(name).is_file()]
        if missing:
            raise BuildError(f"{self.directory} lacks {', '.join(missing)}: build it first")

    def program(self, name: str) -> Path:
        return self.directory / "bin" / name

    def preload(self) -> tuple[Path, ...]:
        """Libraries that each daemon gets."""
        return ()

    def environment(self, directory: Path) -> dict[str, str]:
        """What each program needs; `directory` takes what it reports."""
        return {}

    def memory_limit_kib(self, limit: int) -> int:
        """How much memory may grow where an uninstrumented daemon may grow by `limit`."""
        return limit

    def time_limit(self, seconds: float) -> float:
        """How long what takes an uninstrumented daemon `seconds` of computing may take."""
        return seconds

    def before_end(self, daemon: Any) -> None:
        """The running daemon is about to be ended."""

    def judge(self, directory: Path) -> None:
        """Raises what programs have reported in `directory` and was not raised before."""


def _elf_header(program: Path) -> bytes:
    """Empty when it is no program, but a script."""
    with open(program, "rb") as file:
        head = file.read(20)
    return head if head[:4] == b"\x7fELF" else b""


def byte_order(program: Path) -> str:
    """Of the machine that a program was built for, as `struct` writes it."""
    head = _elf_header(program)
    if not head:
        return "="
    return ">" if head[ELF_DATA] == BIG_ENDIAN else "<"


def has_wide_words(program: Path) -> bool:
    """True when it was built for a machine of 64 bits."""
    return _elf_header(program)[ELF_CLASS : ELF_CLASS + 1] == bytes([CLASS_64])


def is_foreign(program: Path) -> bool:
    """True when it was built for another machine than this one."""
    head, own = _elf_header(program), _elf_header(Path(sys.executable))
    return bool(head) and [head[at] for at in (ELF_CLASS, ELF_DATA, ELF_MACHINE)] != [
        own[at] for at in (ELF_CLASS, ELF_DATA, ELF_MACHINE)
    ]


def faketime_library() -> Path:
    """The library that moves the clock of the program that preloads it."""
    triplet = sysconfig.get_config_var("MULTIARCH") or "*"
    root = Path("/")
    if "QEMU_LD_PREFIX" in os.environ:  # an emulated program takes the one of its own machine
        root, triplet = Path(os.environ["QEMU_LD_PREFIX"]), "*"
    found = sorted(root.glob(f"usr/lib/{triplet}/faketime/libfaketime.so.1"))
    if not found:
        raise BuildError("libfaketime is not installed")
    return found[0]
