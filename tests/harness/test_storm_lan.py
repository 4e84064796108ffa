"""What a storm's model of the bridge says, and what the tools of its LAN do."""

from __future__ import annotations

from collections.abc import Callable, Iterator

import pytest
from velm_harness.route_netlink import RouteSocket
from velm_harness.storm.lan_events import EVENTS
from velm_harness.storm.lan_model import Bridge
from velm_harness.storm.schedule import LAN_EVENTS
from velm_sim.namespaces import Network, ip

Change = Callable[[Bridge], None]

# Name: addresses, the one in use, what happens, where the servers may be, whether they may move.
CASES: dict[str, tuple[str, str, Change, str, bool]] = {
    "one added": ("A", "A", lambda b: b.add("B"), "B", True),
    "the one in use announced": ("AB", "B", lambda b: b.announce("B"), "B", False),
    "another announced": ("AB", "B", lambda b: b.announce("A"), "A", True),
    "the one in use goes": ("AB", "B", lambda b: b.remove("B"), "A", True),
    "the first goes and was in use": ("AB", "A", lambda b: b.remove("A"), "B", True),
    "the first goes and was not": ("AB", "B", lambda b: b.remove("A"), "B", False),
    "the first of three goes": ("ABC", "C", lambda b: b.remove("A"), "B", True),
    "of three the last goes": ("ABC", "C", lambda b: b.remove("C"), "AB", True),
    "the only one goes": ("A", "A", lambda b: b.remove("A"), "A", False),
    "another flaps": ("A", "A", lambda b: b.flap("B"), "A", True),
    "a third flaps": ("AB", "B", lambda b: b.flap("C"), "AB", True),
    "rebuilt with its own": ("A", "A", lambda b: b.rebuild("A"), "A", False),
    "rebuilt with another": ("AB", "A", lambda b: b.rebuild("C"), "C", True),
    "reload with two": ("AB", "B", lambda b: b.reload(), "AB", True),
}


@pytest.mark.parametrize("case", CASES)
def test_the_bridge_says_where_the_servers_are(case: str) -> None:
    addresses, used, change, outcomes, moved = CASES[case]
    bridge = Bridge(list(addresses), used)
    bridge.begin()
    change(bridge)
    assert (bridge.outcomes(), bridge.moved) == (set(outcomes), moved)


def test_what_was_found_is_what_is_in_use() -> None:
    bridge = Bridge(["A", "B"], "A")
    bridge.reload()
    bridge.settle("B")
    assert (bridge.used, bridge.outcomes()) == ("B", {"B"})


def test_every_event_that_is_drawn_can_happen() -> None:
    assert set(EVENTS) == set(LAN_EVENTS)


@pytest.fixture
def network() -> Iterator[Network]:
    made = Network()
    yield made
    made.close()


@pytest.fixture
def routes(network: Network) -> Iterator[RouteSocket]:
    made = RouteSocket(network.ap)
    yield made
    made.close()


def addresses_of(network: Network) -> list[str]:
    shown = ip("-n", network.ap.name, "-o", "-4", "addr", "show", "dev", "br0").splitlines()
    return [line.split()[3] for line in shown]


def test_addresses_come_and_go_at_once(network: Network, routes: RouteSocket) -> None:
    first = f"{Network.AP_ADDRESS}/24"
    routes.add("192.168.1.9", "br0")
    assert addresses_of(network) == [first, "192.168.1.9/24"]
    with pytest.raises(OSError, match="File exists"):
        routes.add("192.168.1.9", "br0")
    routes.remove("192.168.1.9", "br0")
    routes.flap("192.168.1.8", "br0", 0.001)
    assert addresses_of(network) == [first]
    with pytest.raises(OSError, match="Cannot assign"):
        routes.remove("192.168.1.9", "br0")
