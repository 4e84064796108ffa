"""Tokens in a storm that nobody can decode: their sender is not asked about for a while."""

from __future__ import annotations

from .phones import step_location
from .world import World


def step_junk_tokens(world: World, phone: int, count: int, wait: int) -> None:
    """One phone sends that many, and a good one that many seconds later."""
    for number in range(count):
        step_location(world, phone, "other key", 1.5, -40 - number, "none")
    world.jump(wait)
    step_location(world, phone, "none", 2.5, -40, "none")
