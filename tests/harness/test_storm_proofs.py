"""What a storm's model says of a phone's proof: whether it holds, and what Google makes of it."""

from __future__ import annotations

import contextlib
from types import SimpleNamespace
from typing import Any, cast

import pytest
from velm_harness.storm.model import Model
from velm_harness.storm.proofs import google_agrees
from velm_harness.storm.world import World
from velm_sim.phone import Phone

PHONE: Any = SimpleNamespace(host=SimpleNamespace(source="192.168.1.54"))


@pytest.mark.parametrize(
    ("flaw", "agrees", "junk"),
    [
        ("none", True, 0),
        ("password", True, 0),
        ("other key", False, 1),
        ("proof", False, 1),
        ("body", False, 0),  # that token can be decoded
    ],
)
def test_junk_is_what_google_cannot_decode(flaw: str, agrees: bool, junk: int) -> None:
    world: Any = SimpleNamespace(model=Model(moment=1_000_000))
    with contextlib.ExitStack() as cleanup:
        found = google_agrees(cast(World, world), cast(Phone, PHONE), flaw, "none", cleanup)
    assert (found, len(world.model.junk.sent)) == (agrees, junk)
    assert world.model.integrity_requests == 1
