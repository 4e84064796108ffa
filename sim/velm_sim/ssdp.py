"""How a host on the LAN finds the access point: searches by SSDP, and what comes back."""

from __future__ import annotations

import socket
import time
from dataclasses import dataclass
from urllib.parse import urlsplit

from .namespaces import Namespace

GROUP = "239.255.255.250"
PORT = 1900
DEVICE_TYPE = "urn:schemas-upnp-org:device:velmd:1"
LARGEST_DATAGRAM = 65507


@dataclass(frozen=True)
class Answer:
    """An answer to a search, byte for byte, and who sent it. Header names are in upper case."""

    raw: bytes
    address: str
    port: int

    @property
    def status_line(self) -> str:
        return self.raw.split(b"\r\n", 1)[0].decode()

    @property
    def headers(self) -> dict[str, str]:
        lines = self.raw.decode().split("\r\n")[1:]
        pairs = (line.partition(":") for line in lines if line)
        return {name.strip().upper(): value.strip() for name, _, value in pairs}

    @property
    def location(self) -> str:
        return self.headers["LOCATION"]

    @property
    def host(self) -> str:
        """The host that the location names."""
        return urlsplit(self.location).hostname or ""

    @property
    def https_port(self) -> int:
        """The port that the location names."""
        return urlsplit(self.location).port or 443

    @property
    def path(self) -> str:
        return urlsplit(self.location).path


def search_message(target: str = DEVICE_TYPE, mx: int = 1) -> bytes:
    return (
        "M-SEARCH * HTTP/1.1\r\n"
        f"HOST: {GROUP}:{PORT}\r\n"
        'MAN: "ssdp:discover"\r\n'
        f"MX: {mx}\r\n"
        f"ST: {target}\r\n"
        "\r\n"
    ).encode()


class Searcher:
    """A socket of a host, whose multicast leaves by the interface that has the address `source`."""

    def __init__(self, namespace: Namespace, source: str) -> None:
        self.socket = namespace.socket(kind=socket.SOCK_DGRAM)
        try:
            self.socket.setsockopt(
                socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(source)
            )
            self.socket.bind((source, 0))
        except BaseException:
            self.socket.close()
            raise

    def __enter__(self) -> Searcher:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        self.socket.close()

    def send(self, datagram: bytes, to: str = GROUP, port: int = PORT) -> None:
        self.socket.settimeout(None)
        self.socket.sendto(datagram, (to, port))

    def receive(self, timeout: float) -> Answer | None:
        """The next answer, or None when there is none in that time; 0 does not wait."""
        self.socket.settimeout(timeout)
        try:
            raw, (address, port) = self.socket.recvfrom(LARGEST_DATAGRAM)
        except (TimeoutError, BlockingIOError):
            return None
        return Answer(raw, address, port)

    def ask(
        self, datagram: bytes, to: str = GROUP, port: int = PORT, timeout: float = 5.0
    ) -> Answer:
        """The answer to a datagram; `TimeoutError` when it is not answered."""
        self.send(datagram, to, port)
        answer = self.receive(timeout)
        if answer is None:
            raise TimeoutError(f"after {timeout} s: no answer to {datagram[:200]!r}")
        return answer


def discover(
    namespace: Namespace,
    source: str,
    *,
    target: str = DEVICE_TYPE,
    wanted: int = 1,
    timeout: float = 3.0,
) -> list[Answer]:
    """Searches as a phone does, each second anew, until `wanted` devices have answered or the time
    is over. One answer a device."""
    found: dict[str, Answer] = {}
    end = time.monotonic() + timeout
    with Searcher(namespace, source) as searcher:
        while len(found) < wanted and (left := end - time.monotonic()) > 0:
            searcher.send(search_message(target))
            again = time.monotonic() + min(1.0, left)
            while len(found) < wanted and (pause := again - time.monotonic()) > 0:
                answer = searcher.receive(pause)
                if answer is not None:
                    found.setdefault(answer.headers.get("USN", answer.address), answer)
    return list(found.values())
