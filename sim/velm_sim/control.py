"""A client of the control socket, as curl --unix-socket is one."""

from __future__ import annotations

import http.client
import json
import select
import socket
import time
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Any


@dataclass(frozen=True)
class ControlAnswer:
    status: int
    headers: dict[str, str]
    body: bytes

    @property
    def text(self) -> str:
        return self.body.decode()

    def json(self) -> Any:
        return json.loads(self.body)


class _UnixConnection(http.client.HTTPConnection):
    """HTTP on a Unix socket."""

    def __init__(self, path: Path, timeout: float) -> None:
        super().__init__("localhost", timeout=timeout)
        self._path = path

    def connect(self) -> None:
        self.sock = connect(self._path, self.timeout)


def connect(path: Path, timeout: float | None = 10.0) -> socket.socket:
    """A connection on which nothing was sent."""
    made = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    made.settimeout(timeout)
    try:
        made.connect(str(path))
    except OSError:
        made.close()
        raise
    return made


class Control:
    """Each request has a connection of its own, as the daemon wants it."""

    def __init__(self, path: Path, timeout: float = 10.0) -> None:
        self.path, self.timeout = path, timeout

    @contextmanager
    def full_house(self, sent: bytes, places: int = 4) -> Iterator[list[socket.socket]]:
        """Every place is taken by a client that sent this and gets no answer yet. Who was here before
        may still be leaving: a client that is turned away for that makes all begin anew."""
        deadline = time.monotonic() + 5
        while True:
            with ExitStack() as open_ones:
                held = [open_ones.enter_context(self.connect()) for _ in range(places)]
                for one in held:
                    one.sendall(sent)
                if not select.select(held, [], [], 0.1)[0]:
                    yield held
                    return
            if time.monotonic() > deadline:
                raise TimeoutError("no full house: a place stays taken")

    def listens(self) -> bool:
        try:
            self.connect().close()
        except (FileNotFoundError, ConnectionRefusedError):
            return False
        return True

    def request(self, method: str, target: str, timeout: float | None = None) -> ControlAnswer:
        connection = _UnixConnection(self.path, timeout or self.timeout)
        try:
            connection.request(method, target)
            answer = connection.getresponse()
            headers = {name.lower(): value for name, value in answer.getheaders()}
            return ControlAnswer(answer.status, headers, answer.read())
        finally:
            connection.close()

    def get(self, target: str, timeout: float | None = None) -> ControlAnswer:
        return self.request("GET", target, timeout)

    def json(self, target: str, timeout: float | None = None) -> Any:
        """The document, for a request that must succeed."""
        answer = self.get(target, timeout)
        if answer.status != 200 or answer.headers.get("content-type") != "application/json":
            raise ValueError(f"{target}: {answer.status} {answer.headers} {answer.body!r}")
        return answer.json()

    def connect(self, timeout: float | None = None) -> socket.socket:
        return connect(self.path, timeout or self.timeout)

    def exchange(self, sent: bytes) -> bytes:
        """All that is answered to these bytes."""
        with self.connect() as made:
            made.sendall(sent)
            return read_all(made)


def read_all(connection: socket.socket) -> bytes:
    """Until the other side has said all."""
    pieces = []
    while piece := connection.recv(65536):
        pieces.append(piece)
    return b"".join(pieces)
