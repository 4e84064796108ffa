"""A phone with the companion app for Android: it proves itself by Play Integrity tokens."""

from __future__ import annotations

import time
import uuid
from collections.abc import Mapping
from dataclasses import dataclass, field
from typing import Any

from .app_attest import sha256
from .phone import Phone, Prepared, Profile, with_header
from .play_integrity import PACKAGE_NAME, IntegrityKeys, make_token, make_verdict


def android_profile(**changes: Any) -> Profile:
    """Who an Android phone says it is."""
    described = {
        "device_id": uuid.uuid4().hex[:16],
        "device_type": "Android",
        "model": "Pixel 8",
        "os_version": "14",
        "name": "Ben's Pixel",
    }
    return Profile(**{**described, **changes})


@dataclass
class AndroidPhone(Phone):
    """An Android phone on the access point's Wi-Fi.

    It has no key of its own: Google, who holds `integrity`, vouches for every single request.
    `hashed` makes standard requests (bound by "requestHash") instead of classic ones ("nonce");
    `clock_offset` is how far Google's clock is off. A phone made to pair by "attestation" sends an
    iOS one.
    """

    profile: Profile = field(default_factory=android_profile)
    integrity: IntegrityKeys = field(default_factory=IntegrityKeys)
    package_name: str = PACKAGE_NAME
    hashed: bool = False
    clock_offset: float = 0.0

    def prepare_pair(self, *, by: str = "assertion", **arguments: Any) -> Prepared:
        return super().prepare_pair(by=by, **arguments)

    def token(
        self,
        digest: bytes,
        *,
        verdict: Mapping[str, Any] | bytes | None = None,
        keys: IntegrityKeys | None = None,
        hashed: bool | None = None,
        age: float = 0.0,
        **steps: Any,
    ) -> bytes:
        """A token over the digest. `verdict` changes members by path, or replaces all as bytes;
        `age` seconds have passed since it was made; `steps` replace those of the making."""
        changes = None if isinstance(verdict, bytes) else verdict
        made = make_verdict(
            digest,
            changes,
            hashed=self.hashed if hashed is None else hashed,
            package_name=self.package_name,
            at=time.time() + self.clock_offset - age,
        )
        payload = verdict if isinstance(verdict, bytes) else made
        return make_token(keys or self.integrity, payload, **steps)

    def signed(self, request: Prepared, **bend: Any) -> Prepared:
        """The request with a token over its body; `token` is sent in its place as it stands."""
        given = bend.pop("token", None)
        digest = bend.pop("client_data_hash", None) or sha256(request.body)
        made = given if given is not None else self.token(digest, **bend)
        return with_header(request, "X-Assertion", made)
