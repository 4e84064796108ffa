"""velmctl explain, by what a control socket says. No daemon runs here."""

from __future__ import annotations

import json
import os
import subprocess
import time
from collections.abc import Iterator
from pathlib import Path

import pytest

from velm_harness.fake_control import (
    FakeControl,
    moment,
    push,
    report,
    response,
    round_of,
    rounds,
    status,
    visit,
)
from velm_sim.build import Build
from velm_sim.daemon import wait_until

WRONG_BSSID = visit(
    status=403,
    accepted=False,
    check="device_check",
    why="its BSSID is none of this access point's",
    hint="named 02:11:22:33:44:55, ours: 00:1a:2b:3c:4d:50",
)
REFUSED = round_of(
    state="expired",
    closed=moment("12:04:00"),
    cause="phones refused",
    causeText="every phone that came was refused",
    visits=[WRONG_BSSID],
    reports=[],
)


@pytest.fixture
def control(tmp_path: Path) -> Iterator[FakeControl]:
    with FakeControl(tmp_path / "control") as made:
        made.answer("/v1/status", status())
        yield made


class Velmctl:
    """The program, told where the control socket is."""

    def __init__(self, build: Build, directory: Path) -> None:
        self._program = str(build.program("velmctl"))
        self._socket = str(directory / "control")
        self._environment = {**os.environ, "TZ": "UTC", **build.environment(directory)}

    def command(self, *arguments: str) -> list[str]:
        return [self._program, *arguments, "--control", self._socket]

    def run(self, *arguments: str) -> subprocess.CompletedProcess[str]:
        return subprocess.run(
            self.command(*arguments),
            env=self._environment,
            capture_output=True,
            text=True,
            timeout=30,
        )

    def follow(self, directory: Path, *arguments: str) -> subprocess.Popen[str]:
        with open(directory / "out", "w") as out, open(directory / "errors", "w") as errors:
            return subprocess.Popen(
                self.command("explain", "--follow", *arguments),
                env=self._environment,
                stdout=out,
                stderr=errors,
                text=True,
            )


@pytest.fixture
def velmctl(build: Build, tmp_path: Path) -> Velmctl:
    return Velmctl(build, tmp_path)


def test_the_story_of_a_phone_with_a_wrong_bssid(control: FakeControl, velmctl: Velmctl) -> None:
    control.answer("/v1/rounds", rounds(REFUSED))
    done = velmctl.run("explain")
    assert (done.returncode, done.stderr) == (1, "")
    assert done.stdout == (
        "Round 12: process 123 (user 0) asked at 12:03:00 for a location within 60 s.\n"
        "  Anna's iPhone was pushed to at 12:03:01 (200).\n"
        "  It came from 192.168.1.50 at 12:03:05 and was refused: its BSSID "
        "02:11:22:33:44:55 is none of this access point's (00:1a:2b:3c:4d:50).\n"
        "  The time for the request was up at 12:04:00.\n"
        "Likely cause: Every phone that came was refused.\n"
        "Remedy: Connect the phone to the Wi-Fi of this access point itself, not to another access "
        "point or a repeater. If it was, compare the BSSIDs that the platform gives: wlN_hwaddr in "
        "nvram.\n"
    )


def test_a_round_with_a_location_is_good(control: FakeControl, velmctl: Velmctl) -> None:
    control.answer("/v1/rounds", rounds(round_of()))
    done = velmctl.run("explain")
    assert done.returncode == 0
    assert "It posted its location from 192.168.1.50 at 12:03:05." in done.stdout
    assert "Its location went to 2 local clients at 12:03:06." in done.stdout
    assert "cause" not in done.stdout


def test_without_a_round_there_is_nothing_to_explain(
    control: FakeControl, velmctl: Velmctl
) -> None:
    control.answer("/v1/rounds", rounds())
    done = velmctl.run("explain")
    assert done.returncode == 1
    assert done.stdout == (
        "No local client has asked for a location since the daemon was started.\n"
    )


@pytest.mark.parametrize("asked, told", [([], 1), (["2"], 2), (["32"], 3)])
def test_as_many_rounds_as_asked_for_the_newest_last(
    control: FakeControl, velmctl: Velmctl, asked: list[str], told: int
) -> None:
    control.answer("/v1/rounds", rounds(*(round_of(id=number) for number in (9, 8, 7))))
    done = velmctl.run("explain", *asked)
    heads = [line.split(":")[0] for line in done.stdout.splitlines() if line.startswith("Round")]
    assert heads == [f"Round {number}" for number in (7, 8, 9)][3 - told :]


