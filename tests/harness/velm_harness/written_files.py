"""What is written into a folder, as the kernel tells it."""

from __future__ import annotations

import ctypes
import os
import struct
from dataclasses import dataclass
from pathlib import Path

MODIFY, ATTRIB, MOVED_FROM, MOVED_TO, CREATE, DELETE = 0x2, 0x4, 0x40, 0x80, 0x100, 0x200
NAMES = {
    MODIFY: "modified",
    ATTRIB: "attributes",
    MOVED_FROM: "moved away",
    MOVED_TO: "moved here",
    CREATE: "created",
    DELETE: "deleted",
}
OVERFLOW = 0x4000
HEADER = struct.Struct("@iIII")
MOST = 1 << 16


@dataclass(frozen=True)
class Change:
    what: str
    file: str


class WrittenFiles:
    """Remembers from its making on every change in the folder. Equal changes that follow each other
    at once may be told as one. As a context manager it ends by itself."""

    def __init__(self, folder: Path) -> None:
        libc = ctypes.CDLL(None, use_errno=True)
        self._queue = libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        if self._queue < 0 or libc.inotify_add_watch(self._queue, bytes(folder), sum(NAMES)) < 0:
            raise OSError(ctypes.get_errno(), f"cannot watch {folder}")

    def __enter__(self) -> WrittenFiles:
        return self

    def __exit__(self, *_: object) -> None:
        os.close(self._queue)

    def take(self) -> list[Change]:
        """The changes since the last call."""
        found = []
        while data := self._read():
            while data:
                _, mask, _, length = HEADER.unpack_from(data)
                if mask & OVERFLOW:
                    raise RuntimeError("the kernel has dropped changes")
                name = data[HEADER.size : HEADER.size + length].rstrip(b"\0").decode()
                what = NAMES.get(mask & sum(NAMES), f"{mask:#x}")
                found.append(Change(what, name))
                data = data[HEADER.size + length :]
        return found

    def _read(self) -> bytes:
        try:
            return os.read(self._queue, MOST)
        except BlockingIOError:
            return b""
