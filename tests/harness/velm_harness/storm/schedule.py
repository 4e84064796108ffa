"""What a storm does and when: drawn from its seed alone, before anything runs."""

from __future__ import annotations

import random
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from typing import Any

IOS_PHONES = 3
ANDROID_PHONES = 3
PHONES = IOS_PHONES + ANDROID_PHONES
CLIENTS = 4
PAIRINGS_LIMIT = 4  # fewer than phones, so that the limit is met
LAN_EVENTS = (
    "port bounces", "bridge bounces", "bridge rebuilt", "bridge rebuilt elsewhere", "address added",
    "used one goes", "other one goes", "replaced", "replaced", "gap", "renewed", "flaps",
    "used one flaps",
)  # fmt: skip
ADDRESSES = ("192.168.1.1", *(f"192.168.1.{host}" for host in range(2, 7)))

NAMES = (
    "Anna's iPhone", "Büro \"zwei\"", "電話", "x" * 300, "a\\b", "Ben", "50 % off", "=;'$(id)",
)  # fmt: skip
# Seconds by which the daemon's clock jumps before a step: mostly none, often beside a limit, and
# back too, though less far than forth.
JUMPS = (0,) * 16 + (
    *(1, 3, 10, 58, 59, 60, 60, 60, 61, 61, 90, 599, 601, 3599, 3600, 3601),
    *(-1, -1, -2, -10, -59, -60, -61, -600, -3600, -3601),
)
LOCATION_FLAWS = (
    *("none",) * 6, "replayed", "body", "other key", "bssid", "password", "no challenge",
    "old challenge", "oldest challenge", "no location", "array",
)  # fmt: skip
PUSH_FAULTS = (
    *("none",) * 10, "fcm 404", "fcm 404", "fcm 404 page", "fcm 404 of another kind",
    "fcm 401", "fcm 401", "fcm 429", "fcm 500", "fcm garbage", "fcm hang up",
    "token 400", "token 500", "token garbage", "token hang up", "certificate", "cloud down",
    "no dns", "token silence", "fcm silence",
)  # fmt: skip
INTEGRITY_FAULTS = (
    *("none",) * 10, "401", "429", "500", "garbage", "hang up", "no verdict", "certificate",
    "cloud down", "other package",
)  # fmt: skip
CERTIFICATES = ("other_ca", "self_signed", "other_name", "expired", "embedded_nul")


@dataclass(frozen=True)
class Step:
    """One thing that happens, `jump` seconds later by the daemon's clock."""

    number: int
    jump: int
    kind: str
    arguments: dict[str, Any]

    def __str__(self) -> str:
        said = " ".join(f"{name}={value!r}" for name, value in self.arguments.items())
        return f"{self.number} {self.jump:+d}s {self.kind} {said}".rstrip()


Draw = Callable[[random.Random], dict[str, Any]]


def _phone(dice: random.Random) -> dict[str, Any]:
    return {"phone": dice.randrange(PHONES)}


def _client(dice: random.Random) -> dict[str, Any]:
    return {"client": dice.randrange(CLIENTS)}


def _pair(dice: random.Random) -> dict[str, Any]:
    flaws = ("none",) * 5 + ("password", "proof", "expired", "no challenge", "no name")
    return {
        **_phone(dice),
        "by": dice.choice(("attestation", "attestation", "assertion")),
        "flaw": dice.choice(flaws),
        "name": dice.choice(NAMES),
        "push_token": f"fcm-{dice.getrandbits(64):016x}:{'x' * dice.choice((20, 120, 2000))}",
        "google": dice.choice(INTEGRITY_FAULTS),
    }


def _unpair(dice: random.Random) -> dict[str, Any]:
    how = ("itself", "itself", "by another", "unknown", "password", "no device id")
    return {**_phone(dice), "how": dice.choice(how), "other": dice.randrange(PHONES)}


def _location(dice: random.Random) -> dict[str, Any]:
    return {
        **_phone(dice),
        "flaw": dice.choice(LOCATION_FLAWS),
        "latitude": round(dice.uniform(-90, 90), 6),
        "rssi": dice.randrange(-90, -20),
        "google": dice.choice(INTEGRITY_FAULTS),
    }


