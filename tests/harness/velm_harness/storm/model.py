"""What must be true of the daemon after each step of a storm, worked out without asking it."""

from __future__ import annotations

import time
from collections import Counter, deque
from dataclasses import dataclass, field

from velm_sim.access_point import PAIRING_MEMBERS
from velm_sim.limits import PUSH_GAP

from .limits import AccessToken, Junk, Logins, Moment
from .schedule import PAIRINGS_LIMIT

OWNER = "admin"  # whose account the phones use
CHALLENGE_LIFE = 60
PUSH_INTERVAL = 60
GOOGLE_SILENCE = 3599
DUE_MARGIN = 0.2  # seconds by which a push may leave before its time
DELETED_KEYS = tuple(member for member in PAIRING_MEMBERS if member != "status")
GIVEN = "*"  # of an attestation key: any text, known to be the phone's own
SPOILT = "c3BvaWx0"


@dataclass
class Expected:
    """Something that a local client must receive; `certain` False: that it may receive."""

    latitude: float | None = None  # of a report; None: the answer "no paired devices"
    phone: int = 0
    rssi: int = 0
    certain: bool = True


@dataclass
class Model:
    """Moments are those of the daemon's clock, which stands still during a step."""

    moment: int
    slots: list[dict[str, str] | None] = field(default_factory=lambda: [None] * PAIRINGS_LIMIT)
    challenges: dict[str, int] = field(default_factory=dict)
    logins: Logins = field(default_factory=Logins)
    last_push: Moment | None = None
    push_token: AccessToken = field(default_factory=AccessToken)
    integrity_token: AccessToken = field(default_factory=AccessToken)
    junk: Junk = field(default_factory=Junk)
    google_exhausted: bool = False
    last_google: Moment | None = None
    remote: bool = True
    token_requests: int = 0
    integrity_requests: int = 0
    pushes: list[str] = field(default_factory=list)  # certain, in this order
    due: dict[int, float] = field(default_factory=dict)  # of a slot's push, on the real clock
    perhaps: Counter[str] = field(default_factory=Counter)
    queues: dict[int, deque[Expected]] = field(default_factory=dict)  # of connected clients

    # Login and challenges.

    def login(self, right: bool, name: str = OWNER) -> bool:
        return self.logins.attempt(name, right, self.moment)

    def consume(self, challenge: str) -> bool:
        issued = self.challenges.pop(challenge, None)
        return issued is not None and self.moment - issued <= CHALLENGE_LIFE

    # Pairings.

    def find(self, device_id: str) -> int | None:
        for number, slot in enumerate(self.slots):
            if slot is not None and slot["dev_id"] == device_id:
                return number
        return None

    def live(self) -> list[dict[str, str]]:
        return [slot for slot in self.slots if slot is not None and slot["status"] == "Valid"]

    def may_pair(self, device_id: str) -> bool:
        return self.find(device_id) is not None or len(self.live()) < PAIRINGS_LIMIT

    def store(self, described: dict[str, str], attested: bool) -> None:
        """A pairing that was answered with 200."""
        found = self.find(described["dev_id"])
        if found is not None:
            slot = self.slots[found]
            assert slot is not None
            self._token_changes(found, slot["push_token"], described["push_token"])
            slot.update(described)
        else:
            added = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(self.moment))
            slot = {"status": "Valid", **described, "date_added": added, "attestation_key": ""}
            found = next(
                number
                for number, held in enumerate(self.slots)
                if held is None or held["status"] != "Valid"
            )
            self._token_changes(found, None, described["push_token"])
            self.slots[found] = slot
        if attested:
            slot["attestation_key"] = GIVEN

    def delete(self, device_id: str) -> bool:
        found = self.find(device_id)
        slot = self.slots[found] if found is not None else None
        if found is not None and slot is not None:
            self._token_changes(found, slot["push_token"], None)
            self.slots[found] = {"status": "Invalid", **dict.fromkeys(DELETED_KEYS, "")}
        return found is not None

    def change(self, number: int, member: str, value: str) -> None:
        """Another program has written that into nvram."""
        slot = self.slots[number]
        assert slot is not None
        if member == "push_token":
            self._token_changes(number, slot[member], value)
        slot[member] = value

    def _token_changes(self, slot: int, old: str | None, new: str | None) -> None:
        """A slot is read when its push is due: what it held before gets nothing."""
        if slot not in self.due:
            return
        certain = old in self.pushes and time.monotonic() < self.due[slot] - DUE_MARGIN
        if old in self.pushes:
            place = self.pushes.index(old)
            self.pushes[place : place + 1] = [new] if certain and new is not None else []
        elif old is not None and self.perhaps[old] == 0:
            return  # its push has come
        if not certain:
            self.perhaps.update(token for token in (old, new) if token is not None)

    def proved_by_app_attest(self, device_id: str) -> bool:
        """Its slot holds a key, whether that serves or not: nothing else proves it."""
        found = self.find(device_id)
        slot = self.slots[found] if found is not None else None
        return slot is not None and slot["attestation_key"] != ""

    def holds_key_of(self, device_id: str) -> bool:
        found = self.find(device_id)
        slot = self.slots[found] if found is not None else None
        return slot is not None and slot["attestation_key"] == GIVEN

    # Local clients.

    def report(self, latitude: float, phone: int, rssi: int, certain: bool = True) -> None:
        for queue in self.queues.values():
            queue.append(Expected(latitude, phone, rssi, certain))

    # What a reload and time do.

    def reload(self) -> None:
        self.challenges.clear()
        self.last_push = None
        self.push_token, self.integrity_token = AccessToken(), AccessToken()
        self.servers_begin_anew()
        self.perhaps.update(self.pushes)
        self.pushes.clear()

    def servers_begin_anew(self) -> None:
        self.queues.clear()

    # The cloud.

    def expect_pushes(self) -> None:
        """To all who are paired, one after another from now on."""
        begin = time.monotonic()
        live = [number for number, slot in enumerate(self.slots) if slot in self.live()]
        self.due = {number: begin + place * PUSH_GAP for place, number in enumerate(live, start=1)}
        self.pushes += [slot["push_token"] for slot in self.live()]

    def may_push(self) -> bool:
        """Something may leave that is not certain: also to a phone that pairs in a slot, left by
        another, before its push is due."""
        return bool(self.perhaps or self.due)

    def push_came(self, token: str) -> None:
        """The slot that holds the token has had its push."""
        held = [None if slot is None else slot["push_token"] for slot in self.slots]
        self.due = {slot: at for slot, at in self.due.items() if held[slot] != token}

    def forget_pushes(self) -> None:
        """None may leave any more."""
        self.perhaps.clear()
        self.due.clear()

    def asks_for_push(self) -> bool:
        """A request of a local client leads to pushes now."""
        if not self.live() or self.pushed_lately():
            return False
        self.last_push = Moment(self.moment)
        return True

    def pushed_lately(self) -> bool:
        last = self.last_push
        return last is not None and last.was_lately(self.moment, PUSH_INTERVAL)

    def needs_push_token(self) -> bool:
        return not self.push_token.serves(self.moment)

    def needs_integrity_token(self) -> bool:
        return not self.integrity_token.serves(self.moment)

    def asks_google(self) -> bool:
        """With an access token at hand, the decoding service is asked now."""
        last = self.last_google
        if self.google_exhausted and last and last.was_lately(self.moment, GOOGLE_SILENCE + 1):
            return False
        self.google_exhausted = False
        self.last_google = Moment(self.moment)
        return True