@pytest.mark.parametrize("count", [0, 1, 3])
def test_json_has_one_shape(control: FakeControl, velmctl: Velmctl, count: int) -> None:
    control.answer("/v1/rounds", rounds(*([REFUSED] * count)))
    done = velmctl.run("explain", "--json", "32")
    (line,) = done.stdout.splitlines()
    made = json.loads(line)
    assert made["version"] == 1 and len(made["rounds"]) == count
    for told in made["rounds"]:
        assert told.keys() == REFUSED.keys() | {"story", "remedy"}
        assert told["story"][0] == "Anna's iPhone was pushed to at 12:03:01 (200)."
        assert told["remedy"].startswith("Connect the phone")


def test_a_phone_that_came_unasked_is_told(control: FakeControl, velmctl: Velmctl) -> None:
    stranger = visit(
        deviceId=None,
        route=None,
        status=None,
        accepted=False,
        check="tls",
        why="the handshake failed",
        times=3,
        until=moment("12:04:00"),
    )
    control.answer("/v1/rounds", rounds(round_of(), visits=[stranger]))
    assert (
        "Outside of the rounds, newest first:\n"
        "  Somebody came from 192.168.1.50 at 12:03:05, 3 times until 12:04:00, and was refused by "
        "TLS: the handshake failed.\n"
    ) in velmctl.run("explain").stdout


EVIL = "\x1b[31m\x07\x9b\u202eevil\u2066\r\nRound 99: all is well"


def test_no_text_from_outside_commands_the_terminal(
    control: FakeControl, velmctl: Velmctl
) -> None:
    evil_push = push(name=EVIL, model=EVIL, status=None, error=EVIL)
    evil_visit = visit(deviceId=EVIL, route=EVIL, accepted=False, check=EVIL, why=EVIL, hint=EVIL)
    evil = round_of(
        state=EVIL,
        cause=EVIL,
        causeText=EVIL,
        pushRun={"begun": False, "why": EVIL, "whyText": EVIL},
        pushes=[evil_push],
        visits=[evil_visit],
        reports=[report(deviceId=EVIL, address=EVIL)],
    )
    control.answer("/v1/rounds", rounds(evil, visits=[evil_visit]))
    for form in ([], ["--json"]):
        done = velmctl.run("explain", *form)
        assert "evil" in done.stdout
        letters = set(done.stdout.replace("\n", ""))
        assert not letters & set("\x1b\x07\x9b\u202e\u2066\r")
        assert "\nRound 99" not in done.stdout


def test_an_open_round_has_a_likely_cause_so_far(control: FakeControl, velmctl: Velmctl) -> None:
    control.answer(
        "/v1/rounds", rounds(round_of(state="open", closed=None, cause=None, reports=[],
                                      visits=[WRONG_BSSID]))
    )  # fmt: skip
    told = velmctl.run("explain").stdout
    assert "\nLikely cause so far: " in told and "Remedy: " in told


def test_follow_tells_what_is_new(
    control: FakeControl, velmctl: Velmctl, tmp_path: Path
) -> None:
    """The story so far, then each line once, with the round that it belongs to."""
    begun = round_of(state="open", closed=None, visits=[], reports=[])
    control.answer("/v1/rounds", rounds(begun, latest=3))
    follower = velmctl.follow(tmp_path)
    try:
        control.wait_for("after=3")
        open_visit = {**begun, "visits": [WRONG_BSSID]}
        control.answer("/v1/rounds", rounds(open_visit, latest=4))
        control.wait_for("after=4")
        control.answer("/v1/rounds", rounds(REFUSED, latest=5))
        control.wait_for("after=5")
    finally:
        follower.kill()
        follower.wait(10)
    assert (tmp_path / "errors").read_text() == ""
    lines = (tmp_path / "out").read_text().splitlines()
    assert lines[:4] == [
        "Round 12: process 123 (user 0) asked at 12:03:00 for a location within 60 s.",
        "  Anna's iPhone was pushed to at 12:03:01 (200).",
        "  It is still open, until 12:04:00.",
        "",
    ]
    assert [line.split(" at ")[0] for line in lines[4:7]] == [
        "Round 12: Anna's iPhone came from 192.168.1.50",
        "Round 12: The time for the request was up",
        "Round 12: Likely cause: Every phone that came was refused.",
    ]
    assert len(lines) == 8 and lines[7].startswith("Round 12: Remedy: ")


