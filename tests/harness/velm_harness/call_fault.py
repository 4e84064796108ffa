"""Failing system calls of a program, chosen by name and number."""

from __future__ import annotations

import errno
import mmap
import struct
from pathlib import Path

from velm_sim.build import Build

from .preloads import library

CONTROL = struct.Struct("=5Q32s")


class CallFault:
    """The file through which a preloaded call_fault.c is told what to fail."""

    def __init__(self, file: Path, program: str = "velmd") -> None:
        self.file, self.program = file, program
        file.write_bytes(bytes(CONTROL.size))
        with open(file, "r+b") as opened:
            self._map = mmap.mmap(opened.fileno(), CONTROL.size)

    @staticmethod
    def library(build: Build) -> Path:
        return library(build, "call_fault")

    @property
    def environment(self) -> dict[str, str]:
        return {"VELM_CALL_FAULT": str(self.file), "VELM_CALL_FAULT_PROGRAM": self.program}

    def fail(
        self, call: str, number: int = 1, error: int = errno.EIO, *, lasts: bool = False
    ) -> None:
        """The call of that number from now on fails; with `lasts` all later ones too."""
        self.stop()
        CONTROL.pack_into(self._map, 0, 0, 0, int(lasts), error, 0, call.encode())
        struct.pack_into("=Q", self._map, 8, number)

    def count(self, call: str) -> None:
        """Counts that call and fails none."""
        self.fail(call, 1 << 60)

    def stop(self) -> None:
        struct.pack_into("=Q", self._map, 8, 0)

    @property
    def counted(self) -> int:
        return int(CONTROL.unpack_from(self._map, 0)[0])

    @property
    def failed(self) -> int:
        return int(CONTROL.unpack_from(self._map, 0)[4])
