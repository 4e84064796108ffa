"""Readable steps on a terminal; plain text anywhere else."""

from __future__ import annotations

import os
import sys
import time


class Console:
    """Numbered steps with what happened indented below them."""

    def __init__(self, steps: int) -> None:
        self._steps, self._number = steps, 0
        self._colours = sys.stdout.isatty() and "NO_COLOR" not in os.environ
        self._start = time.monotonic()

    def _paint(self, code: str, text: str) -> str:
        return f"\033[{code}m{text}\033[0m" if self._colours else text

    def step(self, title: str) -> None:
        self._number += 1
        mark = self._paint("1;36", f"[{self._number}/{self._steps}]")
        print(f"\n{mark} {self._paint('1', title)}", flush=True)

    def say(self, text: str) -> None:
        for line in text.splitlines() or [""]:
            print(f"      {line}", flush=True)

    def command(self, text: str) -> None:
        print(f"      {self._paint('33', '$ ' + text)}", flush=True)

    def fact(self, name: str, value: object) -> None:
        print(f"      {self._paint('2', f'{name:<20}')} {value}", flush=True)

    def good(self, text: str) -> None:
        seconds = time.monotonic() - self._start
        print(f"\n{self._paint('1;32', 'OK')}    {text} ({seconds:.1f} s)", flush=True)

    def bad(self, text: str) -> None:
        print(f"\n{self._paint('1;31', 'FAILED')}  {text}", file=sys.stderr, flush=True)
