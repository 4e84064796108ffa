"""A local client of a storm asks: pushes, and what the cloud answers to them."""

from __future__ import annotations

from collections.abc import Callable

from velm_sim.answers import GARBAGE, HANG_UP, SILENCE, Answer
from velm_sim.cloud import EXHAUSTED, UNAUTHENTICATED, UNREGISTERED
from velm_sim.namespaces import Network

from .limits import AccessToken
from .model import Expected
from .phones import step_info
from .world import REFUSING_ADDRESS, SILENT_ADDRESS, World

SENT = Answer.json({"name": "sent"})
# 404s that are not about the phone's token.
PAGE = Answer(404, b"<!DOCTYPE html><title>404</title>", {"Content-Type": "text/html"})
MISMATCH = Answer.json(
    {"error": {"code": 404, "details": [{"errorCode": "SENDER_ID_MISMATCH"}]}}, 404
)
NOT_ABOUT_THE_TOKEN = ("fcm 404 page", "fcm 404 of another kind")
FCM_ANSWERS = {
    "fcm 401": UNAUTHENTICATED,
    "fcm 404": UNREGISTERED,
    "fcm 404 page": PAGE,
    "fcm 404 of another kind": MISMATCH,
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
DEAD_ADDRESSES = {"none": (), "refuses": (REFUSING_ADDRESS,), "silent": (SILENT_ADDRESS,)}


def step_ask(
    world: World, client: int, fault: str, which: int, certificate: str, within: int
) -> None:
    model, asking = world.model, world.client(client)
    if not model.live():
        asking.request(within)
        model.queues[client].append(Expected())
        return
    if not model.pushed_lately():
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
        model.push_token = AccessToken.fresh(model.moment)
    world.perhaps_push()
    model.expect_pushes()
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
    world.see_pushes()
    if fault == "fcm 401":
        # The next phone of the row asks for a new token, or the next push does.
        more = struck + 1 < len(live)
        model.token_requests += more
        model.push_token = AccessToken.fresh(model.moment) if more else AccessToken()
    if fault == "fcm 404":
        world.log.wait(r"unpaired \(unregistered token\)")
        model.delete(live[struck]["dev_id"])
    elif fault in NOT_ABOUT_THE_TOKEN:
        world.log.wait(r"WARN velm_fcm_messaging - ")
    else:
        world.allow(*PUSH_FAILED)


def _ask_with_token_fault(world: World, ask: Callable[[], int], fault: str) -> None:
    model = world.model
    world.cloud.token.answer_next(TOKEN_ANSWERS[fault])
    model.token_requests += 1
    model.push_token = AccessToken()
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
        model.push_token = AccessToken()
        world.log.wait("http request failed", timeout=GIVEN_UP)
    else:
        count = len(model.live())
        world.log.wait(PUSH_ANSWERED, count, GIVEN_UP + count)


# Where the cloud is.


def step_cloud_addresses(world: World, dead: str, first: bool) -> None:
    """From now on its names have an address more, at which nobody answers."""
    live = (Network.CLOUD_ADDRESS,)
    world.drain()
    other = DEAD_ADDRESSES[dead]
    world.name_cloud(other + live if first else live + other)
