"""The cloud services that the daemon calls: token endpoint, push service, Play Integrity."""

from __future__ import annotations

import contextlib
import datetime
import re
import secrets
import socket
import ssl
import struct
import tempfile
import threading
import time
import urllib.parse
from collections.abc import Iterator
from pathlib import Path

from .answers import Answer, Endpoint, Recorded
from .certificates import DAY, Identity, make_authority, make_server, now
from .namespaces import Namespace
from .play_integrity import PACKAGE_NAME, IntegrityKeys, TokenError, open_token
from .service_account import (
    GRANT_TYPE,
    INTEGRITY_SCOPE,
    MESSAGING_SCOPE,
    GrantError,
    ServiceAccount,
    verify_jwt,
)
from .tls_policy import DEFAULT, TlsPolicy, negotiated

HOSTS = ("fcm.googleapis.com", "oauth2.googleapis.com", "playintegrity.googleapis.com")
FORM_TYPE = "application/x-www-form-urlencoded"
LARGEST_REQUEST = 1 << 20
LONGEST_FLOOD = 15.0
# A TLS record with a message that a server may send at any time and that asks for nothing.
HELLO_REQUEST = bytes.fromhex("16 0303 0004 00 000000")
DECODE = re.compile(r"/v1/([^/:]*):decodeIntegrityToken")


class CloudCertificates:
    """A CA, and server certificates of which only "right" should satisfy those who trust it.

    `tls` is what their server is willing to negotiate.
    """

    def __init__(self, tls: TlsPolicy = DEFAULT) -> None:
        self.authority = make_authority("Cloud CA")
        stranger = make_authority("Some other CA")
        long_ago = now() - 60 * DAY
        self.choices: dict[str, Identity] = {
            "right": make_server(HOSTS, self.authority),
            "other_ca": make_server(HOSTS, stranger),
            "self_signed": make_server(HOSTS),
            "other_name": make_server(["www.example.org"], self.authority),
            "expired": make_server(
                HOSTS, self.authority, not_before=long_ago, not_after=now() - DAY
            ),
            "embedded_nul": make_server(
                [f"{host}\0.example.org" for host in HOSTS], self.authority
            ),
            "not_yet_valid": make_server(
                HOSTS, self.authority, not_before=now() + datetime.timedelta(days=30)
            ),
        }
        self.contexts = {
            name: _server_context(choice, tls) for name, choice in self.choices.items()
        }


def _server_context(identity: Identity, tls: TlsPolicy) -> ssl.SSLContext:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    tls.apply(context)
    with tempfile.NamedTemporaryFile("w", suffix=".pem") as both:
        both.write(identity.key_pem + identity.pem)
        both.flush()
        context.load_cert_chain(both.name)
    return context


