"""Strangers on the LAN who send what no client sends, as fast as they can, in their own process.

`python -m velm_harness.stranger NAME[+NAME...] SERVER PORT SOURCE SECONDS` runs inside the hosts'
namespace. Names that are joined are done at once.
"""

from __future__ import annotations

import contextlib
import ctypes
import functools
import os
import socket
import ssl
import struct
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Iterator
from dataclasses import dataclass

from cryptography.hazmat.primitives import hashes, hmac
from cryptography.hazmat.primitives.ciphers.aead import AESGCM
from velm_sim.lan_http import LanHost
from velm_sim.limits import CONNECTIONS_PER_HOST
from velm_sim.tls_policy import libssl, native_context

CONNECTIONS_PER_SECOND = 40
RESETS_PER_SECOND = 2500
GREETING_BYTES_PER_SECOND = 10_000


@dataclass(frozen=True)
class Target:
    """Where a stranger strikes, from which address, and until when."""

    server: str
    port: int
    source: str
    end: float

    def is_over(self) -> bool:
        return time.monotonic() >= self.end

    def dial(self) -> socket.socket:
        raw = socket.create_connection((self.server, self.port), 5, (self.source, 0))
        raw.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return raw


class TlsClient:
    """A TLS client whose records the caller sends, when and in what pieces it likes."""

    def __init__(self, target: Target, version: ssl.TLSVersion = ssl.TLSVersion.TLSv1_3) -> None:
        self.incoming, self.outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        self.tls = _context(version).wrap_bio(self.incoming, self.outgoing)
        self.raw = target.dial()
        while True:
            try:
                self.tls.do_handshake()
                break
            except ssl.SSLWantReadError:
                self.raw.sendall(self.outgoing.read())
                if not (received := self.raw.recv(65536)):
                    raise ConnectionError("closed in the handshake") from None
                self.incoming.write(received)
        self.raw.sendall(self.outgoing.read())

    @property
    def native(self) -> ctypes.c_void_p:
        """OpenSSL's own object."""
        inner = self.tls._sslobj  # type: ignore[attr-defined]
        return ctypes.c_void_p(_SslObject.from_address(id(inner)).ssl)

    def records(self, pieces: list[bytes]) -> bytes:
        """Each piece as a record of its own."""
        for piece in pieces:
            self.tls.write(piece)
        return self.outgoing.read()

    def key_updates(self, count: int, asks: bool = False) -> bytes:
        """New keys of its own; `asks` for new ones of the server too, which are an answer."""
        for _ in range(count):
            libssl().SSL_key_update(self.native, int(asks))
            libssl().SSL_do_handshake(self.native)
        return self.outgoing.read()


class _SslObject(ctypes.Structure):
    """The start of what Python keeps of a connection, in every version since 3.6."""

    _fields_ = [
        ("ob_refcnt", ctypes.c_ssize_t),
        ("ob_type", ctypes.c_void_p),
        ("socket", ctypes.c_void_p),
        ("ssl", ctypes.c_void_p),
    ]


@functools.cache
def _context(version: ssl.TLSVersion, groups: str | None = None) -> ssl.SSLContext:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    context.minimum_version = context.maximum_version = version
    if groups is not None:
        libssl().SSL_CTX_ctrl(native_context(context), 92, 0, groups.encode())
    return context


def greeting(groups: str | None = None) -> bytes:
    """The first record of a client that knows these groups only."""
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    client = _context(ssl.TLSVersion.TLSv1_3, groups).wrap_bio(incoming, outgoing)
    with contextlib.suppress(ssl.SSLWantReadError):
        client.do_handshake()
    return outgoing.read()


# TLS 1.2 by hand: Python's client begins no second handshake on a connection.


def _prf(secret: bytes, seed: bytes, size: int) -> bytes:
    def mac(data: bytes) -> bytes:
        made = hmac.HMAC(secret, hashes.SHA256())
        made.update(data)
        return made.finalize()

    out, chained = b"", seed
    while len(out) < size:
        chained = mac(chained)
        out += mac(chained + seed)
    return out[:size]