def _ask(dice: random.Random) -> dict[str, Any]:
    return {
        **_client(dice),
        "fault": dice.choice(PUSH_FAULTS),
        "which": dice.randrange(PAIRINGS_LIMIT),
        "certificate": dice.choice(CERTIFICATES),
        "within": dice.choice((1, 45, 60, 65535)),
    }


def _outside(dice: random.Random) -> dict[str, Any]:
    return {
        "slot": dice.randrange(PAIRINGS_LIMIT),
        "what": dice.choice(("name", "push_token", "attestation_key", "delete", "unrelated")),
        "value": f"outside {dice.getrandbits(32):08x}",
    }


def _login(dice: random.Random) -> dict[str, Any]:
    return {
        **_phone(dice),
        "count": dice.choice((1, 1, 2, 4, 5, 6, 9)),
        "name": dice.choice(("admin", "admin", "root", "nobody", "second")),
        "between": dice.random() < 0.4,
        "wait": dice.choice((0, 0, 59, 60, 61, -1, -60, -3600)),
    }


def _datagrams(dice: random.Random) -> dict[str, Any]:
    return {"seed": dice.getrandbits(32), "count": dice.choice((1, 20, 100))}


def _vanish(dice: random.Random) -> dict[str, Any]:
    when = ("before the handshake", "in the head", "in the body", "before the reply")
    return {**_phone(dice), "when": dice.choice(when), "latitude": round(dice.uniform(-90, 90), 6)}


def _lan(dice: random.Random) -> dict[str, Any]:
    return {
        "event": dice.choice(LAN_EVENTS),
        "address": dice.choice(ADDRESSES),
        "pause_ms": dice.choice((0, 0, 1, 2, 3, 5, 20, 100, 400)),
        "times": dice.choice((1, 1, 2, 5, 20)),
        "reload_ms": dice.randint(-15, 15) if dice.random() < 0.3 else None,
        "phones": dice.random() < 0.6,
        **_phone(dice),
    }


def _address_command(dice: random.Random) -> dict[str, Any]:
    return {"how": dice.choice((*("fails", "prints nothing") * 4, "hangs"))}


def _cloud_addresses(dice: random.Random) -> dict[str, Any]:
    """The names of the cloud have another address, which leads nowhere."""
    return {
        "dead": dice.choice(("none", "refuses", "silent", "silent")),
        "first": dice.random() < 0.7,
    }


def _junk_tokens(dice: random.Random) -> dict[str, Any]:
    return {
        "phone": IOS_PHONES + dice.randrange(ANDROID_PHONES),
        "count": dice.choice((3, 9, 10, 11)),
        "wait": dice.choice((0, 59, 60, -1, -3600, 3599, 3600)),
    }


# Kind of step, how often among all, what is drawn for it.
KINDS: tuple[tuple[str, int, Draw], ...] = (
    ("pair", 16, _pair),
    ("unpair", 5, _unpair),
    ("list", 5, _phone),
    ("challenge", 3, _phone),
    ("location", 24, _location),
    ("wrong logins", 2, _login),
    ("ask", 14, _ask),
    ("connect", 6, _client),
    ("disconnect", 3, _client),
    ("bad frame", 2, _client),
    ("crowd", 1, _client),
    ("vanish", 5, _vanish),
    ("half open", 3, lambda dice: {"count": dice.choice((1, 3, 5))}),
    ("reload", 3, lambda dice: {}),
    ("new certificate", 1, lambda dice: {}),
    ("lan", 10, _lan),
    ("address command", 1, _address_command),
    ("method", 2, lambda dice: {"method": dice.choice(("local", "remote"))}),
    ("outside", 5, _outside),
    ("cloud addresses", 2, _cloud_addresses),
    ("junk tokens", 1, _junk_tokens),
    ("datagrams", 3, _datagrams),
    ("info", 2, _phone),
    ("census", 2, lambda dice: {}),
)


def schedule(seed: int) -> Iterator[Step]:
    """The steps of a seed, without end. Nothing but the seed has a say."""
    dice = random.Random(seed)
    kinds, weights = [kind for kind in KINDS], [weight for _, weight, _ in KINDS]
    number = 0
    while True:
        number += 1
        kind, _, draw = dice.choices(kinds, weights)[0]
        yield Step(number, dice.choice(JUMPS), kind, draw(dice))
