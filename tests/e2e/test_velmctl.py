"""The reference client against the running daemon."""

from __future__ import annotations

import json
import subprocess

import pytest
from velm_sim.access_point import AccessPoint
from velm_sim.cloud import Cloud
from velm_sim.phone import Phone, sample_location


def velmctl(access_point: AccessPoint, *arguments: str) -> subprocess.CompletedProcess[str]:
    program = str(access_point.build.program("velmctl"))
    return subprocess.run([program, *arguments], capture_output=True, text=True, timeout=20)


@pytest.mark.each_machine
def test_locate_prints_the_report(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone
) -> None:
    client = access_point.locate("--wait", "15", "--json")
    cloud.fcm.wait()
    location = sample_location(latitude=-12.5, longitude=170.25)
    assert paired_phone.location(location).status == 200
    output, errors = client.communicate(timeout=20)
    assert (client.returncode, errors) == (0, "")
    text = json.dumps(json.loads(output))
    for value in ("-12.5", "170.25", paired_phone.profile.model, paired_phone.bssid):
        assert value in text


def test_locate_passes_the_time_wanted(
    access_point: AccessPoint, cloud: Cloud, paired_phone: Phone
) -> None:
    client = access_point.locate("--timeout", "321", "--wait", "1")
    (push,) = cloud.fcm.wait()
    assert push.json()["message"]["apns"]["payload"]["timeout"] == "321"
    client.communicate(timeout=20)


@pytest.mark.each_machine
def test_locate_says_that_no_phone_is_paired(access_point: AccessPoint) -> None:
    done = velmctl(access_point, "locate", "--socket", str(access_point.socket_path))
    assert done.returncode == 3 and done.stderr


def test_locate_gives_up(access_point: AccessPoint, paired_phone: Phone) -> None:
    done = velmctl(
        access_point, "locate", "--socket", str(access_point.socket_path), "--wait", "1"
    )
    assert done.returncode == 4 and done.stderr


def test_without_a_daemon_it_fails(cold_access_point: AccessPoint) -> None:
    done = velmctl(
        cold_access_point, "locate", "--socket", str(cold_access_point.socket_path)
    )
    assert done.returncode not in (0, 3, 4) and done.stderr


@pytest.mark.each_machine
def test_watch_prints_reports_as_they_come(
    access_point: AccessPoint, paired_phone: Phone
) -> None:
    program = str(access_point.build.program("velmctl"))
    with subprocess.Popen(
        [program, "watch", "--socket", str(access_point.socket_path), "--json"],
        stdout=subprocess.PIPE,
        text=True,
    ) as watcher:
        assert watcher.stdout
        try:
            access_point.daemon.wait_log("Connection accepted")
            for latitude in (1.5, 2.5):
                assert paired_phone.location(sample_location(latitude=latitude)).status == 200
                assert str(latitude) in watcher.stdout.readline()
        finally:
            watcher.kill()
