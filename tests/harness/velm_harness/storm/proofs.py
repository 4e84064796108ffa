"""How the phones of a storm prove themselves, and whether the model says that it is accepted."""

from __future__ import annotations

import contextlib
from dataclasses import replace
from typing import Any

from velm_sim.android_phone import AndroidPhone
from velm_sim.answers import GARBAGE, HANG_UP, Answer
from velm_sim.cloud import EXHAUSTED, UNAUTHENTICATED
from velm_sim.phone import Login, Phone

from .limits import AccessToken
from .log import require
from .model import OWNER
from .schedule import IOS_PHONES
from .world import World

NO_CHALLENGE = "0" * 32
WRONG = {"password": "wrong"}
REFUSED = {
    401: (r"invalid password", r"may not log in"),
    403: (r"pairings limit reached",),
    404: (r"no pairing: ",),
    412: (
        r"IAV - ", r"failure \(attestation\)", r"no assertion key", r"android_verify_assertion",
        r"ios_app_", r"invalid", r"velm_google_integrity", r"velm_google_auth",
        r"velm_attestation_engine", r"velm_android", r"cjose_", r"HTTPS NOK",
        r"velm_google_answer", r"ios_",
    ),
    424: (r"failure \(challenge\)",),
    400: (r"no friendly name", r"no deviceId", r"no location data"),
}  # fmt: skip
GOOGLE_ANSWERS = {
    "401": UNAUTHENTICATED,
    "429": EXHAUSTED,
    "500": Answer(500, b""),
    "garbage": GARBAGE,
    "hang up": HANG_UP,
    "no verdict": Answer.json({"other": 1}),
}
# Flaws of a request: Google cannot decode a token by another key. It decodes that of another body,
# and the daemon sees that it is none of this request.
OTHER_KEY = ("other key", "proof")
BROKEN = (*OTHER_KEY, "body")
OTHER_PACKAGE = {"requestDetails.requestPackageName": "com.other"}


def check_status(world: World, what: str, status: int, expected: int) -> None:
    world.allow(*REFUSED.get(expected, ()))
    require(status == expected, f"{what} is answered with {expected}, not {status}")


def fetch_challenge(world: World, phone: Phone, login: Login | None = None) -> str:
    """A fresh challenge, or one that nobody issued while logins are blocked."""
    auth = None if login is None else {"username": login.username, "password": login.password}
    reply = phone.challenge(auth)
    allowed = world.model.login(True, OWNER if login is None else login.username)
    check_status(world, "/challenge", reply.status, 200 if allowed else 401)
    if reply.status != 200:
        return NO_CHALLENGE
    challenge = str(reply.json()["challenge"])
    world.model.challenges[challenge] = world.model.moment
    return challenge


# Proofs.


def google_agrees(
    world: World, phone: Phone, flaw: str, google: str, cleanup: contextlib.ExitStack
) -> bool:
    """Has Google answer like that to the next token; says whether it will be asked and agree."""
    model, cut_off = world.model, google in ("certificate", "cloud down")
    sender = phone.host.source or ""
    if model.junk.shuts_out(sender, model.moment):
        return False
    needs_token = model.needs_integrity_token()
    if cut_off:
        cleanup.enter_context(world.cloud_fault(google, "other_ca"))
    if needs_token:
        model.integrity_token = AccessToken() if cut_off else AccessToken.fresh(model.moment)
        if cut_off:
            return False
        model.token_requests += 1
    if not model.asks_google() or cut_off:
        return False
    model.integrity_requests += 1
    if google not in GOOGLE_ANSWERS:
        if flaw in OTHER_KEY:
            model.junk.add(sender, model.moment)
        return flaw not in BROKEN
    world.cloud.integrity.answer_next(GOOGLE_ANSWERS[google])
    model.google_exhausted = google == "429"
    if google == "401":
        model.integrity_token = AccessToken()
    return False


def proof_holds(
    world: World, phone: Phone, flaw: str, google: str, cleanup: contextlib.ExitStack
) -> bool:
    """Whether an assertion or token with that flaw of the request is accepted."""
    good = flaw not in BROKEN
    if not isinstance(phone, AndroidPhone):
        return good and world.model.holds_key_of(phone.profile.device_id)
    if world.model.proved_by_app_attest(phone.profile.device_id):
        return False  # Google is not even asked
    agrees = google_agrees(world, phone, flaw, google, cleanup) if world.model.remote else good
    return agrees and google != "other package"


def bend_of(world: World, number: int, flaw: str, google: str) -> tuple[Phone, dict[str, Any]]:
    """The phone that signs, and how it bends the proof."""
    phone = world.phones[number]
    bend: dict[str, Any] = {}
    if isinstance(phone, AndroidPhone):
        if google == "other package":
            bend["verdict"] = OTHER_PACKAGE
        if flaw in OTHER_KEY:
            bend["keys"] = world.strange_keys
    elif flaw in OTHER_KEY:
        phone = replace(phone, key=world.phones[(number + 1) % IOS_PHONES].key)
    return phone, bend