class Cloud:
    """HTTPS on port 443 of its namespace.

    `token`, `fcm` and `integrity` record what they are asked and are told how to answer.
    `certificate` names the server certificate; `handshakes` False accepts connections and never
    speaks TLS: it says nothing, or, as long as the client stays, `flood` over and over. When `hangs_up`
    is "closes" or "resets", it ends the connection so at the greeting. `negotiated` has the version and
    cipher of every connection, `resumed` whether it went on from the session of an earlier one; `broken`
    tells how those ended that did not end well.
    """

    def __init__(
        self,
        namespace: Namespace,
        address: str,
        certificates: CloudCertificates | None = None,
        account: ServiceAccount | None = None,
        port: int = 443,
        integrity_keys: IntegrityKeys | None = None,
    ) -> None:
        self.namespace, self.address, self.port = namespace, address, port
        self.certificates = certificates or CloudCertificates()
        self.account = account or ServiceAccount()
        self.integrity_keys = integrity_keys or IntegrityKeys()
        self.token = Endpoint(self._grant)
        self.fcm = Endpoint(self._send_message)
        self.integrity = Endpoint(self._decode_integrity_token)
        self.unknown = Endpoint(lambda request: Answer.json({"error": {"code": 404}}, 404))
        self._ending = threading.Event()
        self._open: set[socket.socket] = set()
        self._guard = threading.Lock()
        self._listener: socket.socket | None = None
        self.reset()

    def reset(self) -> None:
        """Back to right answers; what was recorded and granted is forgotten."""
        self.certificate = "right"
        self.handshakes = True
        self.flood = b""
        self.hangs_up = ""
        self.flooded = 0
        self.token_lifetime = 3600
        self.clock_offset = 0.0
        self.grants: dict[str, dict[str, object]] = {}
        self.refusals: list[str] = []
        self.connections = 0
        self.negotiated: list[tuple[str, str]] = []
        self.resumed: list[bool] = []
        self.broken: list[str] = []
        for endpoint in (self.token, self.fcm, self.integrity, self.unknown):
            endpoint.reset()

    # Connections.

    def start(self) -> None:
        self._ending.clear()
        family = socket.AF_INET6 if ":" in self.address else socket.AF_INET
        listener = self.namespace.socket(family)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind((self.address, self.port))
        listener.listen(64)
        self._listener = listener
        threading.Thread(target=self._accept, args=(listener,), daemon=True).start()

    def stop(self) -> None:
        """Closes everything: from now on connections are refused."""
        self._ending.set()
        if self._listener:
            with contextlib.suppress(OSError):
                self._listener.shutdown(socket.SHUT_RDWR)
            self._listener.close()
            self._listener = None
        self.drop_connections()

    @property
    def open_connections(self) -> int:
        with self._guard:
            return len(self._open)

    def drop_connections(self) -> None:
        """Cuts every open connection, answered or not."""
        with self._guard:
            for connection in self._open:
                with contextlib.suppress(OSError):
                    connection.shutdown(socket.SHUT_RDWR)

    @contextlib.contextmanager
    def without_sessions(self) -> Iterator[None]:
        """Meanwhile it hands out none that a later connection could go on from."""
        contexts = self.certificates.contexts.values()
        usual = [context.num_tickets for context in contexts]
        for context in contexts:
            context.num_tickets = 0
        try:
            yield
        finally:
            for context, count in zip(contexts, usual, strict=True):
                context.num_tickets = count

    def _accept(self, listener: socket.socket) -> None:
        while True:
            try:
                connection, _ = listener.accept()
            except OSError:
                return
            self.connections += 1
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, raw: socket.socket) -> None:
        with raw:
            with self._guard:
                self._open.add(raw)
            try:
                self._serve_tls(raw)
            except (OSError, ValueError) as problem:
                # Tests end connections on purpose; whoever did not can read here what happened.
                self.broken.append(f"{raw}: {problem!r}")
            finally:
                with self._guard:
                    self._open.discard(raw)

    def _serve_tls(self, raw: socket.socket) -> None:
        raw.settimeout(60)
        if not self.handshakes:
            while raw.recv(4096) and not self.hangs_up:
                self._flood(raw)
            if self.hangs_up == "resets":
                raw.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            return
        context = self.certificates.contexts[self.certificate]
        # The plain socket stays this thread's own, so that it can be shut down from another.
        with context.wrap_socket(raw.dup(), server_side=True) as tls:
            self.negotiated.append(negotiated(tls))
            self.resumed.append(tls.session_reused)
            request = _read_request(tls)
            if request:
                self._answer(tls, self._endpoint(request).handle(request))

    def _flood(self, raw: socket.socket) -> None:
        end = time.monotonic() + LONGEST_FLOOD
        while self.flood and not self._ending.is_set() and time.monotonic() < end:
            raw.sendall(self.flood)
            self.flooded += len(self.flood)

    def _answer(self, tls: ssl.SSLSocket, answer: Answer) -> None:
        if answer.silent:
            while not self._ending.is_set() and tls.recv(4096):
                pass
            return
        if answer.delay and self._ending.wait(answer.delay):
            return
        if answer.raw is not None:
            piece = answer.piece or max(len(answer.raw), 1)
            for at in range(0, len(answer.raw), piece):
                tls.sendall(answer.raw[at : at + piece])
            return
        body = answer.body if answer.cut_after is None else answer.body[: answer.cut_after]
        if not answer.drip:
            tls.sendall(answer.head() + body)
        else:
            tls.sendall(answer.head())
            for byte in body:
                if self._ending.wait(answer.drip):
                    return
                tls.sendall(bytes([byte]))
        if answer.cut_after is None:
            with contextlib.suppress(OSError):
                tls.unwrap()

    # Services.

    def _endpoint(self, request: Recorded) -> Endpoint:
        if request.host == "oauth2.googleapis.com" and request.path == "/token":
            return self.token
        sends = f"/v1/projects/{re.escape(self.account.project_id)}/messages:send"
        if request.host == "fcm.googleapis.com" and re.fullmatch(sends, request.path):
            return self.fcm
        if request.host == "playintegrity.googleapis.com" and DECODE.fullmatch(request.path):
            return self.integrity
        return self.unknown

    def now(self) -> float:
        """The cloud's clock; a test that moves the daemon's moves this one along."""
        return time.time() + self.clock_offset

    def _grant(self, request: Recorded) -> Answer:
        try:
            claims = self._check_grant(request)
        except GrantError as problem:
            self.refusals.append(str(problem))
            return Answer.json({"error": "invalid_grant", "error_description": str(problem)}, 400)
        token = f"ya29.{secrets.token_urlsafe(120)}"
        self.grants[token] = {**claims, "valid_to": self.now() + self.token_lifetime}
        return Answer.json(
            {"access_token": token, "expires_in": self.token_lifetime, "token_type": "Bearer"}
        )

    def _check_grant(self, request: Recorded) -> dict[str, object]:
        if request.method != "POST" or request.headers.get("content-type") != FORM_TYPE:
            raise GrantError(f"{request.method} of {request.headers.get('content-type')}")
        form = urllib.parse.parse_qs(request.body.decode(), strict_parsing=True)
        if form.get("grant_type") != [GRANT_TYPE] or len(form.get("assertion", [])) != 1:
            raise GrantError(f"form: {sorted(form)}")
        return verify_jwt(form["assertion"][0], self.account, at=self.now())

    def _may(self, request: Recorded, scope: str) -> bool:
        scheme, _, token = request.headers.get("authorization", "").partition(" ")
        grant = self.grants.get(token)
        return (
            scheme == "Bearer"
            and grant is not None
            and grant["scope"] == scope
            and self.now() < float(str(grant["valid_to"]))
        )

    def _send_message(self, request: Recorded) -> Answer:
        if not self._may(request, MESSAGING_SCOPE):
            return UNAUTHENTICATED
        if request.method != "POST" or not request.json().get("message", {}).get("token"):
            return _error(400, "INVALID_ARGUMENT", "Recipient of the message is not set.")
        name = f"projects/{self.account.project_id}/messages/0:{secrets.randbits(53)}%velm"
        return Answer.json({"name": name})

    def _decode_integrity_token(self, request: Recorded) -> Answer:
        if not self._may(request, INTEGRITY_SCOPE):
            return UNAUTHENTICATED
        found = DECODE.fullmatch(request.path)
        if not found or found.group(1) != PACKAGE_NAME:
            return _error(400, "INVALID_ARGUMENT", "App is not found.")
        try:
            if request.method != "POST":
                raise TokenError(request.method)
            verdict = open_token(self.integrity_keys, str(request.json()["integrity_token"]))
        except (TokenError, KeyError, ValueError):
            return _error(400, "INVALID_ARGUMENT", "Integrity token cannot be decrypted.")
        return Answer.json({"tokenPayloadExternal": verdict})


