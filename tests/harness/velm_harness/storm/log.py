"""What the daemon logs in a storm, read step by step, and what stops a storm."""

from __future__ import annotations

import contextlib
import os
import re
from collections.abc import Callable
from pathlib import Path
from typing import BinaryIO

from velm_sim.daemon import wait_until

TAIL = 400
ERROR = re.compile(r"\bERROR\b|\bFATAL\b")


class StormFailure(AssertionError):
    """Something is not as the model says."""


def require(condition: object, expectation: str) -> None:
    if not condition:
        raise StormFailure(expectation)


class LogReader:
    """The daemon's log, read once, also where the daemon begins it anew."""

    def __init__(self, path: Path, alive: Callable[[], bool] = lambda: True) -> None:
        self._alive = alive
        self._path, self._rest = path, b""
        self._file: BinaryIO | None = None
        self.step: list[str] = []
        self.tail: list[str] = []
        self.unchecked: list[str] = []
        self._mark = 0

    def begin_step(self) -> None:
        self.read()
        self.tail = (self.tail + self.step)[-TAIL:]
        self.step = []
        self._mark = 0

    def mark(self) -> None:
        """What is waited for comes from now on."""
        self._mark = len(self.read())

    def read(self) -> list[str]:
        """What the step has logged so far."""
        self._take()
        # A full log has got another name and is whole; what comes now is in a new one.
        with contextlib.suppress(FileNotFoundError):
            newest = self._path.stat().st_ino
            if self._file is None or newest != os.fstat(self._file.fileno()).st_ino:
                self._take()
                self.close()
                self._file = open(self._path, "rb")
                self._take()
        return self.step

    def close(self) -> None:
        if self._file is not None:
            self._file.close()
            self._file = None

    def _take(self) -> None:
        fresh = self._file.read() if self._file is not None else b""
        *lines, self._rest = (self._rest + fresh).split(b"\n")
        decoded = [line.decode(errors="replace") for line in lines]
        self.step += decoded
        self.unchecked += decoded

    def wait(self, text: str, count: int = 1, timeout: float = 10.0) -> None:
        """Returns when that often was logged, since the mark, what the pattern finds."""
        pattern = re.compile(text)

        def found() -> bool:
            require(self._alive(), "the daemon is alive")
            return sum(1 for line in self.read()[self._mark :] if pattern.search(line)) >= count

        try:
            wait_until(found, timeout, text)
        except TimeoutError:
            raise StormFailure(f"{count} log lines {text!r} within {timeout} s") from None
