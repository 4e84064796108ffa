"""What the phones of a storm do, and what the model says that they are answered."""

from __future__ import annotations

import contextlib
import datetime
from typing import Any

from velm_sim.android_phone import AndroidPhone
from velm_sim.certificates import DAY
from velm_sim.etc_files import ROOT, SECOND
from velm_sim.phone import OMIT, Phone, Prepared, sample_location

from .log import StormFailure, require
from .model import OWNER
from .proofs import (
    NO_CHALLENGE,
    REFUSED,
    WRONG,
    bend_of,
    check_status,
    fetch_challenge,
    proof_holds,
)
from .schedule import IOS_PHONES
from .world import World

REPORT_MADE = r"location_policy_ipc_send -  \.location size"


def step_challenge(world: World, phone: int) -> None:
    fetch_challenge(world, world.phones[phone])


def step_info(world: World, phone: int) -> None:
    reply = world.phones[phone].info()
    require(reply.status == 200, f"/info is answered with 200, not {reply.status}")


def step_list(world: World, phone: int) -> None:
    reply = world.phones[phone].pairings()
    allowed = world.model.login(True)
    check_status(world, "/pairings", reply.status, 200 if allowed else 401)
    if allowed:
        expected = [
            {
                "deviceId": slot["dev_id"],
                "friendlyName": slot["name"],
                "deviceType": slot["dev_type"],
                "pairingDate": slot["date_added"],
            }
            for slot in world.model.live()
        ]
        require(reply.json() == {"pairings": expected}, f"/pairings lists {expected}")


WRONG_LOGINS: dict[str, dict[str, Any]] = {
    OWNER: WRONG,
    ROOT.username: {"username": ROOT.username, "password": ROOT.password},
    "nobody": {"username": "nobody", "password": "guessed"},
    SECOND.username: {"username": SECOND.username, "password": "guessed"},
}


def step_wrong_logins(
    world: World, phone: int, count: int, name: str, between: bool, wait: int
) -> None:
    """Wrong ones, and a right one that many seconds later; `between`: of another account too."""
    made = world.phones[phone]
    for number in range(count):
        reply = made.challenge(WRONG_LOGINS[name])
        check_status(world, f"/challenge with a wrong login of {name}", reply.status, 401)
        world.model.login(False, name)
        if between and number % 4 == 3:
            fetch_challenge(world, made, SECOND)
    world.jump(wait)
    fetch_challenge(world, made)


def step_pair(
    world: World, phone: int, by: str, flaw: str, name: str, push_token: str, google: str
) -> None:
    made = world.phones[phone]
    attested = by == "attestation" and not isinstance(made, AndroidPhone)
    signer, bend = bend_of(world, phone, flaw, google)
    if attested:
        signer, bend = made, _attestation_bend(world, flaw)
    no_challenge = flaw == "no challenge"
    challenge = NO_CHALLENGE if no_challenge else fetch_challenge(world, made)
    described = {"friendlyName": OMIT if flaw == "no name" else name, "pushToken": push_token}
    with contextlib.ExitStack() as cleanup:
        expected = _expect_pair(world, made, attested, flaw, google, challenge, cleanup)
        request = signer.prepare_pair(
            by="attestation" if attested else "assertion",
            challenge=challenge,
            auth=WRONG if flaw == "password" else None,
            pair=described,
            **bend,
        )
        made.counter = max(made.counter, signer.counter)
        check_status(world, "/pair", made.send(request).status, expected)
    if expected == 200:
        profile = made.profile
        world.model.store(
            {
                "dev_id": profile.device_id,
                "dev_type": profile.device_type,
                "name": name,
                "push_token": push_token,
                "dev_model": profile.model,
                "os_version": profile.os_version,
            },
            attested,
        )


def _attestation_bend(world: World, flaw: str) -> dict[str, Any]:
    """The credential certificate is of the daemon's present, unless it has expired."""
    moment = datetime.datetime.utcfromtimestamp(world.model.moment)
    lived = 2 * DAY if flaw == "expired" else 0 * DAY
    bend: dict[str, Any] = {"not_before": moment - DAY - lived, "not_after": moment + DAY - lived}
    if flaw == "proof":
        bend["client_data_hash"] = bytes(32)
    return bend


def _expect_pair(
    world: World,
    phone: Phone,
    attested: bool,
    flaw: str,
    google: str,
    challenge: str,
    cleanup: contextlib.ExitStack,
) -> int:
    model = world.model
    if not attested:
        if not model.consume(challenge):
            return 424
        if not proof_holds(world, phone, flaw, google, cleanup):
            return 412
    if not model.login(flaw != "password"):
        return 401
    if attested:
        if flaw in ("proof", "expired"):
            return 412
        if not model.consume(challenge):
            return 424
    if not model.may_pair(phone.profile.device_id):
        return 403
    return 400 if flaw == "no name" else 200


