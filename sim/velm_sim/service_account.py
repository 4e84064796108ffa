"""A cloud service account: its key file, and the check of the JWTs signed with it."""

from __future__ import annotations

import json
import time
from collections.abc import Collection
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from cryptography.hazmat.primitives.asymmetric import rsa
from jwcrypto import jwk, jws
from jwcrypto.common import JWException

from .certificates import private_key_pem

TOKEN_URI = "https://oauth2.googleapis.com/token"
MESSAGING_SCOPE = "https://www.googleapis.com/auth/firebase.messaging"
INTEGRITY_SCOPE = "https://www.googleapis.com/auth/playintegrity"
SCOPES = (MESSAGING_SCOPE, INTEGRITY_SCOPE)
GRANT_TYPE = "urn:ietf:params:oauth:grant-type:jwt-bearer"
LIFETIME = 3600


class GrantError(ValueError):
    """Why the token endpoint refuses a grant."""


@dataclass
class ServiceAccount:
    """The account whose key the daemon holds."""

    project_id: str = "velm-demo"
    client_email: str = "firebase-adminsdk@velm-demo.iam.gserviceaccount.com"
    private_key: str = field(default="", repr=False)

    def __post_init__(self) -> None:
        if not self.private_key:
            self.private_key = private_key_pem(rsa.generate_private_key(65537, 2048))
        self.public = jwk.JWK.from_pem(self.private_key.encode())

    def key_file(self) -> dict[str, str]:
        """The members of a downloaded key file, in its order."""
        return {
            "type": "service_account",
            "project_id": self.project_id,
            "private_key_id": self.public.thumbprint(),
            "private_key": self.private_key,
            "client_email": self.client_email,
            "client_id": "104857600000000000000",
            "token_uri": TOKEN_URI,
        }

    def write(self, path: Path, **changes: Any) -> None:
        """Writes the key file; a change to None leaves the member out."""
        members: dict[str, Any] = {**self.key_file(), **changes}
        kept = {name: value for name, value in members.items() if value is not None}
        path.write_text(json.dumps(kept, indent=2) + "\n")
        path.chmod(0o600)


def verify_jwt(
    assertion: str,
    account: ServiceAccount,
    *,
    scopes: Collection[str] = SCOPES,
    audience: str = TOKEN_URI,
    at: float | None = None,
    leeway: int = 10,
) -> dict[str, Any]:
    """The claims of a grant that the token endpoint accepts, else `GrantError`."""
    token = jws.JWS()
    try:
        token.deserialize(assertion, account.public, alg="RS256")
    except (JWException, ValueError) as problem:
        raise GrantError(f"signature: {problem}") from None
    if token.jose_header != {"alg": "RS256", "typ": "JWT"}:
        raise GrantError(f"header: {token.jose_header}")
    claims: dict[str, Any] = json.loads(token.payload)
    if claims.get("scope") not in scopes:
        raise GrantError(f"scope: {claims.get('scope')!r}")
    wanted = {"iss": account.client_email, "aud": audience}
    for name, value in wanted.items():
        if claims.get(name) != value:
            raise GrantError(f"{name}: {claims.get(name)!r}")
    issued, expires = claims.get("iat"), claims.get("exp")
    if not isinstance(issued, int) or not isinstance(expires, int):
        raise GrantError("iat and exp must be whole numbers")
    if expires != issued + LIFETIME:
        raise GrantError(f"exp - iat: {expires - issued}")
    moment = time.time() if at is None else at
    if not issued - leeway <= moment <= expires + leeway:
        raise GrantError(f"not valid now: {issued} .. {expires}, now {moment:.0f}")
    return claims
