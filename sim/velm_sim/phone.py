"""A phone with the companion app: an iOS phone that attests its key and signs what it sends.

The Android one, in `android_phone`, differs in its proofs only."""

from __future__ import annotations

import base64
import json
import time
import uuid
from collections.abc import Mapping
from dataclasses import dataclass, field, replace
from typing import Any

from .app_attest import AttestationAuthority, AttestKey, make_assertion, make_attestation, sha256
from .ipc_client import Report
from .lan_http import LanHost, Reply, Session

Members = Mapping[str, Any]

# A member that is changed to this is left out.
OMIT = object()


def changed(members: dict[str, Any], changes: Members | None) -> dict[str, Any]:
    """`members` with the changes made."""
    merged = {**members, **(changes or {})}
    return {name: value for name, value in merged.items() if value is not OMIT}


@dataclass(frozen=True)
class Login:
    """A system account of the access point."""

    username: str
    password: str


@dataclass(frozen=True)
class Profile:
    """Who the phone says it is."""

    device_id: str = field(default_factory=lambda: str(uuid.uuid4()).upper())
    device_type: str = "iOS"
    model: str = "iPhone15,3"
    os_version: str = "17.5.1"
    name: str = "Anna's iPhone"
    push_token: str = field(default_factory=lambda: f"fcm-{uuid.uuid4().hex}:APA91b{'x' * 120}")


@dataclass(frozen=True)
class Prepared:
    """A request that is complete and may be sent as often as one likes, or changed before."""

    path: str
    body: bytes
    headers: dict[str, str]

    def with_body(self, body: bytes) -> Prepared:
        return replace(self, body=body)

    def with_headers(self, **headers: str) -> Prepared:
        """Underscores in the names stand for hyphens."""
        named = {name.replace("_", "-"): value for name, value in headers.items()}
        return replace(self, headers={**self.headers, **named})


def encode(members: Members) -> bytes:
    return json.dumps(members, ensure_ascii=False, separators=(",", ":")).encode()


def sample_location(**changes: Any) -> dict[str, Any]:
    """A location object as the app sends it."""
    made = {
        "latitude": 52.520008,
        "longitude": 13.404954,
        "accuracy": 4.75,
        "altitude": 34.5,
        "verticalAccuracy": 3.25,
        "rssi": -47,
        "timestamp": str(int(time.time())),
    }
    return changed(made, changes)


