"""HTTPS from a host on the access point's LAN, down to half requests and silent handshakes."""

from __future__ import annotations

import http.client
import json
import socket
import ssl
from dataclasses import dataclass, field
from typing import Any

from .namespaces import Namespace
from .tls_policy import DEFAULT, TlsPolicy


@dataclass(frozen=True)
class Reply:
    """An answer of the daemon. Header names are in lower case."""

    status: int
    headers: dict[str, str]
    body: bytes

    def json(self) -> Any:
        return json.loads(self.body)


@dataclass
class LanHost:
    """A host of the LAN that trusts exactly one server certificate.

    `source` is the address that the host uses. `tls` fixes the TLS version, whatever `policy` says.
    """

    namespace: Namespace
    server: str
    port: int
    certificate_pem: str
    source: str | None = None
    timeout: float = 10.0
    tls: ssl.TLSVersion | None = None
    policy: TlsPolicy = DEFAULT
    _contexts: dict[ssl.TLSVersion | None, ssl.SSLContext] = field(default_factory=dict, repr=False)

    def context(self, version: ssl.TLSVersion | None = None) -> ssl.SSLContext:
        wanted = version or self.tls
        if wanted not in self._contexts:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
            context.load_verify_locations(cadata=self.certificate_pem)
            if wanted is None:
                self.policy.apply(context)
            else:
                # What this side would allow by itself must not hide what the server refuses.
                context.set_ciphers("ALL:@SECLEVEL=0")
                context.minimum_version = wanted
                context.maximum_version = wanted
            self._contexts[wanted] = context
        return self._contexts[wanted]

    def trust(self, certificate_pem: str) -> None:
        """From now on the host trusts that certificate, and no longer the one before."""
        self.certificate_pem = certificate_pem
        self._contexts.clear()

    def connect_tcp(self, source: str | None = None) -> socket.socket:
        """A connection on which nothing was said yet: the caller may drip, halve or stay silent."""
        raw = self.namespace.socket()
        try:
            raw.settimeout(self.timeout)
            address = source or self.source
            if address:
                raw.bind((address, 0))
            raw.connect((self.server, self.port))
            raw.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        except BaseException:
            raw.close()
            raise
        return raw

    def connect_tls(
        self, version: ssl.TLSVersion | None = None, source: str | None = None
    ) -> ssl.SSLSocket:
        raw = self.connect_tcp(source)
        try:
            return self.context(version).wrap_socket(raw, server_hostname=self.server)
        except BaseException:
            raw.close()
            raise

    def session(self) -> Session:
        """A kept-alive connection, opened by its first request."""
        return Session(self)

    def request(
        self,
        path: str,
        body: bytes | None = None,
        headers: dict[str, str] | None = None,
        method: str | None = None,
    ) -> Reply:
        """One request on a connection of its own."""
        with self.session() as session:
            return session.request(path, body, {"Connection": "close", **(headers or {})}, method)

    def exchange(self, data: bytes, *, half_close: bool = False) -> bytes:
        """Sends raw bytes over TLS and returns all that comes until the daemon closes."""
        with self.connect_tls() as tls:
            tls.sendall(data)
            if half_close:
                socket.socket.shutdown(tls, socket.SHUT_WR)
            return read_until_closed(tls)


class _Connection(http.client.HTTPConnection):
    def __init__(self, host: LanHost) -> None:
        super().__init__(host.server, host.port)
        self._lan_host = host

    def connect(self) -> None:
        self.sock = self._lan_host.connect_tls()


class Session:
    """Requests one after another on a kept-alive connection; a closed one is opened again."""

    def __init__(self, host: LanHost) -> None:
        self._connection = _Connection(host)

    def __enter__(self) -> Session:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        self._connection.close()

    def connect(self) -> None:
        self._connection.connect()

    @property
    def is_open(self) -> bool:
        """False after an answer that ended the connection."""
        return self._connection.sock is not None

    def send(
        self,
        path: str,
        body: bytes | None = None,
        headers: dict[str, str] | None = None,
        method: str | None = None,
    ) -> None:
        self._connection.request(
            method or ("GET" if body is None else "POST"), path, body, headers or {}
        )

    def receive(self) -> Reply:
        answer = self._connection.getresponse()
        headers = {name.lower(): value for name, value in answer.getheaders()}
        return Reply(answer.status, headers, answer.read())

    def request(
        self,
        path: str,
        body: bytes | None = None,
        headers: dict[str, str] | None = None,
        method: str | None = None,
    ) -> Reply:
        self.send(path, body, headers, method)
        return self.receive()


def read_until_closed(connection: socket.socket) -> bytes:
    """All bytes until the other side closes, in order or not; a time-out is an error."""
    received = bytearray()
    while True:
        try:
            chunk = connection.recv(65536)
        except TimeoutError:
            raise
        except OSError:
            return bytes(received)
        if not chunk:
            return bytes(received)
        received += chunk
