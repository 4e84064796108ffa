"""Do the simulated Android phone and the decoding service do what the real ones do?"""

from __future__ import annotations

import base64
import json
import urllib.parse
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest
from jwcrypto import jwe, jws
from test_cloud import HEADER, right_claims, sign
from velm_sim.app_attest import sha256
from velm_sim.cloud import FORM_TYPE, HOSTS, Cloud
from velm_sim.lan_http import LanHost, Reply
from velm_sim.namespaces import Network
from velm_sim.phone import OMIT
from velm_sim.play_integrity import (
    LABELS,
    PACKAGE_NAME,
    IntegrityKeys,
    TokenError,
    encrypt,
    make_token,
    make_verdict,
    open_token,
    sign_by_secret,
    unsigned,
)
from velm_sim.service_account import GRANT_TYPE, INTEGRITY_SCOPE, MESSAGING_SCOPE


DATA = Path(__file__).resolve().parents[1] / "data" / "google"
FACTS: dict[str, Any] = json.loads((DATA / "play_integrity_api_facts.json").read_text())
DIGEST = sha256(b"body")


@pytest.fixture(scope="module")
def keys() -> IntegrityKeys:
    return IntegrityKeys()


def test_a_verdict_uses_the_labels_and_types_of_the_service() -> None:
    verdict = make_verdict(DIGEST)
    assert set(LABELS) <= set(FACTS["enums"]["deviceRecognitionVerdict"])
    app = verdict["appIntegrity"]
    assert app["appRecognitionVerdict"] in FACTS["enums"]["appRecognitionVerdict"]
    licence = verdict["accountDetails"]["appLicensingVerdict"]
    assert licence in FACTS["enums"]["appLicensingVerdict"]
    # 64-bit numbers are texts in JSON.
    assert verdict["requestDetails"]["timestampMillis"].isdecimal()
    assert app["versionCode"].isdecimal()


@pytest.mark.parametrize(("hashed", "member"), [(False, "nonce"), (True, "requestHash")])
def test_a_verdict_is_bound_to_the_digest(hashed: bool, member: str) -> None:
    details = make_verdict(DIGEST, hashed=hashed)["requestDetails"]
    assert base64.urlsafe_b64decode(details[member] + "=") == DIGEST
    assert len({"nonce", "requestHash"} & set(details)) == 1


def test_a_change_bends_one_member() -> None:
    changes = {"appIntegrity.appRecognitionVerdict": "UNEVALUATED", "environmentDetails": OMIT}
    right, bent = make_verdict(DIGEST, at=1), make_verdict(DIGEST, changes, at=1)
    right["appIntegrity"]["appRecognitionVerdict"] = "UNEVALUATED"
    del right["environmentDetails"]
    assert bent == right


def test_a_token_has_the_form_of_a_real_one(keys: IntegrityKeys) -> None:
    token = make_token(keys, make_verdict(DIGEST)).decode()
    header, key, iv, _, tag = (base64.urlsafe_b64decode(part + "==") for part in token.split("."))
    assert json.loads(header) == {"alg": "A256KW", "enc": "A256GCM"}
    assert (len(key), len(iv), len(tag)) == (40, 12, 16)
    outer = jwe.JWE()
    outer.deserialize(token, keys.decryption)
    inner = jws.JWS()
    inner.deserialize(outer.payload.decode())
    assert json.loads(inner.objects["protected"]) == {"alg": "ES256"}


def test_a_token_opens_with_its_keys(keys: IntegrityKeys) -> None:
    verdict = make_verdict(DIGEST)
    assert open_token(keys, make_token(keys, verdict).decode()) == verdict


WRONG: dict[str, Any] = {
    "other keys": lambda keys: make_token(IntegrityKeys(), b"{}"),
    "signed with the public key": lambda keys: make_token(
        keys, b"{}", sign=lambda payload, own: sign_by_secret(payload, b"public")
    ),
    "unsigned": lambda keys: make_token(
        keys, b"{}", sign=lambda payload, own: unsigned(payload, {"alg": "none"})
    ),
    "compressed": lambda keys: make_token(
        keys,
        b"{}",
        encrypt=lambda content, own: encrypt(
            content, own, {"alg": "A256KW", "enc": "A256GCM", "zip": "DEF"}
        ),
    ),
    "no JSON": lambda keys: make_token(keys, b"text"),
    "no object": lambda keys: make_token(keys, b"[]"),
    "no token": lambda keys: b"text",
}


@pytest.mark.parametrize("name", WRONG)
def test_a_token_is_refused_when(name: str, keys: IntegrityKeys) -> None:
    with pytest.raises(TokenError):
        open_token(keys, WRONG[name](keys).decode())


@pytest.fixture
def cloud(network: Network, keys: IntegrityKeys) -> Iterator[Cloud]:
    made = Cloud(network.cloud, network.CLOUD_ADDRESS, integrity_keys=keys)
    made.start()
    yield made
    made.stop()


def access_token(caller: LanHost, cloud: Cloud, scope: str) -> str:
    assertion = sign(cloud.account, HEADER, right_claims(cloud.account, scope=scope))
    form = urllib.parse.urlencode({"grant_type": GRANT_TYPE, "assertion": assertion}).encode()
    reply = caller.request("/token", form, {"Host": HOSTS[1], "Content-Type": FORM_TYPE})
    return str(reply.json()["access_token"])


def decode(caller: LanHost, access: str, token: str, package: str = PACKAGE_NAME) -> Reply:
    headers = {"Host": HOSTS[2], "Authorization": f"Bearer {access}"}
    body = json.dumps({"integrity_token": token}).encode()
    return caller.request(f"/v1/{package}:decodeIntegrityToken", body, headers)


def test_the_service_decodes_a_token(keys: IntegrityKeys, cloud: Cloud, caller: LanHost) -> None:
    assert INTEGRITY_SCOPE == FACTS["scope"]
    access = access_token(caller, cloud, INTEGRITY_SCOPE)
    verdict = make_verdict(DIGEST)
    reply = decode(caller, access, make_token(keys, verdict).decode())
    assert (reply.status, reply.json()) == (200, {FACTS["response_member"]: verdict})


@pytest.mark.parametrize("access", ["invented", "of another scope"])
def test_the_service_decodes_nothing_with_an_access_token_that_is(
    access: str, keys: IntegrityKeys, cloud: Cloud, caller: LanHost
) -> None:
    given = access_token(caller, cloud, MESSAGING_SCOPE) if "scope" in access else access
    assert decode(caller, given, make_token(keys, b"{}").decode()).status == 401


def test_the_service_does_not_know_other_apps(
    keys: IntegrityKeys, cloud: Cloud, caller: LanHost
) -> None:
    samples = json.loads((DATA / "play_integrity_errors.json").read_text())
    (real,) = [one for one in samples if one["id"] == "400-app-not-found"]
    access = access_token(caller, cloud, INTEGRITY_SCOPE)
    reply = decode(caller, access, make_token(keys, b"{}").decode(), "com.other")
    assert reply.status == real["http_status"]
    assert reply.json()["error"]["message"] == real["body"]["error"]["message"]


def test_the_service_refuses_what_it_cannot_open(cloud: Cloud, caller: LanHost) -> None:
    access = access_token(caller, cloud, INTEGRITY_SCOPE)
    assert decode(caller, access, "a.b.c.d.e").status == 400
