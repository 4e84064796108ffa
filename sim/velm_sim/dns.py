"""A DNS server for the three cloud names, which can also fall silent."""

from __future__ import annotations

import contextlib
import ipaddress
import socket
import struct
import threading
from collections.abc import Mapping

from .namespaces import Namespace

TYPES = {4: 1, 6: 28}  # A and AAAA, by the version of the address


class DnsServer:
    """Answers A and AAAA queries of `names` on UDP port 53, with all the addresses that stand for a
    name, blanks between them. `answers` False: it listens and says nothing."""

    def __init__(
        self, namespace: Namespace, address: str, names: Mapping[str, str], answers: bool = True
    ) -> None:
        self.names, self.answers = names, answers
        self.asked: list[str] = []
        family = socket.AF_INET6 if ":" in address else socket.AF_INET
        self._socket = namespace.socket(family, socket.SOCK_DGRAM)
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
        addresses = [ipaddress.ip_address(text) for text in self.names.get(name, "").split()]
        (kind,) = struct.unpack_from(">H", question, len(question) - 4)
        records = [
            b"\xc0\x0c" + struct.pack(">HHIH", kind, 1, 60, len(one.packed)) + one.packed
            for one in addresses
            if TYPES[one.version] == kind
        ]
        code = 0 if addresses else 3
        head = query[:2] + struct.pack(">HHHHH", 0x8580 | code, 1, len(records), 0, 0)
        return head + question + b"".join(records)
