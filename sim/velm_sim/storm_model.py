"""What must be true of the daemon after each step of a storm, worked out without asking it."""

from __future__ import annotations

import time
from collections import Counter, deque
from dataclasses import dataclass, field

from .etc_files import ADMIN
from .storm_schedule import PAIRINGS_LIMIT

CHALLENGE_LIFE = 60
PUSH_INTERVAL = 60
TOKEN_LIFE = 3600
LOGIN_ATTEMPTS = 5
LOGIN_BLOCK = 60
GOOGLE_SILENCE = 3599
DELETED_KEYS = (
    "dev_id", "dev_type", "name", "push_token", "dev_model", "os_version", "date_added",
    "attestation_key",
)  # fmt: skip
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
class Failures:
    """Wrong logins in a row, of all or of one name."""

    count: int = 0
    first: int = 0

    def block(self, moment: int) -> bool:
        """Whether logins are refused; a block that is over is forgotten."""
        if self.count < LOGIN_ATTEMPTS:
            return False
        if self.first <= moment < self.first + LOGIN_BLOCK:
            return True
        self.count = 0
        return False

    def add(self, moment: int) -> None:
        if self.count == 0:
            self.first = moment
        self.count += 1


@dataclass
class Model:
    """Moments are those of the daemon's clock, which stands still during a step."""

    moment: int
    slots: list[dict[str, str] | None] = field(default_factory=lambda: [None] * PAIRINGS_LIMIT)
    challenges: dict[str, int] = field(default_factory=dict)
    failures: Failures = field(default_factory=Failures)
    failures_of: dict[str, Failures] = field(default_factory=dict)
    last_push: int = 0
    push_token_until: int | None = None
    integrity_token_until: int | None = None
    google_exhausted: bool = False
    last_google: int = 0
    remote: bool = True
    token_requests: int = 0
    integrity_requests: int = 0
    pushes: list[str] = field(default_factory=list)  # certain, in this order
    perhaps: Counter[str] = field(default_factory=Counter)
    queues: dict[int, deque[Expected]] = field(default_factory=dict)  # of connected clients

    # Login and challenges.

    def login(self, right: bool, name: str = ADMIN.username) -> bool:
        of_name = self.failures_of.setdefault(name, Failures())
        if self.failures.block(self.moment) or of_name.block(self.moment):
            return False
        if right:
            self.failures, self.failures_of[name] = Failures(), Failures()
            return True
        self.failures.add(self.moment)
        of_name.add(self.moment)
        return False

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
            slot.update(described)
        else:
            added = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(self.moment))
            slot = {"status": "Valid", **described, "date_added": added, "attestation_key": ""}
            found = next(
                number
                for number, held in enumerate(self.slots)
                if held is None or held["status"] != "Valid"
            )
            self.slots[found] = slot
        if attested:
            slot["attestation_key"] = GIVEN

    def delete(self, device_id: str) -> bool:
        found = self.find(device_id)
        if found is not None:
            self.slots[found] = {"status": "Invalid", **dict.fromkeys(DELETED_KEYS, "")}
        return found is not None

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
        self.last_push = 0
        self.push_token_until = self.integrity_token_until = None
        self.servers_begin_anew()
        self.perhaps.update(self.pushes)
        self.pushes.clear()

    def servers_begin_anew(self) -> None:
        self.queues.clear()

    # The cloud.

    def asks_for_push(self) -> bool:
        """A request of a local client leads to pushes now."""
        if not self.live() or self.last_push + PUSH_INTERVAL > self.moment:
            return False
        self.last_push = self.moment
        return True

    def needs_push_token(self) -> bool:
        return self.push_token_until is None or self.moment >= self.push_token_until

    def needs_integrity_token(self) -> bool:
        return self.integrity_token_until is None or self.moment >= self.integrity_token_until

    def asks_google(self) -> bool:
        """With an access token at hand, the decoding service is asked now."""
        if self.google_exhausted and self.last_google + GOOGLE_SILENCE >= self.moment:
            return False
        self.google_exhausted = False
        self.last_google = self.moment
        return True
