"""A control socket without a daemon: it answers what a test says, also what no daemon would."""

from __future__ import annotations

import contextlib
import copy
import json
import socket
import threading
from collections.abc import Callable
from pathlib import Path
from typing import Any

Document = dict[str, Any]

NOW = "2026-11-22T12:05:00.000Z"


def moment(clock: str) -> str:
    """A moment of the day of NOW: "12:03:01"."""
    return f"2026-11-22T{clock}.000Z"


def push(**changes: Any) -> Document:
    made = {
        "slot": 0,
        "name": "Anna's iPhone",
        "model": "iPhone15,2",
        "at": moment("12:03:01"),
        "milliseconds": 182,
        "status": 200,
        "error": None,
    }
    return {**made, **changes}


def visit(**changes: Any) -> Document:
    made = {
        "at": moment("12:03:05"),
        "until": moment("12:03:05"),
        "times": 1,
        "address": "192.168.1.50",
        "deviceId": "anna",
        "route": "/location",
        "status": 200,
        "accepted": True,
        "check": None,
        "why": None,
        "hint": None,
    }
    return {**made, **changes}


def report(**changes: Any) -> Document:
    made = {
        "at": moment("12:03:06"),
        "deviceId": "anna",
        "address": "192.168.1.50",
        "clients": 2,
    }
    return {**made, **changes}


def round_of(**changes: Any) -> Document:
    made = {
        "id": 12,
        "state": "answered",
        "asked": {
            "at": moment("12:03:00"),
            "pid": 123,
            "uid": 0,
            "requestId": 1,
            "timeoutSeconds": 60,
        },
        "closed": moment("12:03:06"),
        "cause": None,
        "causeText": None,
        "pushRun": {"begun": True, "why": None, "whyText": None},
        "pushes": [push()],
        "visits": [visit()],
        "reports": [report()],
        "forgotten": {"pushes": 0, "visits": 0, "reports": 0},
    }
    return {**made, **changes}


def rounds(*of: Document, visits: list[Document] | None = None, latest: int = 57) -> Document:
    """The document /v1/rounds, the newest round first."""
    return {
        "version": 1,
        "now": NOW,
        "latest": latest,
        "rounds": list(of),
        "visits": visits or [],
    }


STATUS: Document = {
    "version": 1,
    "now": NOW,
    "daemon": {
        "version": "7.14.3",
        "pid": 4711,
        "uptimeSeconds": 7500,
        "started": moment("10:00:00"),
        "reloads": 2,
        "configurationFile": "/etc/afc/velmd/velmd.conf",
    },
    "settings": [
        {"key": "http.server.port", "value": "8443", "source": "file"},
        {"key": "ssdp.server.port", "value": "1900", "source": "default"},
    ],
    "lan": {
        "interface": "br0",
        "address": "192.168.1.1",
        "since": moment("10:00:00"),
        "moves": 0,
    },
    "https": {
        "port": 8443,
        "listening": True,
        "connections": {"now": 1, "most": 3, "limit": 64},
    },
    "discovery": {"port": 1900, "listening": True, "searches": 10, "answered": 4},
    "localClients": {
        "socket": "/var/afc/zelka_daemon",
        "listening": True,
        "connections": {"now": 1, "most": 2, "limit": 20},
        "openRequests": 0,
    },
    "certificate": {
        "subject": "CN=velmd",
        "sha256": "AB:CD",
        "notBefore": "2026-01-01T00:00:00.000Z",
        "notAfter": "2027-01-01T00:00:00.000Z",
    },
    "files": [
        {
            "key": "http.server.cert.path",
            "path": "/etc/cert.pem",
            "read": moment("10:00:00"),
            "usable": True,
            "why": None,
        }
    ],
    "clock": {"plausible": True, "why": None},
    "pairings": [
        {
            "slot": 0,
            "deviceId": "anna",
            "name": "Anna's iPhone",
            "model": "iPhone15,2",
            "deviceType": "iOS",
            "lastPush": moment("12:03:01"),
            "lastPushStatus": 200,
            "lastVisit": moment("12:03:05"),
            "lastVisitAccepted": True,
        }
    ],
    "pairingsLimit": 10,
    "lastReport": {
        "at": moment("12:03:06"),
        "deviceId": "anna",
        "address": "192.168.1.50",
        "accuracyMeters": 12.5,
    },
}


def status(**changes: Any) -> Document:
    return {**copy.deepcopy(STATUS), **changes}


def response(body: bytes, code: int = 200, kind: str = "application/json") -> bytes:
    head = f"HTTP/1.1 {code} X\r\nContent-Type: {kind}\r\nContent-Length: {len(body)}\r\n"
    return f"{head}Connection: close\r\n\r\n".encode() + body


class FakeControl:
    """Answers each path with the next of its documents; the last one stays.

    A document is JSON, or bytes that are sent as they are. `serve` replaces all of that: it gets the
    connection after the request was read. A question with "wait" is held up until there is another
    document, or the fake ends.
    """

    def __init__(self, path: Path) -> None:
        self.path = path
        self.serve: Callable[[socket.socket], None] | None = None
        self.requests: list[str] = []
        self._answers: dict[str, list[bytes]] = {}
        self._changed = threading.Condition()
        self._ended = False
        self._threads: list[threading.Thread] = []
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(str(path))
        self._listener.listen(8)
        self._accepter = threading.Thread(target=self._accept, daemon=True)
        self._accepter.start()

    def __enter__(self) -> FakeControl:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        with self._changed:
            self._ended = True
            self._changed.notify_all()
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self.path.unlink(missing_ok=True)
        for thread in (self._accepter, *self._threads):
            thread.join(5)

    def answer(self, target: str, *documents: Document | bytes, code: int = 200) -> None:
        made = [
            document if isinstance(document, bytes) else response(json.dumps(document).encode(), code)
            for document in documents
        ]
        with self._changed:
            self._answers.setdefault(target, []).extend(made)
            self._changed.notify_all()

    def replace(self, target: str, document: Document) -> None:
        """Forgets what was there before."""
        with self._changed:
            self._answers[target] = []
        self.answer(target, document)

    def wait_for(self, part: str, timeout: float = 10.0) -> None:
        """Returns once a request has that part in its target."""
        with self._changed:
            came = self._changed.wait_for(
                lambda: any(part in request for request in self.requests), timeout
            )
        assert came, f"no request with {part}: {self.requests}"

    def _accept(self) -> None:
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            thread = threading.Thread(target=self._handle, args=(connection,), daemon=True)
            self._threads.append(thread)
            thread.start()

    def _handle(self, connection: socket.socket) -> None:
        with connection, contextlib.suppress(OSError):
            head = b""
            while b"\r\n\r\n" not in head:
                piece = connection.recv(4096)
                if not piece:
                    return
                head += piece
            target = head.split()[1].decode()
            with self._changed:
                self.requests.append(target)
                self._changed.notify_all()
            if self.serve is not None:
                self.serve(connection)
                return
            answer = self._next(target)
            if answer is not None:
                connection.sendall(answer)

    def _next(self, target: str) -> bytes | None:
        path = target.partition("?")[0]
        with self._changed:
            if "wait=" in target:
                self._changed.wait_for(lambda: self._ended or self._has_more(path), 60)
                if self._ended:
                    return None
                self._answers[path].pop(0)
            answers = self._answers.get(path)
            return answers[0] if answers else response(b"", 404)

    def _has_more(self, path: str) -> bool:
        return len(self._answers.get(path, [])) > 1