def sealed_greetings(client: TlsClient, count: int) -> bytes:
    """Greetings of TLS 1.2 in records of an established connection with AES-128-GCM."""
    library, connection = libssl(), client.native
    client_random, server_random = (ctypes.create_string_buffer(32) for _ in range(2))
    library.SSL_get_client_random(connection, client_random, 32)
    library.SSL_get_server_random(connection, server_random, 32)
    library.SSL_get_session.restype = ctypes.c_void_p
    session = ctypes.c_void_p(library.SSL_get_session(connection))
    master = ctypes.create_string_buffer(48)
    library.SSL_SESSION_get_master_key(session, master, ctypes.c_size_t(48))
    block = _prf(master.raw, b"key expansion" + server_random.raw + client_random.raw, 40)
    key, salt = AESGCM(block[:16]), block[32:36]
    body = b"\x03\x03" + bytes(32) + b"\x00\x00\x02\xc0\x2b\x01\x00"
    message = b"\x01" + len(body).to_bytes(3, "big") + body
    made = []
    for number in range(1, count + 1):  # the Finished was number 0
        explicit = struct.pack(">Q", number)
        extra = explicit + b"\x16\x03\x03" + struct.pack(">H", len(message))
        sealed = explicit + key.encrypt(salt + explicit, message, extra)
        made.append(b"\x16\x03\x03" + struct.pack(">H", len(sealed)) + sealed)
    return b"".join(made)


def context_of_aes128() -> ssl.SSLContext:
    context = _context(ssl.TLSVersion.TLSv1_2)
    context.set_ciphers("ECDHE+AES128+AESGCM")
    return context


# What they do, until their time is over.


def send_until_closed(raw: socket.socket, data: bytes) -> None:
    raw.settimeout(2)
    with contextlib.suppress(OSError):
        raw.sendall(data)
        while raw.recv(65536):
            pass
    raw.close()


def key_updates(target: Target) -> None:
    while not target.is_over():
        with contextlib.suppress(OSError):
            client = TlsClient(target)
            send_until_closed(client.raw, client.key_updates(20_000))


def greetings_on_established_connections(target: Target) -> None:
    context_of_aes128()
    while not target.is_over():
        with contextlib.suppress(OSError):
            client = TlsClient(target, ssl.TLSVersion.TLSv1_2)
            send_until_closed(client.raw, sealed_greetings(client, 5_000))


def replayed_greetings(target: Target, groups: str) -> None:
    data = greeting(groups)
    while not target.is_over():
        begin = time.monotonic()
        with contextlib.suppress(OSError), target.dial() as raw:
            raw.sendall(data)
            raw.settimeout(1)
            raw.recv(4096)
        rest = len(data) / GREETING_BYTES_PER_SECOND - (time.monotonic() - begin)
        time.sleep(max(rest, 0))


def resets(target: Target) -> None:
    begin, made = time.monotonic(), 0
    while not target.is_over():
        with contextlib.suppress(OSError):
            raw = target.dial()
            raw.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            raw.close()
        made += 1
        ahead = begin + made / RESETS_PER_SECOND - time.monotonic()
        if ahead > 0:
            time.sleep(ahead)


def sending(make: Callable[[TlsClient], Iterator[bytes]]) -> Callable[[Target], None]:
    """As many connections as an address may have, each sends what `make` gives.

    One that has said all, or was closed, is made anew after a moment.
    """

    def run(target: Target) -> None:
        clients: list[tuple[TlsClient, Iterator[bytes]]] = []
        next_one = 0.0
        while not target.is_over():
            if len(clients) < CONNECTIONS_PER_HOST and time.monotonic() > next_one:
                next_one = time.monotonic() + 1 / CONNECTIONS_PER_SECOND
                with contextlib.suppress(OSError):
                    client = TlsClient(target)
                    client.raw.setblocking(False)
                    clients.append((client, make(client)))
            for one in list(clients):
                client, pieces = one
                try:
                    client.raw.send(next(pieces))
                except BlockingIOError:
                    continue
                except (OSError, StopIteration):
                    client.raw.close()
                    clients.remove(one)

    return run


def body_of(size: int, auth: bytes = b'{"auth":{},"x":"') -> bytes:
    return auth + b"x" * (size - len(auth) - 2) + b'"}'


def dripped(client: TlsClient) -> Iterator[bytes]:
    yield client.records([b"POST /pair HTTP/1.1\r\nContent-Length: 8192\r\n\r\n"])
    body = body_of(8192)
    for start in range(0, 8191, 455):
        yield client.records([bytes([byte]) for byte in body[start : min(start + 455, 8191)]])


def chunked(client: TlsClient) -> Iterator[bytes]:
    yield client.records([b"POST /pair HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"])
    body = body_of(8192)
    for start in range(0, 8192, 512):
        chunks = b"".join(b"1\r\n%c\r\n" % byte for byte in body[start : start + 512])
        yield client.records([chunks])


def queried(client: TlsClient) -> Iterator[bytes]:
    request = b"GET /info?" + b"&" * 8170 + b" HTTP/1.1\r\n"
    for _ in range(20):
        yield client.records([request + b"Host: x\r\n\r\n"])


