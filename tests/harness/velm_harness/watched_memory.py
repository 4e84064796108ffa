"""The most memory that the daemon had while a block ran."""

from __future__ import annotations

import threading
from collections.abc import Callable


class Watched:
    """`resident_kib` is asked 500 times per second."""

    def __init__(self, resident_kib: Callable[[], int]) -> None:
        self._resident_kib = resident_kib
        self.before = self.most = resident_kib()
        self._over = threading.Event()
        self._thread = threading.Thread(target=self._watch)

    def _watch(self) -> None:
        while not self._over.wait(0.002):
            self.most = max(self.most, self._resident_kib())

    def __enter__(self) -> Watched:
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._over.set()
        self._thread.join()

    @property
    def growth(self) -> int:
        return self.most - self.before
