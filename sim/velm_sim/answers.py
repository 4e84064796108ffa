"""What a stand-in service answers: the right thing, the wrong thing, slowly, partly or nothing."""

from __future__ import annotations

import json
import threading
import time
from collections import deque
from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any

JSON_TYPE = "application/json; charset=UTF-8"


@dataclass(frozen=True)
class Answer:
    """One answer and the way in which it is given.

    `delay` seconds pass before the first byte. With `drip` each byte of the body follows that many
    seconds after the one before. `cut_after` bytes of the body the connection is closed, although
    more was announced. `silent` never answers. `raw` is sent as it stands, without head or body, and
    the connection then ends without TLS's farewell. `piece` is how many bytes of it a TLS record has.
    """

    status: int = 200
    body: bytes = b""
    headers: dict[str, str] = field(default_factory=lambda: {"Content-Type": JSON_TYPE})
    delay: float = 0.0
    drip: float = 0.0
    cut_after: int | None = None
    silent: bool = False
    raw: bytes | None = None
    piece: int | None = None

    @classmethod
    def json(cls, content: Any, status: int = 200, **manner: Any) -> Answer:
        return cls(status, json.dumps(content).encode(), **manner)

    @classmethod
    def over_large(cls, length: int, status: int = 200) -> Answer:
        """A JSON text of that length."""
        return cls(status, b'{"padding": "' + b"x" * (length - 15) + b'"}')

    def head(self) -> bytes:
        lines = [f"HTTP/1.1 {self.status} Status", f"Content-Length: {len(self.body)}"]
        lines += [f"{name}: {value}" for name, value in self.headers.items()]
        return ("\r\n".join([*lines, "Connection: close"]) + "\r\n\r\n").encode()


SILENCE = Answer(silent=True)
HANG_UP = Answer(raw=b"")
GARBAGE = Answer(raw=b"\x00\xff\x17 this is no HTTP\r\n\r\n")


@dataclass(frozen=True)
class Recorded:
    """A request as it arrived. Header names are in lower case."""

    time: float
    monotonic: float
    method: str
    host: str
    path: str
    headers: dict[str, str]
    body: bytes

    def json(self) -> Any:
        return json.loads(self.body)


class Endpoint:
    """Requests to one address: recorded, and answered by script or by `serve`."""

    def __init__(self, serve: Callable[[Recorded], Answer]) -> None:
        self._serve = serve
        self._scripted: deque[Answer] = deque()
        self._always: Answer | None = None
        self._changed = threading.Condition()
        self._requests: list[Recorded] = []

    @property
    def requests(self) -> list[Recorded]:
        with self._changed:
            return list(self._requests)

    def answer_next(self, *answers: Answer) -> None:
        """The next requests get these, one each; after them the rule from before holds again."""
        with self._changed:
            self._scripted.extend(answers)

    def answer_always(self, answer: Answer | None) -> None:
        """Every request gets this; None goes back to right answers."""
        with self._changed:
            self._always = answer

    def reset(self) -> None:
        """Right answers, nothing recorded."""
        with self._changed:
            self._scripted.clear()
            self._always = None
            self._requests.clear()

    def handle(self, request: Recorded) -> Answer:
        with self._changed:
            self._requests.append(request)
            self._changed.notify_all()
            if self._scripted:
                return self._scripted.popleft()
            if self._always:
                return self._always
        return self._serve(request)

    def wait(self, count: int = 1, timeout: float = 10.0) -> list[Recorded]:
        """All requests so far, once there are `count`; else `TimeoutError`."""
        deadline = time.monotonic() + timeout
        with self._changed:
            while len(self._requests) < count:
                left = deadline - time.monotonic()
                if left <= 0 or not self._changed.wait(left):
                    raise TimeoutError(f"{len(self._requests)} of {count} requests in {timeout} s")
            return list(self._requests)
