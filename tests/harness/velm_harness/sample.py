"""Which of many faults a run of the tests tries."""

from __future__ import annotations

import datetime
from collections.abc import Sequence
from dataclasses import dataclass
from typing import TypeVar

Item = TypeVar("Item")


def seed_of_the_day() -> int:
    """So that days of runs try what one run leaves out."""
    return datetime.date.today().toordinal()


@dataclass(frozen=True)
class Sample:
    """All of them, or one in so many, drawn from the seed."""

    seed: int
    whole: bool = False

    def of(self, items: Sequence[Item], one_in: int) -> Sequence[Item]:
        return items if self.whole else items[self.seed % one_in :: one_in]
