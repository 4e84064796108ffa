"""What everybody but the phones does in a storm: local clients, the cloud, the administrator."""

from __future__ import annotations

import random
import time
from collections.abc import Callable
from typing import Any

from .answers import GARBAGE, HANG_UP, SILENCE, Answer
from .cloud import EXHAUSTED, UNREGISTERED
from .daemon import wait_until
from .ipc_client import REQUEST
from .ssdp import Searcher, search_message
from .storm_log import StormFailure, require
from .storm_model import DELETED_KEYS, PUSH_INTERVAL, SPOILT, TOKEN_LIFE, Expected
from .storm_phones import (
    step_challenge,
    step_info,
    step_list,
    step_location,
    step_pair,
    step_unpair,
    step_vanish,
    step_wrong_logins,
)
from .storm_world import World

SENT = Answer.json({"name": "sent"})
FCM_ANSWERS = {
    "fcm 404": UNREGISTERED,
    "fcm 429": EXHAUSTED,
    "fcm 500": Answer(500, b""),
    "fcm garbage": GARBAGE,
    "fcm hang up": HANG_UP,
    "fcm silence": SILENCE,
}
TOKEN_ANSWERS = {
    "token 400": Answer.json({"error": "invalid_grant"}, 400),
    "token 500": Answer(500, b""),
    "token garbage": GARBAGE,
    "token hang up": HANG_UP,
    "token silence": SILENCE,
}
PUSH_ANSWERED = r"send_push_handler \[.*code:"
PUSH_FAILED = (r"send_push_handler - \[",)
TOKEN_FAILED = (r"velm_google_auth", r"missing auth token", r"missing access_token", r"HTTPS NOK")
GIVEN_UP = 14.0  # the daemon waits ten seconds
DESCRIPTORS_IN_WORK = 16


# Local clients.


def step_connect(world: World, client: int) -> None:
    world.client(client)


def step_disconnect(world: World, client: int) -> None:
    world.disconnect(client)


def step_bad_frame(world: World, client: int) -> None:
    """A request of another length is skipped, a frame of another type is dropped."""
    asking = world.client(client)
    asking.request(payload=b"\0\0", length=2)
    asking.request(frame_type=REQUEST + 1)


def step_ask(
    world: World, client: int, fault: str, which: int, certificate: str, within: int
) -> None:
    model, asking = world.model, world.client(client)
    if not model.live():
        asking.request(within)
        model.queues[client].append(Expected())
        return
    if model.last_push + PUSH_INTERVAL <= model.moment:
        world.drain()  # so that these pushes and earlier ones do not mingle
    if not model.asks_for_push():
        world.log.mark()
        asking.request(within)
        world.log.wait(r"too often \(limit 60\)")
        return
    ask = lambda: asking.request(within)  # noqa: E731
    needs_token = model.needs_push_token()
    if fault in FCM_ANSWERS:
        _ask_with_push_fault(world, ask, fault, which)
    elif fault in TOKEN_ANSWERS and needs_token:
        _ask_with_token_fault(world, ask, fault)
    elif fault in ("certificate", "cloud down", "no dns"):
        with world.cloud_fault(fault, certificate):
            _ask_in_vain(world, ask)
    else:
        _ask(world, ask)


def _ask(world: World, ask: Callable[[], int]) -> None:
    """The pushes are on their way when this returns."""
    model = world.model
    if model.needs_push_token():
        model.token_requests += 1
        model.push_token_until = model.moment + TOKEN_LIFE
    model.pushes += [slot["push_token"] for slot in model.live()]
    world.log.mark()
    ask()
    world.log.wait(r"prepare_to_send_push - \d")


def _ask_with_push_fault(world: World, ask: Callable[[], int], fault: str, which: int) -> None:
    model = world.model
    live = model.live()
    struck = which % len(live)
    answers = [SENT] * len(live)
    answers[struck] = FCM_ANSWERS[fault]
    world.cloud.fcm.answer_next(*answers)
    _ask(world, ask)
    if fault == "fcm silence":
        world.drain()
        step_info(world, 0)  # the loop does not wait with it
    world.log.wait(PUSH_ANSWERED, len(live), GIVEN_UP + len(live))
    if fault == "fcm 404":
        world.log.wait(r"unpaired \(unregistered token\)")
        model.delete(live[struck]["dev_id"])
    else:
        world.allow(*PUSH_FAILED)