@dataclass
class Phone:
    """An iOS phone on the access point's Wi-Fi.

    Each call on the API exists twice: `prepare_x` gives the request, `x` sends it at once.
    Keyword arguments beyond the named ones bend the attestation or the assertion.
    """

    host: LanHost
    authority: AttestationAuthority
    app_id: str
    bssid: str
    login: Login
    profile: Profile = field(default_factory=Profile)
    key: AttestKey = field(default_factory=AttestKey.generate)
    counter: int = 0

    def expected_report(self, location: Members) -> Report:
        """What local clients get when this phone has posted that location."""
        return Report(
            valid=1,
            phone_ip=str(self.host.source),
            os_version=self.profile.os_version,
            phone_model=self.profile.model,
            time=int(location["timestamp"]),
            bssid_present=1,
            bssid=self.bssid.lower(),
            rssi=int(location["rssi"]),
            reserved=bytes(8),
            latitude=location["latitude"],
            longitude=location["longitude"],
            horizontal_uncertainty1=location["accuracy"],
            horizontal_uncertainty2=location["accuracy"],
            orientation=0.0,
            height=location["altitude"],
            height_kind=2,
            vertical_uncertainty=location["verticalAccuracy"],
        )

    # The API's unsigned calls.

    def info(self) -> Reply:
        return self.host.request("/info")

    def challenge(self, auth: Members | None = None) -> Reply:
        return self.send(self.prepare("/challenge", auth=auth))

    def fetch_challenge(self) -> str:
        reply = self.challenge()
        if reply.status != 200:
            raise RuntimeError(f"/challenge answered {reply.status}")
        return str(reply.json()["challenge"])

    def pairings(self, auth: Members | None = None) -> Reply:
        return self.send(self.prepare("/pairings", auth=auth))

    def unpair(self, device_id: str | None = None, auth: Members | None = None) -> Reply:
        members = {"unpair": {"deviceId": device_id}} if device_id else None
        return self.send(self.prepare_login("/unpair", members, auth=auth))

    def prepare_login(
        self, path: str, members: Members | None = None, *, auth: Members | None = None
    ) -> Prepared:
        """The right request for a path that needs a login only, with what the path itself reads."""
        own: dict[str, Members] = {"/unpair": {"unpair": {"deviceId": self.profile.device_id}}}
        return self.prepare(path, members or own.get(path), auth=auth)

    # The signed ones.

    def pair(self, **arguments: Any) -> Reply:
        return self.send(self.prepare_pair(**arguments))

    def prepare_pair(
        self,
        *,
        by: str = "attestation",
        challenge: str | None = None,
        auth: Members | None = None,
        pair: Members | None = None,
        members: Members | None = None,
        **bend: Any,
    ) -> Prepared:
        """Pairs by a new "attestation" or by an "assertion" of the key that is stored already."""
        described = {
            "friendlyName": self.profile.name,
            "pushToken": self.profile.push_token,
            "deviceModel": self.profile.model,
            "osVersion": self.profile.os_version,
        }
        content = changed({"pair": changed(described, pair)}, members)
        request = self.prepare("/pair", content, auth=self._signed_auth(challenge, auth))
        prove = {"attestation": self.attested, "assertion": self.signed}[by]
        return prove(request, **bend)

    def location(self, location: Any = None, **arguments: Any) -> Reply:
        return self.send(self.prepare_location(location, **arguments))

    def prepare_location(
        self,
        location: Any = None,
        *,
        challenge: str | None = None,
        auth: Members | None = None,
        members: Members | None = None,
        **bend: Any,
    ) -> Prepared:
        """One location object or a list; the sample when none is given."""
        described = sample_location() if location is None else location
        content = changed({"location": described}, members)
        request = self.prepare("/location", content, auth=self._signed_auth(challenge, auth))
        return self.signed(request, **bend)

    # The steps of which requests are made.

    def auth(self, changes: Members | None = None) -> dict[str, Any]:
        made = {
            "deviceId": self.profile.device_id,
            "deviceType": self.profile.device_type,
            "bssid": self.bssid,
            "username": self.login.username,
            "password": self.login.password,
        }
        return changed(made, changes)

    def _signed_auth(self, challenge: str | None, auth: Members | None) -> dict[str, Any]:
        given = dict(auth or {})
        if "challenge" not in given:
            given["challenge"] = challenge if challenge is not None else self.fetch_challenge()
        return given

    def prepare(
        self, path: str, members: Members | None = None, *, auth: Members | None = None
    ) -> Prepared:
        body = encode({"auth": self.auth(auth), **(members or {})})
        return Prepared(path, body, {"Content-Type": "application/json", "User-Agent": "AFC/1.0"})

    def attested(self, request: Prepared, **bend: Any) -> Prepared:
        """The request with an attestation of the phone's key over its body."""
        digest = bend.pop("client_data_hash", None) or sha256(request.body)
        rp_id = bend.pop("rp_id", self.app_id)
        made = make_attestation(self.authority, self.key, rp_id, digest, **bend)
        return with_header(request, "X-Attestation", made)

    def signed(self, request: Prepared, **bend: Any) -> Prepared:
        """The request with an assertion over its body; the counter goes up by one each time."""
        digest = bend.pop("client_data_hash", None) or sha256(request.body)
        if "counter" not in bend:
            self.counter += 1
            bend["counter"] = self.counter
        made = make_assertion(
            self.key, bend.pop("rp_id", self.app_id), digest, **bend
        )
        return with_header(request, "X-Assertion", made)

    def send(self, request: Prepared, session: Session | None = None) -> Reply:
        """Sends on a connection of its own, or on a kept-alive one."""
        through = session or self.host
        return through.request(request.path, request.body, request.headers)


def with_header(request: Prepared, name: str, value: bytes) -> Prepared:
    headers = {**request.headers, name: base64.b64encode(value).decode()}
    return replace(request, headers=headers)
