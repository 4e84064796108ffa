"""What a storm's model knows of limits that the daemon's clock ends, forwards or backwards.

A moment that lies in the future, since the clock was set back, never holds anything up. Wherever the
clock is, nothing is held up for longer than its period by the clock that nobody sets.
"""

from __future__ import annotations

import time
from dataclasses import dataclass, field

from velm_sim.limits import LOGIN_ATTEMPTS, LOGIN_BLOCK

TOKEN_LIFE = 3600
JUNK_PERIOD, JUNK_LIMIT = 60, 10  # of one address
ALL_JUNK_PERIOD, ALL_JUNK_LIMIT = 3600, 60


@dataclass
class Moment:
    """When something was, by the daemon's clock and by the one that nobody sets."""

    wall: int
    steady: float = field(default_factory=time.monotonic)

    def was_lately(self, now: int, period: int) -> bool:
        """Less than so many seconds ago, by both clocks."""
        passed = time.monotonic() - self.steady
        return self.wall <= now < self.wall + period and passed < period


@dataclass
class Failures:
    """Wrong logins in a row."""

    count: int = 0
    first: Moment | None = None

    def block(self, moment: int) -> bool:
        if self.count < LOGIN_ATTEMPTS:
            return False
        if self.first is not None and self.first.was_lately(moment, LOGIN_BLOCK):
            return True
        self.count = 0
        return False

    def add(self, moment: int) -> None:
        if self.count == 0:
            self.first = Moment(moment)
        self.count += 1


@dataclass
class Logins:
    """Too many wrong ones in a row refuse everybody, and those of one name that name."""

    of_all: Failures = field(default_factory=Failures)
    of_names: dict[str, Failures] = field(default_factory=dict)

    def attempt(self, name: str, right: bool, moment: int) -> bool:
        of_name = self.of_names.setdefault(name, Failures())
        if self.of_all.block(moment) or of_name.block(moment):
            return False
        if right:
            self.of_all, self.of_names[name] = Failures(), Failures()
            return True
        self.of_all.add(moment)
        of_name.add(moment)
        return False

    def untouched_by_success(self, name: str) -> bool:
        """A right login of that name changes nothing."""
        return self.of_all.count == 0 and self.of_names.get(name, Failures()).count == 0


@dataclass
class AccessToken:
    """An access token serves for an hour from when it came, and not before that."""

    came: Moment | None = None

    @classmethod
    def fresh(cls, moment: int) -> AccessToken:
        return cls(Moment(moment))

    def serves(self, moment: int) -> bool:
        return self.came is not None and self.came.was_lately(moment, TOKEN_LIFE)


@dataclass
class Junk:
    """Tokens that Google refused to decode: the addresses that sent them and when."""

    sent: list[tuple[str, Moment]] = field(default_factory=list)

    def add(self, address: str, moment: int) -> None:
        self.sent.append((address, Moment(moment)))

    def shuts_out(self, address: str, moment: int) -> bool:
        """Nothing is asked for that address now. What was long ago is forgotten for good."""
        self.sent = [one for one in self.sent if one[1].was_lately(moment, ALL_JUNK_PERIOD)]
        own = [when for sender, when in self.sent if sender == address]
        of_late = sum(1 for when in own if when.was_lately(moment, JUNK_PERIOD))
        return of_late >= JUNK_LIMIT or (bool(own) and len(self.sent) >= ALL_JUNK_LIMIT)
