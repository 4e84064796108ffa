"""Which address the access point must serve at after what happened to its bridge."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass, field


@dataclass
class Bridge:
    """The bridge's addresses, in the kernel's order, and the one that is served at.

    Every address that the kernel announces moves the servers to it. One that is taken away moves
    them to what is left. `begin` starts an event: from then on `moved` tells whether the servers
    may have begun anew, and `possible` where they may end when more than one end is right.
    """

    addresses: list[str]
    used: str
    moved: bool = False
    possible: set[str] = field(default_factory=set)
    seen: set[str] = field(default_factory=set)  # in this event

    def begin(self) -> None:
        self.moved, self.possible = False, set()
        self.seen = {self.used, *self.addresses}

    def outcomes(self) -> set[str]:
        """Where the servers may be once the event is over; never none."""
        return (self.possible & set(self.addresses)) or {self.used}

    def settle(self, address: str) -> None:
        """The servers were found there."""
        self.used, self.possible = address, set()

    def announce(self, address: str) -> None:
        self.moved = self.moved or address != self.used
        self.used, self.possible = address, set()
        self.seen.add(address)

    def add(self, address: str) -> None:
        if address not in self.addresses:
            self.addresses.append(address)
        self.announce(address)

    def remove(self, address: str) -> None:
        first = self.addresses[0] == address
        self.addresses.remove(address)
        if not self.addresses:
            return  # the servers stay, since there is nothing to move to
        if first:
            # The kernel moves the next one up and announces it.
            self.announce(self.addresses[0])
        elif address == self.used:
            self.moved = True
            self.used, self.possible = self.addresses[0], set(self.addresses)

    def flap(self, address: str) -> None:
        """An address that was there too short a time to be sure of anything but the end."""
        before = self.used
        self.add(address)
        self.remove(address)
        self.possible = {before, *self.addresses}
        self.used = before if before in self.addresses else self.addresses[0]

    def rebuild(self, address: str) -> None:
        """Deleted and made anew with one address, all that is announced."""
        self.addresses = [address]
        self.announce(address)

    def reload(self, others: Iterable[str] = ()) -> None:
        """SIGHUP somewhere in the event: at an address that the bridge had then, or has now."""
        self.moved = True
        self.possible = {*self.addresses, *others}