def _ask_with_token_fault(world: World, ask: Callable[[], int], fault: str) -> None:
    model = world.model
    world.cloud.token.answer_next(TOKEN_ANSWERS[fault])
    model.token_requests += 1
    model.push_token_until = None
    world.allow(*TOKEN_FAILED)
    world.log.mark()
    ask()
    if fault == "token silence":
        world.cloud.token.wait(model.token_requests)
        step_info(world, 0)
    world.log.wait("http request failed", timeout=GIVEN_UP)


def _ask_in_vain(world: World, ask: Callable[[], int]) -> None:
    model = world.model
    world.allow(*PUSH_FAILED, *TOKEN_FAILED)
    needs_token = model.needs_push_token()
    world.log.mark()
    ask()
    if needs_token:
        model.push_token_until = None
        world.log.wait("http request failed", timeout=GIVEN_UP)
    else:
        count = len(model.live())
        world.log.wait(PUSH_ANSWERED, count, GIVEN_UP + count)


# The administrator.


def step_reload(world: World) -> None:
    world.reload()


def step_new_certificate(world: World) -> None:
    world.renew_certificate()


def step_move(world: World, address: str) -> None:
    world.move(address)


def step_method(world: World, method: str) -> None:
    world.access_point.configure({"app.android.integrity.method": method})
    world.model.remote = method == "remote"
    world.reload()


def step_outside(world: World, slot: int, what: str, value: str) -> None:
    """Another program writes into nvram."""
    held = world.model.slots[slot]
    changes = {"storm_unrelated": value}
    if held is not None and held["status"] == "Valid" and what != "unrelated":
        key = f"zelkad_pairing_{slot}_"
        if what == "delete":
            world.model.delete(held["dev_id"])
            changes = {key + name: "" for name in DELETED_KEYS} | {key + "status": "Invalid"}
        else:
            held[what] = SPOILT if what == "attestation_key" else value
            changes = {key + what: held[what]}
    world.access_point.nvram_set(changes)


# Strangers.


def step_datagrams(world: World, seed: int, count: int) -> None:
    """Whatever came before, a right search is answered."""
    dice = random.Random(seed)
    with Searcher(world.network.phone, world.network.PHONE_ADDRESSES[7]) as searcher:
        for _ in range(count):
            datagram = bytearray(search_message())
            for _ in range(dice.randrange(1, 8)):
                datagram[dice.randrange(len(datagram))] = dice.randrange(256)
            if dice.random() < 0.3:
                datagram = bytearray(dice.randbytes(dice.randrange(1400)))
            searcher.send(bytes(datagram))
        expected = f"https://{world.address}:{world.access_point.port}/info"
        searcher.send(search_message())
        deadline = time.monotonic() + 5
        while time.monotonic() < deadline:
            answer = searcher.receive(5.0)
            if answer is not None and answer.location == expected:
                return
        raise StormFailure(f"a search finds {expected}")


def step_half_open(world: World, count: int) -> None:
    world.open_half(count)


def step_census(world: World) -> None:
    """Everybody leaves: as many descriptors are open as at the start."""
    world.drain()
    for number in list(world.clients):
        world.disconnect(number)
    world.close_half_open()
    if not world.baseline:
        world.baseline = world.descriptors()
        return
    try:
        wait_until(lambda: world.descriptors() <= world.baseline, GIVEN_UP, "descriptors")
    except TimeoutError:
        raise StormFailure(
            f"{world.baseline} descriptors are open, not {world.descriptors()}"
        ) from None


STEPS: dict[str, Callable[..., None]] = {
    "pair": step_pair,
    "unpair": step_unpair,
    "list": step_list,
    "challenge": step_challenge,
    "location": step_location,
    "wrong logins": step_wrong_logins,
    "ask": step_ask,
    "connect": step_connect,
    "disconnect": step_disconnect,
    "bad frame": step_bad_frame,
    "vanish": step_vanish,
    "half open": step_half_open,
    "reload": step_reload,
    "new certificate": step_new_certificate,
    "move": step_move,
    "method": step_method,
    "outside": step_outside,
    "datagrams": step_datagrams,
    "info": step_info,
    "census": step_census,
}


def perform(world: World, kind: str, arguments: dict[str, Any]) -> None:
    STEPS[kind](world, **arguments)


def check_descriptors(world: World) -> None:
    """While things go on: no more than what those who are connected account for."""
    if world.baseline:
        bound = world.baseline + len(world.clients) + len(world.half_open) + DESCRIPTORS_IN_WORK
        now = world.descriptors()
        require(now <= bound, f"at most {bound} descriptors are open, not {now}")
