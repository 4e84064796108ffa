"""Does the stand-in cloud accept what the real one accepts, and refuse the rest?"""

from __future__ import annotations

import base64
import json
import time
import urllib.parse
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import padding
from velm_sim.answers import GARBAGE, HANG_UP, Answer
from velm_sim.cloud import FORM_TYPE, HOSTS, UNREGISTERED, Cloud
from velm_sim.lan_http import LanHost, Reply
from velm_sim.namespaces import Network
from velm_sim.service_account import (
    GRANT_TYPE,
    MESSAGING_SCOPE,
    TOKEN_URI,
    GrantError,
    ServiceAccount,
    verify_jwt,
)

DATA = Path(__file__).resolve().parents[1] / "data" / "google"
KNOWN: dict[str, Any] = json.loads((DATA / "jwt_rs256_known_answer.json").read_text())
SEND = "/v1/projects/velm-demo/messages:send"


def encoded(content: Any) -> str:
    data = content if isinstance(content, bytes) else json.dumps(content).encode()
    return base64.urlsafe_b64encode(data).rstrip(b"=").decode()


def sign(account: ServiceAccount, header: Any, claims: Any) -> str:
    """A JWT made without the library that checks it."""
    key: Any = serialization.load_pem_private_key(account.private_key.encode(), None)
    text = f"{encoded(header)}.{encoded(claims)}"
    return f"{text}.{encoded(key.sign(text.encode(), padding.PKCS1v15(), hashes.SHA256()))}"


def right_claims(account: ServiceAccount, **changes: Any) -> dict[str, Any]:
    moment = int(time.time())
    claims = {"iss": account.client_email, "scope": MESSAGING_SCOPE, "aud": TOKEN_URI}
    return {**claims, "exp": moment + 3600, "iat": moment, **changes}


HEADER = {"alg": "RS256", "typ": "JWT"}


@pytest.fixture(scope="module")
def account() -> ServiceAccount:
    return ServiceAccount()


@pytest.fixture
def cloud(network: Network, account: ServiceAccount) -> Iterator[Cloud]:
    made = Cloud(network.cloud, network.CLOUD_ADDRESS, account=account)
    made.start()
    yield made
    made.stop()


def ask_token(caller: LanHost, assertion: str, **headers: str) -> Reply:
    form = urllib.parse.urlencode({"grant_type": GRANT_TYPE, "assertion": assertion})
    sent = {"Host": HOSTS[1], "Content-Type": FORM_TYPE, **headers}
    return caller.request("/token", form.encode(), sent)


def push(caller: LanHost, token: str) -> Reply:
    headers = {"Host": HOSTS[0], "Authorization": f"Bearer {token}"}
    return caller.request(SEND, b'{"message": {"token": "t"}}', headers)


def known_account() -> ServiceAccount:
    return ServiceAccount("p", KNOWN["client_email"], KNOWN["private_key_pem"])


def test_a_grant_that_others_signed_is_accepted() -> None:
    claims = verify_jwt(
        KNOWN["assertion"],
        known_account(),
        scopes=[KNOWN["scope"]],
        audience=KNOWN["aud"],
        at=KNOWN["iat"],
    )
    assert claims == json.loads(KNOWN["claims_json"])


@pytest.mark.parametrize(
    ("moment", "valid"), [(-11, False), (-10, True), (3610, True), (3611, False)]
)
def test_a_grant_holds_for_its_hour(moment: int, valid: bool) -> None:
    def check() -> None:
        at = KNOWN["iat"] + moment
        verify_jwt(
            KNOWN["assertion"],
            known_account(),
            scopes=[KNOWN["scope"]],
            audience=KNOWN["aud"],
            at=at,
        )

    if valid:
        check()
    else:
        with pytest.raises(GrantError, match="not valid now"):
            check()


