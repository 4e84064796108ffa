"""What the daemon logs in a storm, read step by step, and what stops a storm."""

from __future__ import annotations

import contextlib
import re
import time
from collections.abc import Callable
from pathlib import Path

from .daemon import wait_until

LARGEST_LOG = 16 << 20
TAIL = 400
ERROR = re.compile(r"\bERROR\b|\bFATAL\b")


class StormFailure(AssertionError):
    """Something is not as the model says."""


def require(condition: object, expectation: str) -> None:
    if not condition:
        raise StormFailure(expectation)


class LogReader:
    """The daemon's log, read once; what was read is dropped from the disk in between."""

    def __init__(self, path: Path, alive: Callable[[], bool] = lambda: True) -> None:
        self._alive = alive
        self._path, self._offset, self._rest = path, 0, b""
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
        with contextlib.suppress(FileNotFoundError), open(self._path, "rb") as file:
            file.seek(self._offset)
            fresh = file.read()
            self._offset += len(fresh)
            *lines, self._rest = (self._rest + fresh).split(b"\n")
            decoded = [line.decode(errors="replace") for line in lines]
            self.step += decoded
            self.unchecked += decoded
        if self._offset > LARGEST_LOG:
            self._rotate()
        return self.step

    def _rotate(self) -> None:
        # The daemon opens the file for each line, so the old one is whole once it has a new name.
        old = self._path.with_suffix(".old")
        self._path.rename(old)
        time.sleep(0.05)
        with open(old, "rb") as file:
            file.seek(self._offset)
            self._rest += file.read()
        old.unlink()
        self._offset = 0

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
