"""A DNS server for the three cloud names, which can also fall silent."""

from __future__ import annotations

import contextlib
import ipaddress
import socket
import struct
import threading

from .namespaces import Namespace

TYPE_A = 1


class DnsServer:
    """Answers A queries of `names` on UDP port 53; `answers` False: it listens and says nothing."""

    def __init__(
        self, namespace: Namespace, address: str, names: dict[str, str], answers: bool = True
    ) -> None:
        self.names, self.answers = names, answers
        self.asked: list[str] = []
        self._socket = namespace.socket(kind=socket.SOCK_DGRAM)
        self._socket.bind((address, 53))
        threading.Thread(target=self._serve, daemon=True).start()

    def stop(self) -> None:
        with contextlib.suppress(OSError):
            self._socket.shutdown(socket.SHUT_RDWR)
        self._socket.close()

    def _serve(self) -> None:
        while True:
            try:
                query, client = self._socket.recvfrom(1500)
                if not query:
                    return
                reply = self._reply(query)
                if self.answers and reply:
                    self._socket.sendto(reply, client)
            except OSError:
                return

    def _reply(self, query: bytes) -> bytes | None:
        if len(query) < 17:
            return None
        labels, at = [], 12
        while at < len(query) and query[at]:
            labels.append(query[at + 1 : at + 1 + query[at]].decode("latin-1"))
            at += 1 + query[at]
        question = query[12 : at + 5]
        name = ".".join(labels).lower()
        self.asked.append(name)
        address = self.names.get(name)
        (kind,) = struct.unpack_from(">H", question, len(question) - 4)
        records = b""
        if address and kind == TYPE_A:
            packed = ipaddress.IPv4Address(address).packed
            records = b"\xc0\x0c" + struct.pack(">HHIH", TYPE_A, 1, 60, 4) + packed
        code = 0 if address else 3
        head = query[:2] + struct.pack(">HHHHH", 0x8580 | code, 1, 1 if records else 0, 0, 0)
        return head + question + records
