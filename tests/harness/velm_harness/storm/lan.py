"""What happens to the LAN in a storm, and that everybody is served again after it."""

from __future__ import annotations

import contextlib
import functools
import http.client
import os
import signal
import threading
import time
from collections.abc import Callable, Iterator
from dataclasses import replace

from velm_sim.daemon import wait_until
from velm_sim.limits import LAN_COMMAND_TIME
from velm_sim.ssdp import Searcher, search_message

from .lan_events import EVENTS, batch, pause
from .log import StormFailure, require
from .phones import step_info
from .proofs import fetch_challenge
from .traffic import traffic
from .world import World

RETURN_WITHIN = 5.0  # seconds of a machine that does much else
SEARCHING_HOST = 9
MARKERS = tuple(f"198.51.100.{host}" for host in range(100, 200))
# Of an address that comes, goes, or is not there while the servers begin anew.
LAN_ERRORS = (
    r"bind_socket.*(Cannot assign requested address|result: -1)", r"cannot join multicast group",
    r"cannot set multicast interface", r"get_ipv4_address_wlif", r"the LAN address is not known",
)  # fmt: skip


# A reload beside it.


@contextlib.contextmanager
def _reload_beside(world: World, reload_ms: int | None) -> Iterator[None]:
    """SIGHUP that many milliseconds after the event begins; a negative number is before it."""
    if reload_ms is None:
        yield
        return
    hang_up = lambda: os.kill(world.daemon.pid, signal.SIGHUP)  # noqa: E731
    world.perhaps_push()
    if reload_ms < 0:
        hang_up()
        pause(-reload_ms)
        yield
        return
    later = threading.Timer(reload_ms / 1000, hang_up)
    later.start()
    try:
        yield
    finally:
        later.join()


# After it.


def _pass_marker(world: World) -> None:
    """Returns when the daemon has been told of all that happened before."""
    world.markers += 1
    marker = MARKERS[world.markers % len(MARKERS)]
    batch(world, f"addr add {marker}/32 dev wan0", f"addr del {marker}/32 dev wan0")
    world.log.wait(rf"wan0 new ip: {marker}")


def _serving_address(world: World) -> str:
    """Where the daemon listens and answers searches; of both servers, or nothing."""
    address = world.daemon.https_address()
    return address if address and world.daemon.ipc_listener() else ""


def _answers_info(world: World, address: str) -> bool:
    host = replace(
        world.access_point.lan_host(SEARCHING_HOST, 1.0),
        server=address,
        certificate_pem=world.server_identity.pem,
    )
    with contextlib.suppress(OSError, http.client.HTTPException):
        return host.request("/info").status == 200
    return False


def _answers_search(world: World, to: str, address: str) -> bool:
    source = world.network.PHONE_ADDRESSES[SEARCHING_HOST]
    expected = f"https://{address}:{world.access_point.port}/info"
    with contextlib.suppress(OSError), Searcher(world.network.phone, source) as searcher:
        searcher.send(search_message(), *([to] if to else []))
        end = time.monotonic() + 0.3
        while (left := end - time.monotonic()) > 0:
            answer = searcher.receive(left)
            if answer is not None and answer.location == expected:
                return True
    return False


def _forget_neighbours(world: World) -> None:
    """A look-up of a hardware address that began in between fails seconds later."""
    world.network.phone.batch("neigh flush dev eth0\n")
    world.network.ap.batch("neigh flush dev br0\n")


def _until_served(world: World, what: str, served: Callable[[], bool], end: float) -> None:
    while not served():
        require(world.daemon.alive(), "the daemon is alive")
        where = _serving_address(world)
        if time.monotonic() > end:
            at = world.bridge.addresses
            raise StormFailure(
                f"{what} within {RETURN_WITHIN} s; the bridge has {at}, served is {where!r}"
            )
        _forget_neighbours(world)


def served_again(world: World) -> None:
    """HTTPS and searches are answered at the address that the bridge has."""
    end = time.monotonic() + RETURN_WITHIN
    outcomes = world.bridge.outcomes()
    try:
        wait_until(
            lambda: not world.daemon.alive() or _serving_address(world) in outcomes,
            RETURN_WITHIN,
            "",
        )
    except TimeoutError:
        raise StormFailure(
            f"served at one of {sorted(outcomes)} within {RETURN_WITHIN} s, "
            f"not at {_serving_address(world)!r}"
        ) from None
    require(world.daemon.alive(), "the daemon is alive")
    address = _serving_address(world)
    world.bridge.settle(address)
    _forget_neighbours(world)
    info = f"/info is answered at {address}"
    _until_served(world, info, lambda: _answers_info(world, address), end)
    for to, how in (("", "multicast"), (address, "unicast")):
        found = functools.partial(_answers_search, world, to, address)
        _until_served(world, f"a search by {how} finds {address}", found, end)
    world.serve_at(address)


def step_lan(
    world: World,
    event: str,
    address: str,
    pause_ms: int,
    times: int,
    reload_ms: int | None,
    phones: bool,
    phone: int,
) -> None:
    bridge = world.bridge
    before, old = _servers(world), set(bridge.addresses)
    bridge.begin()
    world.allow(*LAN_ERRORS)
    world.log.mark()
    with traffic(world, phones, {bridge.used, address}):
        with _reload_beside(world, reload_ms):
            EVENTS[event](world, address, pause_ms, times)
            over = time.monotonic()
        if reload_ms is not None:
            world.log.wait(r"velm_google_auth_init\b")
            bridge.reload(old)
        _pass_marker(world)
        served_again(world)
    world.returns.append(time.monotonic() - over)
    _judge_servers(world, before, reload_ms is not None)
    step_info(world, phone)
    fetch_challenge(world, world.phones[phone])


def _servers(world: World) -> tuple[str, str]:
    return world.daemon.https_listener(), world.daemon.ipc_listener()


def _judge_servers(world: World, before: tuple[str, str], reloaded: bool) -> None:
    """Local clients are closed just when the servers began anew."""
    after = _servers(world)
    if reloaded:
        world.reloaded()
    elif after != before:
        require(world.bridge.moved, "the servers go on, since the address stayed")
        world.model.servers_begin_anew()
        world.expect_clients_closed()


# The command that tells the address.


def step_address_command(world: World, how: str) -> None:
    """A reload while the command fails keeps the address in use."""
    world.drain()
    world.bridge.begin()
    world.allow(*LAN_ERRORS, r"Command takes too long")
    world.log.mark()
    world.address_command.write_text(how)
    try:
        world.perhaps_push()
        os.kill(world.daemon.pid, signal.SIGHUP)
        world.log.wait(r"velm_google_auth_init\b", timeout=LAN_COMMAND_TIME + 10.0)
        served_again(world)
    finally:
        world.address_command.write_text("works")
    require(any("ERROR" in line for line in world.log.read()), "an ERROR line tells of it")
    world.reloaded()
