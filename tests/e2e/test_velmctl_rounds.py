"""velmctl explain and status against the running daemon: why no location came, as a person reads it."""

from __future__ import annotations

import json
import os
import subprocess

import pytest
from velm_sim.access_point import BSSIDS, AccessPoint
from velm_sim.answers import Answer
from velm_sim.cloud import Cloud
from velm_sim.daemon import wait_until
from velm_sim.ipc_client import IpcClient
from velm_sim.phone import Phone

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


def explained(access_point: AccessPoint) -> str:
    done = velmctl(access_point, "explain")
    assert done.stderr == ""
    return done.stdout


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
