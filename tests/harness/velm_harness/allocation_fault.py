"""Failing allocations of velmd, chosen by number, and reading what became of it."""

from __future__ import annotations

import mmap
import signal
import struct
from collections import Counter
from dataclasses import dataclass
from pathlib import Path

from velm_sim.build import Build

from .preloads import library

CONTROL = struct.Struct("=6Q")
CONTROL_SIZE = CONTROL.size + 4000
SURVIVED = 1077  # allocation_fault.c: the copy went on without that memory


@dataclass(frozen=True)
class Outcome:
    """What became of a process whose allocation of that number failed."""

    number: int
    kind: int  # a signal, or 1000 and an exit status
    trace: tuple[str, ...]  # who asked, innermost first; kept unless it aborted

    @property
    def aborted(self) -> bool:
        return self.kind == signal.SIGABRT

    def place(self, depth: int = 3) -> str:
        """The innermost callers, for people."""
        return " < ".join(line.split("+")[0] for line in self.trace[:depth])


class AllocationFault:
    """The file through which a preloaded allocation_fault.c is told what to fail."""

    def __init__(self, file: Path) -> None:
        self.file = file
        self.results = file.with_name(f"{file.name}.results")
        self.stores = file.with_name(f"{file.name}.stores")
        file.write_bytes(bytes(CONTROL_SIZE))
        self.stores.mkdir()
        with open(file, "r+b") as opened:
            self._map = mmap.mmap(opened.fileno(), CONTROL_SIZE)

    @staticmethod
    def library(build: Build) -> Path:
        return library(build, "allocation_fault")

    @property
    def environment(self) -> dict[str, str]:
        return {"VELM_ALLOCATION_FAULT": str(self.file)}

    def _arm(self, first: int, every: int, sweep: bool) -> None:
        # Nothing is to fail while the rest changes: the number of the first comes last.
        struct.pack_into("=Q", self._map, 8, 0)
        struct.pack_into("=Q", self._map, 0, 0)
        struct.pack_into("=4Q", self._map, 16, every, int(sweep), 0, 0)
        struct.pack_into("=Q", self._map, 8, first)

    def count(self) -> None:
        """Counts from here on and fails none."""
        self._arm(0, 0, False)

    def fail_one(self, number: int) -> None:
        self._arm(number, 0, False)

    def fail_from(self, number: int) -> None:
        """Memory is exhausted and stays so."""
        self._arm(number, 1, False)

    def sweep(self, first: int = 1, every: int = 1) -> None:
        """Each of these fails in a copy of the process, and the process goes on."""
        self._arm(first, every, True)

    def _field(self, index: int) -> int:
        return int(CONTROL.unpack_from(self._map, 0)[index])

    @property
    def counted(self) -> int:
        return self._field(0)

    @property
    def failed(self) -> int:
        return self._field(4)

    @property
    def largest(self) -> int:
        """The most that was asked for at once, in bytes, whether it was had or not."""
        return self._field(5)

    @property
    def trace(self) -> tuple[str, ...]:
        """Who asked for the last that failed."""
        text = self._map[CONTROL.size :].split(b"\0", 1)[0]
        return tuple(text.decode(errors="replace").splitlines())

    def outcomes(self) -> list[Outcome]:
        """Those of all sweeps so far."""
        found: list[Outcome] = []
        if not self.results.exists():
            return found
        for line in self.results.read_text(errors="replace").splitlines():
            first, _, rest = line.partition(" ")
            if first.isdigit():
                found.append(Outcome(int(first), int(rest), ()))
            elif found:
                last = found.pop()
                found.append(Outcome(last.number, last.kind, (*last.trace, line)))
        return found


def places(outcomes: list[Outcome], depth: int = 3) -> Counter[str]:
    """How often each place, for people."""
    return Counter(outcome.place(depth) for outcome in outcomes)