def valued(count: int) -> Callable[[TlsClient], Iterator[bytes]]:
    body = b'{"auth":{},"x":[' + b",".join([b"1"] * count) + b"]}"

    def make(client: TlsClient) -> Iterator[bytes]:
        head = b"POST /pairings HTTP/1.1\r\nContent-Length: %d\r\n\r\n" % len(body)
        for _ in range(20):
            yield client.records([head + body])

    return make


def unread(client: TlsClient) -> Iterator[bytes]:
    client.raw.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    while True:
        yield client.records([b"GET /info HTTP/1.1\r\nHost: x\r\n\r\n" * 200])


def posted(body: bytes) -> Callable[[TlsClient], Iterator[bytes]]:
    head = (
        b"POST /pairings HTTP/1.1\r\nUser-Agent: a\r\nContent-Type: application/json\r\n"
        b"Content-Length: %d\r\n\r\n" % len(body)
    )

    def make(client: TlsClient) -> Iterator[bytes]:
        for _ in range(50):
            yield client.records([head + body])

    return make


NESTED = b'{"auth":' + b'{"a":' * 950 + b"1" + b"}" * 951
KEYS = b'{"auth":{' + b",".join(b'"%d":""' % number for number in range(900)) + b"}}"
LOGIN = (
    b'{"auth":{"username":"nobody","password":"%s","deviceId":"y","deviceType":"iOS",'
    b'"bssid":"00:1a:2b:3c:4d:50"}}' % (b"p" * 7000)
)


def new_keys_and_a_byte(client: TlsClient) -> Iterator[bytes]:
    for _ in range(100):
        yield client.key_updates(20) + client.records([b"G"])


def new_keys_unread(client: TlsClient) -> Iterator[bytes]:
    """Asks for new keys of the server all the time and reads none of its answers."""
    client.raw.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
    yield client.records([b"GET /info HTTP/1.1\r\nA: "])
    while True:
        yield client.key_updates(20, asks=True) + client.records([b"a"])


def head_byte_by_byte(client: TlsClient) -> Iterator[bytes]:
    head = b"GET /info HTTP/1.1\r\nA: " + b"b" * 7000 + b"\r\n\r\n"
    for start in range(0, len(head), 300):
        yield client.records([bytes([byte]) for byte in head[start : start + 300]])


def many_headers(client: TlsClient) -> Iterator[bytes]:
    head = b"GET /info HTTP/1.1\r\n" + b"".join(b"a%d:\r\n" % i for i in range(98)) + b"\r\n"
    for _ in range(200):
        yield client.records([head])


# What takes memory more than time, by itself or beside others.
LOADS: dict[str, Callable[[Target], None]] = {
    "new keys and a byte": sending(new_keys_and_a_byte),
    "nested JSON": sending(posted(NESTED)),
    "JSON of many keys": sending(posted(KEYS)),
    "wrong passwords": sending(posted(LOGIN)),
    "heads byte by byte": sending(head_byte_by_byte),
    "many headers": sending(many_headers),
}

DEEDS: dict[str, Callable[[Target], None]] = {
    "key updates": key_updates,
    "greetings on established connections": greetings_on_established_connections,
    "replayed greetings": functools.partial(replayed_greetings, groups="ffdhe8192"),
    "resets": resets,
    "dripped bodies": sending(dripped),
    "one-byte chunks": sending(chunked),
    "queries of many parts": sending(queried),
    "flat JSON of 4000": sending(valued(4000)),
    "flat JSON of 990": sending(valued(990)),
    "answers unread": sending(unread),
    "answers to new keys unread": sending(new_keys_unread),
}


@contextlib.contextmanager
def at_work_together(deeds: list[tuple[str, LanHost]], seconds: float) -> Iterator[None]:
    """Each host does its deed for so long; they are ended when the block is left."""
    environment = {**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)}
    processes = []
    for deed, host in deeds:
        target = (host.server, str(host.port), host.source or "", str(seconds))
        command = host.namespace.command(sys.executable, "-m", __name__, deed, *target)
        processes.append(subprocess.Popen(command, env=environment, stdout=subprocess.PIPE))
    try:
        for process in processes:
            assert process.stdout is not None
            process.stdout.readline()  # it is ready
        yield
    finally:
        for process in processes:
            process.terminate()
            process.communicate()


def main(arguments: list[str]) -> None:
    deeds, server, port, source, seconds = arguments
    print("ready", flush=True)
    target = Target(server, int(port), source, time.monotonic() + float(seconds))
    at_once = [
        threading.Thread(target={**DEEDS, **LOADS}[deed], args=(target,), daemon=True)
        for deed in deeds.split("+")
    ]
    for one in at_once:
        one.start()
    for one in at_once:
        one.join()


if __name__ == "__main__":
    main(sys.argv[1:])