def test_follow_goes_on_after_a_restart(
    control: FakeControl, velmctl: Velmctl, tmp_path: Path
) -> None:
    control.answer("/v1/rounds", rounds(round_of(), latest=9))
    follower = velmctl.follow(tmp_path)
    errors = tmp_path / "errors"
    try:
        control.wait_for("after=9")
        control.close()
        wait_until(lambda: "has ended" in errors.read_text(), 10, "it noticed the end")
        with FakeControl(tmp_path / "control") as second:
            second.answer("/v1/rounds", rounds(round_of(id=1, asked={
                "at": moment("12:06:00"), "pid": 5, "uid": 0, "requestId": 1, "timeoutSeconds": 60,
            }), latest=1))
            second.wait_for("after=1")
    finally:
        follower.kill()
        follower.wait(10)
    assert errors.read_text().splitlines()[:2] == [
        "velmctl: the daemon has ended; waiting for it",
        "velmctl: the daemon is back",
    ]
    assert "Round 1: process 5 (user 0) asked at 12:06:00" in (tmp_path / "out").read_text()


def test_follow_waits_for_a_busy_daemon(
    control: FakeControl, velmctl: Velmctl, tmp_path: Path
) -> None:
    control.answer("/v1/rounds", rounds(round_of(), latest=9))
    follower = velmctl.follow(tmp_path)
    errors = tmp_path / "errors"
    try:
        control.wait_for("after=9")
        control.answer("/v1/rounds", {}, code=503)
        wait_until(lambda: "is busy" in errors.read_text(), 10, "it noticed")
        control.replace("/v1/rounds", rounds(round_of(), latest=12))
        control.wait_for("after=12")
    finally:
        follower.kill()
        follower.wait(10)
    assert errors.read_text().splitlines() == [
        "velmctl: the daemon is busy; waiting for it",
        "velmctl: the daemon is back",
    ]


@pytest.mark.parametrize("code", [404, 500])
def test_follow_ends_when_the_daemon_does_not_know_rounds(
    control: FakeControl, velmctl: Velmctl, tmp_path: Path, code: int
) -> None:
    control.answer("/v1/rounds", rounds(round_of(), latest=9))
    follower = velmctl.follow(tmp_path)
    try:
        control.wait_for("after=9")
        control.answer("/v1/rounds", {}, code=code)
        assert follower.wait(10) == 1
    finally:
        follower.kill()
        follower.wait(10)
    assert f"status {code}" in (tmp_path / "errors").read_text()


def test_follow_in_json_gives_what_is_new(
    control: FakeControl, velmctl: Velmctl, tmp_path: Path
) -> None:
    control.answer("/v1/rounds", rounds(round_of(), latest=9))
    follower = velmctl.follow(tmp_path, "--json")
    try:
        control.wait_for("after=9")
        control.answer("/v1/rounds", rounds(REFUSED | {"id": 13}, round_of(), latest=10))
        control.wait_for("after=10")
    finally:
        follower.kill()
        follower.wait(10)
    documents = [json.loads(line) for line in (tmp_path / "out").read_text().splitlines()]
    assert [[told["id"] for told in one["rounds"]] for one in documents] == [[12], [13]]


AFTER_NINE = "/v1/rounds?wait=30&after=9"


def test_follow_does_not_ask_in_a_hot_loop(
    control: FakeControl, velmctl: Velmctl, tmp_path: Path
) -> None:
    """A control socket that does not wait as it is asked to."""
    answer = response(json.dumps(rounds(round_of(), latest=9)).encode())
    control.serve = lambda connection: connection.sendall(answer)
    follower = velmctl.follow(tmp_path)
    try:
        control.wait_for("after=9")
        begun, before = time.monotonic(), control.requests.count(AFTER_NINE)
        wait_until(lambda: control.requests.count(AFTER_NINE) >= before + 5, 10, "it asks on")
    finally:
        follower.kill()
        follower.wait(10)
    assert time.monotonic() - begun >= 0.35