WRONG: dict[str, tuple[dict[str, Any], dict[str, Any]]] = {
    "issuer": (HEADER, {"iss": "somebody"}),
    "scope": (HEADER, {"scope": "other"}),
    "audience": (HEADER, {"aud": "https://example.org"}),
    "two hours": (HEADER, {"exp": int(time.time()) + 7200}),
    "number as text": (HEADER, {"iat": "1"}),
    "header": ({"alg": "RS256", "typ": "JWT", "kid": "1"}, {}),
    "algorithm": ({"alg": "RS512", "typ": "JWT"}, {}),
}


@pytest.mark.parametrize("name", WRONG)
def test_a_grant_is_refused_for_its(name: str, account: ServiceAccount) -> None:
    header, changes = WRONG[name]
    with pytest.raises(GrantError):
        verify_jwt(sign(account, header, right_claims(account, **changes)), account)


def test_a_grant_signed_with_another_key_is_refused(account: ServiceAccount) -> None:
    stranger = ServiceAccount()
    with pytest.raises(GrantError, match="signature"):
        verify_jwt(sign(stranger, HEADER, right_claims(account)), account)


def test_a_granted_token_sends_a_push(cloud: Cloud, caller: LanHost) -> None:
    answer = ask_token(caller, sign(cloud.account, HEADER, right_claims(cloud.account))).json()
    assert set(answer) == {"access_token", "expires_in", "token_type"}
    reply = push(caller, answer["access_token"])
    assert reply.status == 200 and set(reply.json()) == {"name"}
    assert [request.path for request in cloud.fcm.requests] == [SEND]


def test_a_token_is_refused_at_the_end_of_its_time(cloud: Cloud, caller: LanHost) -> None:
    answer = ask_token(caller, sign(cloud.account, HEADER, right_claims(cloud.account))).json()
    cloud.clock_offset = 3590
    assert push(caller, answer["access_token"]).status == 200
    cloud.clock_offset = 3600
    assert push(caller, answer["access_token"]).status == 401


def test_another_content_type_gets_no_token(cloud: Cloud, caller: LanHost) -> None:
    grant = sign(cloud.account, HEADER, right_claims(cloud.account))
    reply = ask_token(caller, grant, **{"Content-Type": "application/json"})
    assert reply.status == 400 and len(cloud.refusals) == 1


def test_an_unknown_token_is_refused(caller: LanHost) -> None:
    assert push(caller, "invented").status == 401


@pytest.mark.parametrize("answer", [HANG_UP, GARBAGE, Answer(body=b"12345", cut_after=2)])
def test_a_broken_answer_is_broken(cloud: Cloud, caller: LanHost, answer: Answer) -> None:
    cloud.fcm.answer_next(answer)
    with pytest.raises(Exception, match="closed connection|no HTTP|IncompleteRead"):
        push(caller, "t")


def test_a_slow_answer_is_slow(cloud: Cloud, caller: LanHost) -> None:
    cloud.fcm.answer_next(Answer(body=b"123456", drip=0.02))
    start = time.monotonic()
    assert push(caller, "t").body == b"123456"
    assert time.monotonic() - start >= 0.1


def test_our_unregistered_answer_is_the_real_one() -> None:
    answers = json.loads((DATA.parent / "push" / "fcm_responses.json").read_text())
    (real,) = [one for one in answers if one["id"] == "404-unregistered-captured-2024"]
    assert (UNREGISTERED.status, json.loads(UNREGISTERED.body)) == (404, real["body"])


def test_our_token_answer_has_the_members_of_the_real_one(cloud: Cloud, caller: LanHost) -> None:
    answers = json.loads((DATA / "oauth_token_responses.json").read_text())
    (real,) = [one for one in answers if one["id"] == "200-docs"]
    ours = ask_token(caller, sign(cloud.account, HEADER, right_claims(cloud.account))).json()
    types = {name: type(value) for name, value in json.loads(real["body_text"]).items()}
    assert {name: type(value) for name, value in ours.items()} == types
