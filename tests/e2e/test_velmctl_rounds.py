"""velmctl explain, status and metrics against the running daemon: what a person reads."""

from __future__ import annotations

import json
import os
import re
import subprocess
from collections.abc import Callable

import pytest
from velm_sim.access_point import BSSIDS, AccessPoint
from velm_sim.answers import Answer
from velm_sim.cloud import Cloud
from velm_sim.daemon import wait_until
from velm_sim.ipc_client import IpcClient
from velm_sim.phone import Login, Phone

# Not a part of a BSSID.
CLOCK = re.compile(r"(?<![:\w])(?:\d{4}-\d\d-\d\d )?\d\d:\d\d:\d\d(?![:\w])")
OTHER_BSSID = "02:11:22:33:44:55"


def velmctl(access_point: AccessPoint, *arguments: str) -> subprocess.CompletedProcess[str]:
    command = [str(access_point.build.program("velmctl")), *arguments]
    command += ["-c", str(access_point.configuration_file)]
    environment = {
        **os.environ,
        "TZ": "UTC",
        **access_point.build.environment(access_point.directory),
    }
    return subprocess.run(command, env=environment, capture_output=True, text=True, timeout=20)


def wait_for(access_point: AccessPoint, state: str, timeout: float = 10) -> None:
    wait_until(
        lambda: access_point.control.json("/v1/rounds")["rounds"][0]["state"] == state,
        timeout,
        f"the round is never {state}",
    )


def end_the_wait(access_point: AccessPoint, wanted_within: int = 60) -> None:
    access_point.move_clock(wanted_within + 2)
    wait_for(access_point, "expired")


def wait_for_push(access_point: AccessPoint, cloud: Cloud, status: int = 200) -> None:
    cloud.fcm.wait()

    def is_answered() -> bool:
        (push,) = access_point.control.json("/v1/rounds")["rounds"][0]["pushes"]
        return bool(push["status"] == status)

    wait_until(is_answered, 10, f"the push is not answered with {status}")


def explained(access_point: AccessPoint) -> str:
    """The story of the newest round, which failed; each clock reads as HH:MM:SS."""
    done = velmctl(access_point, "explain")
    assert (done.returncode, done.stderr) == (1, "")
    text = CLOCK.sub("HH:MM:SS", done.stdout)
    return text.partition("\nOutside of the rounds")[0]


def test_status_of_a_daemon_that_is_well(
    access_point: AccessPoint, paired_phone: Phone, ipc: IpcClient
) -> None:
    done = velmctl(access_point, "status")
    assert (done.returncode, done.stderr) == (0, "")
    assert paired_phone.profile.name in done.stdout
    assert "Nothing is wrong." in done.stdout
    made = json.loads(velmctl(access_point, "status", "--json").stdout)
    assert made["daemon"]["pid"] == access_point.daemon.pid


def test_metrics_of_the_daemon(access_point: AccessPoint) -> None:
    done = velmctl(access_point, "metrics")
    assert done.returncode == 0 and "_info{version=" in done.stdout


