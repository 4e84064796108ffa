"""Whatever strangers mix: the daemon's memory stays within its bound, and phones are served.

`--every-fault` strikes for half a minute each, else it is a moment.
"""

from __future__ import annotations

import time
from collections.abc import Callable

import pytest
from velm_harness import stranger
from velm_harness.promptness import latencies
from velm_harness.sample import Sample
from velm_harness.watched_memory import Watched
from velm_sim.access_point import AccessPoint

PHONE = 8  # the number of a host that does nothing wrong

JSON = "nested JSON+JSON of many keys+flat JSON of 990+wrong passwords"
PIECES = "heads byte by byte+dripped bodies+one-byte chunks"
EVERYTHING = f"new keys and a byte+{JSON}+{PIECES}"
UNREAD = "answers unread+many headers"
NEW_KEYS_UNREAD = "answers to new keys unread+many headers"
# What one host and four may add to the daemon's memory, whatever they do: docs/limits.md has the sum.
LIMITS_KIB = {1: 777, 4: 2257}
MIXES = {
    f"{'one host' if hosts == 1 else 'four hosts'}: {name}": (hosts, deeds)
    for hosts in LIMITS_KIB
    for name, deeds in {
        "new keys and a byte": "new keys and a byte",
        "JSON": JSON,
        "answers unread and many headers": UNREAD,
        "answers to new keys unread and many headers": NEW_KEYS_UNREAD,
        "everything": EVERYTHING,
    }.items()
}


@pytest.fixture
def duration(sample: Sample) -> float:
    return 30.0 if sample.whole else 2.0


@pytest.fixture
def quiet_access_point(cold_access_point: AccessPoint) -> AccessPoint:
    """Bodies are not printed for the log, and the memory of the start has been given back."""
    cold_access_point.configure({"logger.level": "error"})
    cold_access_point.nvram_set({"zelkad_debug_level": "error"})
    cold_access_point.start()
    assert cold_access_point.phone(PHONE).info().status == 200
    time.sleep(0.2)
    return cold_access_point


@pytest.mark.parametrize("mix", MIXES)
def test_memory_stays_within_its_bound_while_strangers_mix(
    mix: str,
    quiet_access_point: AccessPoint,
    duration: float,
    record_property: Callable[[str, object], None],
) -> None:
    hosts, deeds = MIXES[mix]
    access_point = quiet_access_point
    strangers = [(deeds, access_point.lan_host(number)) for number in range(hosts)]
    with access_point.lan_host(PHONE).session() as session:
        session.connect()
        with stranger.at_work_together(strangers, duration + 3):
            with Watched(access_point.daemon.resident_kib) as memory:
                end = time.monotonic() + duration
                while time.monotonic() < end:
                    latencies(access_point.daemon, session, 5)  # each is answered with 200
            if hosts == 1:  # four have all connections; an attestation takes memory of its own
                assert access_point.phone(PHONE).pair().status == 200
    record_property("growth", memory.growth)
    if not access_point.build.is_asan:  # the sanitizer keeps what is freed
        assert memory.growth <= LIMITS_KIB[hosts]
