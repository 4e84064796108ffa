"""What everybody but the phones does in a storm: local clients, the cloud, the administrator."""

from __future__ import annotations

import contextlib
import random
import time
from collections.abc import Callable
from typing import Any

from velm_sim.daemon import wait_until
from velm_sim.ipc_client import REQUEST, IpcClient
from velm_sim.limits import LOCAL_CLIENTS
from velm_sim.namespaces import Network
from velm_sim.ssdp import Searcher, search_message

from .asks import GIVEN_UP, step_ask, step_cloud_addresses
from .junk import step_junk_tokens
from .lan import step_address_command, step_lan
from .log import StormFailure, require
from .model import DELETED_KEYS, SPOILT
from .phones import (
    step_challenge,
    step_info,
    step_list,
    step_location,
    step_pair,
    step_unpair,
    step_vanish,
    step_wrong_logins,
)
from .world import World

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


def step_crowd(world: World, client: int) -> None:
    """Idle connections take every place; the oldest makes room for a client that comes then."""
    for number in list(world.clients):
        world.disconnect(number)
    before = world.descriptors()
    with contextlib.ExitStack() as crowd:
        idle: list[IpcClient] = []
        for _ in range(LOCAL_CLIENTS):
            world.log.mark()
            idle.append(crowd.enter_context(IpcClient(world.access_point.socket_path)))
            world.log.wait("Connection accepted")  # no more can wait to be than a few
        world.client(client)
        require(idle[0].receive_packet() == b"", "the client that was quiet longest is closed")
        require(all(one.is_silent(0) for one in idle[1:]), "the other clients stay")
    wait_until(lambda: world.descriptors() <= before + 1, 10, "the crowd has left")


# The administrator.


def step_reload(world: World) -> None:
    world.reload()


def step_new_certificate(world: World) -> None:
    world.renew_certificate()


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
            world.model.change(slot, what, SPOILT if what == "attestation_key" else value)
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
        with Searcher(world.network.cloud, Network.CLOUD_ADDRESS) as stranger:
            for own in (Network.UPLINK_ADDRESS, world.address):
                stranger.send(search_message(), own)
            searcher.send(search_message())
            _await_answer(searcher, expected)
            # It came later and is answered, so the others never are.
            require(stranger.receive(0) is None, "a search from the uplink is not answered")


def _await_answer(searcher: Searcher, expected: str) -> None:
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
    "crowd": step_crowd,
    "vanish": step_vanish,
    "half open": step_half_open,
    "reload": step_reload,
    "new certificate": step_new_certificate,
    "lan": step_lan,
    "address command": step_address_command,
    "cloud addresses": step_cloud_addresses,
    "junk tokens": step_junk_tokens,
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
