"""The floor of a round: a bare program that has velmd's round with velmd's peers."""

from __future__ import annotations

import re
import shutil
from collections import Counter
from collections.abc import Sequence
from dataclasses import replace
from pathlib import Path

import pytest
from velm_bench import round_scene, rounds
from velm_bench.instructions import can_count
from velm_bench.round_scene import APP_ATTEST, PLAY_INTEGRITY, Kind, Scene, Setting
from velm_bench.watch import traced

KINDS = pytest.mark.parametrize("kind", [APP_ATTEST, PLAY_INTEGRITY], ids=lambda kind: kind.name)


@KINDS
def test_the_floor_has_velmds_round_with_its_peers(setting: Setting, kind: Kind) -> None:
    with setting.scene(kind) as scene, setting.floor(kind) as floor:
        scene.round()
        bare = floor.round()
        pushed, by_floor = scene.cloud.fcm.requests[-2:]
    assert 0 < bare.hashes_us < bare.visit_cpu_us < bare.cpu_us
    assert bare.hashes_us > bare.cpu_us / 4, "most of a round are its two hashes"
    assert bare.wakeups > 3, "it sleeps while its peers compute"
    assert (by_floor.host, by_floor.path) == (pushed.host, pushed.path)
    assert set(by_floor.headers) == set(pushed.headers)
    assert len(by_floor.body) == len(pushed.body)


SENT = re.compile(r"(?:sendto|write)\((?P<fd>\d+), .*\) = (?P<size>\d+)$")
CLOSED = re.compile(r"close\((?P<fd>\d+)\)")


def packets(scene: Scene, trace: Path) -> Sequence[int]:
    """Their sizes, in the order in which a round sends them."""
    with traced(scene.pid, trace):
        scene.round()
    found: list[int] = []
    held: Counter[str] = Counter()  # by the kernel, until more is sent or the socket closed
    for line in trace.read_text().splitlines():
        if sent := SENT.search(line):
            held[sent["fd"]] += int(sent["size"])
        ended = sent if "MSG_MORE" not in line else None
        if (end := ended or CLOSED.search(line)) and held[end["fd"]]:
            found.append(held.pop(end["fd"]))
    return found


def test_the_floor_sends_the_packets_of_velmd(setting: Setting) -> None:
    """Without sessions, since the floor has none with the cloud."""
    if not shutil.which("strace"):
        pytest.skip("strace, which scripts/bench.sh installs, is not there")
    with (
        setting.cloud.without_sessions(), setting.scene(APP_ATTEST) as scene,
        setting.floor(APP_ATTEST) as floor,
    ):  # fmt: skip
        scene.round()
        velmds = packets(scene, setting.scratch / "velmd.trace")
        bare = packets(floor, setting.scratch / "floor.trace")
    # A signature by ECDSA has one or two bytes more or less.
    assert bare == pytest.approx(velmds, abs=4)


@pytest.mark.skipif(not can_count(), reason="valgrind, which scripts/bench.sh installs, is not there")
def test_the_instructions_of_the_floor_are_those_of_its_pieces(setting: Setting) -> None:
    """Two hashes and two connections, and next to nothing of its own."""
    goes_on = rounds.count_instructions(setting, APP_ATTEST, 1)
    with setting.cloud.without_sessions():
        found = rounds.count_instructions(setting, APP_ATTEST, 1)
    assert found and goes_on
    assert 60e6 < found.floor["libcrypt.so.1.1.0"] < 120e6
    assert found.floor["libcrypt.so.1.1.0"] == pytest.approx(
        found.velmd["libcrypt.so.1.1.0"], rel=0.01
    )
    assert found.floor["libssl.so.3"] > 100_000 > found.floor["velm-round-floor"]
    assert 3e6 < rounds.Instructions.without_hashes(found.floor) < 20e6
    going_on, bare, whole = map(
        rounds.Instructions.without_hashes, (goes_on.velmd, found.floor, found.velmd)
    )
    assert going_on < 0.9 * bare < bare < whole, "a session saves velmd a part of the floor's work"


def test_a_floor_with_another_password_fails(
    setting: Setting, monkeypatch: pytest.MonkeyPatch
) -> None:
    another = replace(round_scene.ADMIN, password="another")
    monkeypatch.setattr(round_scene, "ADMIN", another)
    with setting.scene(APP_ATTEST), setting.floor(APP_ATTEST) as floor:
        with pytest.raises((OSError, ValueError)):
            floor.round()
        assert "the password has another" in floor.daemon.tail()


def test_a_floor_opens_a_token_where_velmd_does(
    setting: Setting, monkeypatch: pytest.MonkeyPatch
) -> None:
    """It fails by a token under another key. In place of a signature it does not look at one."""
    right, other = (round_scene.integrity_objects(bytes(32)) for _ in range(2))
    mixed = {**right, "token.jwe": other["token.jwe"]}
    monkeypatch.setattr(round_scene, "integrity_objects", lambda digest: mixed)
    with setting.scene(APP_ATTEST):
        with setting.floor(APP_ATTEST) as floor:
            floor.round()
        with setting.floor(PLAY_INTEGRITY) as floor:
            with pytest.raises((OSError, ValueError)):
                floor.round()
            assert "cannot check the proof" in floor.daemon.tail()