def _error(status: int, name: str, message: str) -> Answer:
    return Answer.json({"error": {"code": status, "message": message, "status": name}}, status)


UNAUTHENTICATED = _error(
    401, "UNAUTHENTICATED", "Request had invalid authentication credentials."
)
EXHAUSTED = _error(429, "RESOURCE_EXHAUSTED", "Quota exceeded.")
UNREGISTERED = Answer.json(
    {
        "error": {
            "code": 404,
            "message": "Requested entity was not found.",
            "status": "NOT_FOUND",
            "details": [
                {
                    "@type": "type.googleapis.com/google.firebase.fcm.v1.FcmError",
                    "errorCode": "UNREGISTERED",
                }
            ],
        }
    },
    404,
)


def _read_request(tls: ssl.SSLSocket) -> Recorded | None:
    """A whole request with Content-Length, or None when the client leaves first."""
    received = b""
    while b"\r\n\r\n" not in received:
        chunk = tls.recv(65536)
        if not chunk or len(received) > LARGEST_REQUEST:
            return None
        received += chunk
    head, _, body = received.partition(b"\r\n\r\n")
    first, *lines = head.decode("latin-1").split("\r\n")
    method, path, _version = first.split(" ")
    headers = {name.lower(): value.strip() for name, _, value in (l.partition(":") for l in lines)}
    length = int(headers.get("content-length", "0"))
    while len(body) < min(length, LARGEST_REQUEST):
        chunk = tls.recv(65536)
        if not chunk:
            return None
        body += chunk
    host = headers.get("host", "").removesuffix(":443")
    return Recorded(time.time(), time.monotonic(), method, host, path, headers, body)


def certificate_files(certificates: CloudCertificates, directory: Path) -> Path:
    """Writes the CA file that the daemon is to trust."""
    path = directory / "cloud-ca.pem"
    path.write_text(certificates.authority.pem)
    return path