def step_unpair(world: World, phone: int, how: str, other: int) -> None:
    model, made = world.model, world.phones[phone]
    wanted = "nobody" if how == "unknown" else made.profile.device_id
    caller = world.phones[other] if how == "by another" else made
    members = {"unpair": {} if how == "no device id" else {"deviceId": wanted}}
    request = caller.prepare("/unpair", members, auth=WRONG if how == "password" else None)
    if not model.login(how != "password"):
        expected = 401
    elif how == "no device id":
        expected = 400
    else:
        expected = 200 if model.delete(wanted) else 404
    check_status(world, "/unpair", caller.send(request).status, expected)


def step_location(
    world: World, phone: int, flaw: str, latitude: float, rssi: int, google: str
) -> None:
    made = world.phones[phone]
    challenge = NO_CHALLENGE if flaw == "no challenge" else fetch_challenge(world, made)
    if flaw in ("old challenge", "oldest challenge"):
        world.jump(61 if flaw == "old challenge" else 60)
    signer, bend = bend_of(world, phone, flaw, google)
    with contextlib.ExitStack() as cleanup:
        expected = _expect_location(world, made, flaw, google, challenge, cleanup)
        request = _location_request(signer, challenge, flaw, latitude, rssi, bend)
        made.counter = max(made.counter, signer.counter)
        world.log.mark()
        check_status(world, "/location", made.send(request).status, expected)
        if expected == 200:
            reports = 3 if flaw == "array" else 1
            for number in range(reports):
                world.model.report(latitude, phone, rssi - number)
            # Else a client that connects after the phone's answer may still receive one.
            world.log.wait(REPORT_MADE, reports)
        if flaw == "replayed":
            check_status(world, "the same /location again", made.send(request).status, 424)


def _location_request(
    signer: Phone, challenge: str, flaw: str, latitude: float, rssi: int, bend: dict[str, Any]
) -> Prepared:
    location: Any = sample_location(latitude=latitude, rssi=rssi)
    if flaw == "array":
        location = [sample_location(latitude=latitude, rssi=rssi - number) for number in range(3)]
    auth: dict[str, Any] = {}
    if flaw == "password":
        auth = dict(WRONG)
    elif flaw == "bssid":
        auth = {"bssid": "00:1a:2b:3c:4d:99"}
    members = {"location": OMIT} if flaw == "no location" else None
    request = signer.prepare_location(
        location, challenge=challenge, auth=auth, members=members, **bend
    )
    if flaw == "body":
        return request.with_body(request.body.replace(b'"altitude":34.5', b'"altitude":99.5'))
    return request


def _expect_location(
    world: World, phone: Phone, flaw: str, google: str, challenge: str,
    cleanup: contextlib.ExitStack,
) -> int:  # fmt: skip
    model = world.model
    if not model.consume(challenge):
        return 424
    if not proof_holds(world, phone, flaw, google, cleanup):
        return 412
    if not model.login(flaw != "password"):
        return 401
    if model.find(phone.profile.device_id) is None:
        return 404
    if flaw == "bssid":
        return 409
    return 400 if flaw == "no location" else 200


def step_vanish(world: World, phone: int, when: str, latitude: float) -> None:
    """The phone leaves in the middle of something; only a whole request can have an effect."""
    made, model = world.phones[phone], world.model
    if when == "before the handshake":
        made.host.connect_tcp().close()
        return
    whole = when == "before the reply" and phone < IOS_PHONES
    whole = whole and model.logins.untouched_by_success(OWNER)
    with made.host.session() as session:
        if whole:
            world.log.mark()
            challenge = fetch_challenge(world, made)
            request = made.prepare_location(
                sample_location(latitude=latitude), challenge=challenge
            )
            known = made.profile.device_id
            if model.holds_key_of(known):
                model.report(latitude, phone, -47, certain=False)
            model.challenges.pop(challenge, None)
            world.allow(*REFUSED[412], *REFUSED[424])
            session.connect()
            session.send(request.path, request.body, request.headers)
    if whole:
        # A request that the daemon did not read whole before the end came begins nothing.
        with contextlib.suppress(StormFailure):
            world.log.wait(r"finish_async \[", 2, timeout=1.0)  # the challenge is one
        return
    with made.host.connect_tls() as connection:
        head = b"POST /location HTTP/1.1\r\nHost: x\r\nContent-Length: 500\r\n"
        connection.sendall(head if when == "in the head" else head + b'\r\n{"auth":')
