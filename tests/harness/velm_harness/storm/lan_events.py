"""What happens to the LAN in a storm. Each event changes the bridge and the model of it alike."""

from __future__ import annotations

import time
from collections.abc import Callable

from .lan_model import Bridge
from .schedule import ADDRESSES
from .world import World


def batch(world: World, *commands: str) -> None:
    world.network.ap.batch("".join(f"{command}\n" for command in commands))


def pause(pause_ms: int) -> None:
    """Part of what happens, not a wait for anything."""
    time.sleep(pause_ms / 1000)


def _bounce(world: World, link: str, pause_ms: int) -> None:
    batch(world, f"link set {link} down")
    pause(pause_ms)
    batch(world, f"link set {link} up")


def port_bounces(world: World, address: str, pause_ms: int, times: int) -> None:
    for _ in range(min(times, 3)):
        _bounce(world, "lan0", pause_ms)


def bridge_bounces(world: World, address: str, pause_ms: int, times: int) -> None:
    for _ in range(min(times, 3)):
        _bounce(world, "br0", pause_ms)


def _rebuild(world: World, address: str, pause_ms: int) -> None:
    batch(world, "link del br0")
    pause(pause_ms)
    batch(
        world,
        "link add br0 type bridge",
        "link set lan0 master br0",
        "link set br0 up",
        f"addr add {address}/24 dev br0",
    )
    world.bridge.rebuild(address)


def bridge_rebuilt(world: World, address: str, pause_ms: int, times: int) -> None:
    _rebuild(world, world.bridge.used, pause_ms)


def bridge_rebuilt_elsewhere(world: World, address: str, pause_ms: int, times: int) -> None:
    _rebuild(world, address, pause_ms)


def _add(world: World, address: str) -> None:
    if address not in world.bridge.addresses:
        world.routes.add(address, "br0")
        world.bridge.add(address)


def _remove(world: World, address: str) -> None:
    world.routes.remove(address, "br0")
    world.bridge.remove(address)


def address_added(world: World, address: str, pause_ms: int, times: int) -> None:
    _add(world, address)


def used_one_goes(world: World, address: str, pause_ms: int, times: int) -> None:
    """Another is there first."""
    if len(world.bridge.addresses) == 1:
        _add(world, _other_than(world.bridge, address))
        pause(pause_ms)
    _remove(world, world.bridge.used)


def other_one_goes(world: World, address: str, pause_ms: int, times: int) -> None:
    others = [held for held in world.bridge.addresses if held != world.bridge.used]
    if others:
        _remove(world, others[0])


def _other_than(bridge: Bridge, address: str) -> str:
    """An address that the bridge does not have: the wanted one, or the next."""
    begin = ADDRESSES.index(address)
    around = ADDRESSES[begin:] + ADDRESSES[:begin]
    return next(one for one in around if one not in bridge.addresses)


def replaced(world: World, address: str, pause_ms: int, times: int) -> None:
    """The new one comes first, then all others go."""
    before, new = list(world.bridge.addresses), _other_than(world.bridge, address)
    _add(world, new)
    pause(pause_ms)
    for old in reversed(before):
        _remove(world, old)


def gap(world: World, address: str, pause_ms: int, times: int) -> None:
    """All go, and after a while without any one comes: another or the same."""
    for old in reversed(list(world.bridge.addresses)):
        _remove(world, old)
    pause(pause_ms)
    _add(world, address)


def renewed(world: World, address: str, pause_ms: int, times: int) -> None:
    """A lease is renewed: the kernel announces the address anew."""
    for _ in range(times):
        for life in ("3600", "forever"):
            batch(
                world,
                f"addr change {world.bridge.used}/24 dev br0 valid_lft {life} preferred_lft {life}",
            )
            world.bridge.announce(world.bridge.used)


def flaps(world: World, address: str, pause_ms: int, times: int) -> None:
    """Another address comes for 0 to 5 ms, again and again."""
    short = _other_than(world.bridge, address)
    for number in range(times):
        world.routes.flap(short, "br0", (number + pause_ms) % 6 / 1000)
        world.bridge.flap(short)


def used_one_flaps(world: World, address: str, pause_ms: int, times: int) -> None:
    """The address itself is gone for 0 to 5 ms, again and again."""
    own = world.bridge.used
    for number in range(times):
        _remove(world, own)
        pause((number + pause_ms) % 6)
        _add(world, own)


EVENTS: dict[str, Callable[..., None]] = {
    "port bounces": port_bounces,
    "bridge bounces": bridge_bounces,
    "bridge rebuilt": bridge_rebuilt,
    "bridge rebuilt elsewhere": bridge_rebuilt_elsewhere,
    "address added": address_added,
    "used one goes": used_one_goes,
    "other one goes": other_one_goes,
    "replaced": replaced,
    "gap": gap,
    "renewed": renewed,
    "flaps": flaps,
    "used one flaps": used_one_flaps,
}