def test_a_good_round_is_told_from_push_to_report(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request()
    wait_for_push(access_point, cloud)
    assert paired_phone.location().status == 200
    ipc.receive_report()
    wait_for(access_point, "answered")
    done = velmctl(access_point, "explain")
    assert (done.returncode, done.stderr) == (0, "")
    name, address = paired_phone.profile.name, paired_phone.host.source
    told = CLOCK.sub("HH:MM:SS", done.stdout)
    assert (
        f" asked at HH:MM:SS for a location within 60 s.\n"
        f"  {name} was pushed to at HH:MM:SS (200).\n"
        f"  It fetched a challenge from {address} at HH:MM:SS.\n"
        f"  It posted its location from {address} at HH:MM:SS.\n"
        f"  Its location went to 1 local client at HH:MM:SS.\n"
        f"  The request was answered at HH:MM:SS.\n"
    ) in told


def test_a_push_that_the_service_does_not_take(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    cloud.fcm.answer_always(Answer.json({"error": {"status": "NOT_FOUND"}}, 404))
    ipc.request(wanted_within=1)
    wait_for_push(access_point, cloud, 404)
    wait_for(access_point, "expired")
    told = explained(access_point)
    assert (
        f"  {paired_phone.profile.name} was pushed to at HH:MM:SS, and the push service did not "
        "take it (404): the push token is not registered any more.\n"
    ) in told
    assert "\nRemedy: The phone's push token is not known any more" in told


@pytest.mark.movable_clock
def test_a_phone_that_names_another_bssid(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request()
    wait_for_push(access_point, cloud)
    paired_phone.bssid = OTHER_BSSID
    assert paired_phone.location().status == 409
    end_the_wait(access_point)
    told = explained(access_point)
    ours = ", ".join(BSSIDS)
    assert (
        f"  It came from {paired_phone.host.source} at HH:MM:SS and was refused: its BSSID "
        f"{OTHER_BSSID} is none of this access point's ({ours}).\n"
    ) in told
    assert "\nRemedy: Connect the phone to the Wi-Fi of this access point itself" in told


@pytest.mark.movable_clock
def test_a_challenge_that_is_too_old(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request(wanted_within=90)
    wait_for_push(access_point, cloud)
    late = paired_phone.prepare_location()
    access_point.move_clock(62)
    assert paired_phone.send(late).status == 424
    end_the_wait(access_point, 62 + 90)
    told = explained(access_point)
    assert (
        f"  It came from {paired_phone.host.source} at HH:MM:SS and was refused: its challenge "
        "is older than 60 s.\n"
    ) in told
    assert "\nRemedy: The app took longer than 60 s between the challenge and the location" in told


@pytest.mark.movable_clock
def test_a_wrong_password(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request()
    wait_for_push(access_point, cloud)
    paired_phone.login = Login(paired_phone.login.username, "an old password")
    for _ in range(2):
        assert paired_phone.challenge().status == 401
    end_the_wait(access_point)
    told = explained(access_point)
    assert (
        f"  It came from {paired_phone.host.source} at HH:MM:SS, 2 times until HH:MM:SS, and was "
        "refused: its user name or password is wrong.\n"
    ) in told
    assert "\nRemedy: Enter the name and the password" in told


@pytest.mark.movable_clock
def test_a_phone_that_never_comes(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone, ipc: IpcClient
) -> None:
    ipc.request()
    wait_for_push(access_point, cloud)
    end_the_wait(access_point)
    told = explained(access_point)
    assert (
        f"\nLikely cause: The push service took the push to {paired_phone.profile.name}, but the "
        "phone did not come.\n"
        "Remedy: Look at the phone: it must be switched on"
    ) in told


def test_without_a_pairing_the_remedy_is_to_pair(
    access_point: AccessPoint, ipc: IpcClient
) -> None:
    ipc.request()
    ipc.receive()
    told = explained(access_point)
    assert "\nLikely cause: No phone is paired.\nRemedy: Pair a phone: " in told


def test_a_request_within_a_minute_after_another(
    access_point: AccessPoint,
    cloud: Cloud,
    paired_phone: Phone,
    ipc: IpcClient,
    connect_ipc: Callable[[], IpcClient],
) -> None:
    ipc.request()
    wait_for_push(access_point, cloud)
    other = connect_ipc()
    other.request(request_id=2)
    wait_until(
        lambda: len(access_point.control.json("/v1/rounds")["rounds"]) == 2, 5, "no second round"
    )
    other.close()
    wait_for(access_point, "client gone")
    told = explained(access_point)
    assert "  No push was sent: the last push run began less than 60 s before.\n" in told
    assert "\nRemedy: Ask again a minute after the last request." in told


def test_follow_goes_on_when_the_daemon_is_started_again(access_point: AccessPoint) -> None:
    """The daemon ends and another takes its place."""
    command = [str(access_point.build.program("velmctl")), "explain", "--follow"]
    command += ["-c", str(access_point.configuration_file)]
    environment = {**os.environ, **access_point.build.environment(access_point.directory)}
    out, errors = (access_point.directory / name for name in ("follow.out", "follow.errors"))
    with open(out, "w") as told, open(errors, "w") as complained:
        follower = subprocess.Popen(command, env=environment, stdout=told, stderr=complained)
    try:
        wait_until(lambda: "No local client" in out.read_text(), 10, "it tells the beginning")
        access_point.stop()
        wait_until(lambda: "has ended" in errors.read_text(), 10, "it notices the end")
        access_point.start()
        with IpcClient(access_point.socket_path) as ipc:
            ipc.request()
            ipc.receive()
        wait_until(lambda: "Remedy: Pair a phone" in out.read_text(), 10, "it tells the new round")
    finally:
        follower.kill()
        follower.wait(10)
    assert errors.read_text().splitlines()[:2] == [
        "velmctl: the daemon has ended; waiting for it",
        "velmctl: the daemon is back",
    ]


@pytest.mark.parametrize("place", ["file", "nvram"])
def test_locate_finds_the_socket_that_the_daemon_has(access_point: AccessPoint, place: str) -> None:
    """In the file, or in nvram, which counts more."""
    if place == "nvram":
        access_point.configure({"location.policy.ipc.sock": "/nowhere"})
        access_point.nvram_set({"zelkad_cmd_path": str(access_point.socket_path)})
    command = [str(access_point.build.program("velmctl")), "locate", "--wait", "5"]
    done = subprocess.run(
        [*command, "-c", str(access_point.configuration_file)],
        env={**os.environ, **access_point.environment,
             **access_point.build.environment(access_point.directory)},
        capture_output=True,
        text=True,
        timeout=30,
    )  # fmt: skip
    assert done.returncode == 3, done.stderr  # no phone is paired
