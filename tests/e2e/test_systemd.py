"""Does the unit run the daemon whole, without root, and does systemd see how it is doing?

A systemd of this machine's files is booted in namespaces, so each line of the unit is applied by the
program that it is written for.
"""

from __future__ import annotations

import os
import signal
from collections.abc import Iterator

import pytest
from velm_harness.booted import Booted, why_not_bootable
from velm_harness.packaged import (
    CONFIGURATION,
    REPOSITORY,
    SOCKET,
    UNIT,
    owner,
    packaged_configuration,
    pid_of_daemon,
    set_nvram,
    settings_of_test,
    status_fields,
    wait_for_another,
    with_settings,
    write_credentials,
    write_names_and_account,
)
from velm_sim.access_point import PORT, AccessPoint, Credentials
from velm_sim.build import Build
from velm_sim.cloud import Cloud
from velm_sim.ipc_client import STATUS_OK, IpcClient
from velm_sim.namespaces import Network
from velm_sim.phone import Phone, sample_location

# They share one machine, which takes a second to boot.
pytestmark = [
    pytest.mark.xdist_group("systemd"),
    pytest.mark.skipif(bool(why_not_bootable()), reason=why_not_bootable() or "-"),
]

PACKAGING = REPOSITORY / "packaging"
NO_CAPABILITIES = "0" * 16

# Tests do not wait for a restart. The look for leaks at the end of an instrumented program needs ptrace,
# which the unit refuses.
DROP_IN = "[Service]\nRestartSec=100ms\nEnvironment=ASAN_OPTIONS=detect_leaks=0\n"


@pytest.fixture(scope="module")
def machine(build: Build, network: Network, credentials: Credentials) -> Iterator[Booted]:
    made = Booted(network.ap.path)
    try:
        for program, place in (("velmd", "sbin"), ("velmctl", "bin"), ("nvram", "bin")):
            made.write(f"usr/{place}/{program}", build.program(program).read_bytes(), 0o755)
        for name, place in (
            (UNIT, f"systemd/system/{UNIT}"),
            ("velmd.sysusers", "sysusers.d/velmd.conf"),
            ("velmd.tmpfiles", "tmpfiles.d/velmd.conf"),
        ):
            made.write(f"usr/lib/{place}", (PACKAGING / "systemd" / name).read_text())
        made.write(CONFIGURATION, with_settings(packaged_configuration(), settings_of_test(PORT)))
        made.write(f"etc/systemd/system/{UNIT}.d/test.conf", DROP_IN)
        made.boot()
        made.must("systemd-sysusers", "velmd.conf")
        made.must("systemd-tmpfiles", "--create", "velmd.conf")
        write_credentials(made, credentials)
        write_names_and_account(made)
        set_nvram(made)
        yield made
    finally:
        made.close()


@pytest.fixture
def served(machine: Booted) -> Iterator[Booted]:
    """systemd waits for readiness: when this returns, phones are served."""
    machine.must("systemctl", "restart", UNIT)
    yield machine
    machine.run("systemctl", "stop", UNIT)
    machine.run("systemctl", "reset-failed", UNIT)


@pytest.fixture
def phone(served: Booted, cloud: Cloud, cold_access_point: AccessPoint) -> Phone:
    """`cold_access_point` is not started: it only knows what the phones need."""
    return cold_access_point.phone()


def test_systemd_has_nothing_to_say_about_the_unit(machine: Booted) -> None:
    assert machine.run("systemd-analyze", "verify", "--man=no", UNIT) == (0, "")


def test_the_exposure_of_the_unit_is_at_most_1_5(machine: Booted) -> None:
    command = ("systemd-analyze", "security", "--offline=true", "--no-pager", "--threshold=15")
    status, output = machine.run(*command, f"/usr/lib/systemd/system/{UNIT}")
    assert status == 0, output
    assert f"Overall exposure level for {UNIT}" in output


def test_the_round_trip_works_without_root(served: Booted, cloud: Cloud, phone: Phone) -> None:
    assert phone.pair().status == 200
    client = IpcClient(served.root / SOCKET)
    client.request(wanted_within=45)
    (push,) = cloud.fcm.wait()
    assert push.json()["message"]["token"] == phone.profile.push_token
    location = sample_location()
    assert phone.location(location).status == 200
    assert client.receive().status == STATUS_OK
    client.close()
    assert phone.unpair().status == 200
    journal = served.journal(UNIT)
    assert "velmd[" in journal
    refused = ("Operation not permitted", "Permission denied", "Read-only file system")
    assert [line for line in journal.splitlines() if line.endswith(refused)] == []


def test_the_daemon_has_no_privilege(served: Booted) -> None:
    user = int(served.must("id", "--user", "velmd"))
    group = int(served.must("id", "--group", "velmd"))
    fields = status_fields(pid_of_daemon(served))
    assert fields["Uid"].split() == [str(user)] * 4
    assert fields["Gid"].split() == [str(group)] * 4
    capabilities = [fields[f"Cap{kind}"] for kind in ("Inh", "Prm", "Eff", "Bnd", "Amb")]
    assert capabilities == [NO_CAPABILITIES] * 5
    assert (fields["NoNewPrivs"], fields["Seccomp"]) == ("1", "2")
    assert owner(served.root / "var/lib/velmd/nvram") == (user, group, 0o700)
    assert owner(served.root / "run/velmd") == (user, group, 0o755)
    assert owner(served.root / SOCKET) == (user, group, 0o660)


def test_what_root_sets_with_nvram_is_the_daemons_too(served: Booted, phone: Phone) -> None:
    set_nvram(served, {"zelkad_pairing_maxnum": "3"})
    served.must("systemctl", "reload", UNIT)
    assert phone.info().json()["pairingsLimit"] == 3
    assert phone.pair().status == 200
    served.must("nvram", "unset", "zelkad_pairing_maxnum")
    served.must("nvram", "commit")
    assert phone.unpair().status == 200


def test_a_reload_has_ended_when_systemctl_returns(
    served: Booted, cold_access_point: AccessPoint
) -> None:
    pid = pid_of_daemon(served)
    assert served.property_of(UNIT, "StatusText") == f"Serves phones at 192.168.1.1:{PORT}"
    text = (served.root / CONFIGURATION).read_text()
    served.write(CONFIGURATION, with_settings(text, {"http.server.port": "8555"}))
    try:
        served.must("systemctl", "reload", UNIT)
        cold_access_point.port = 8555
        assert cold_access_point.phone().info().status == 200
        assert served.property_of(UNIT, "ActiveState") == "active"
        assert served.property_of(UNIT, "StatusText") == "Serves phones at 192.168.1.1:8555"
        assert pid_of_daemon(served) == pid
    finally:
        served.write(CONFIGURATION, text)


def test_a_wrong_configuration_is_refused_and_the_daemon_stays_as_it_is(
    served: Booted, cold_access_point: AccessPoint
) -> None:
    text = (served.root / CONFIGURATION).read_text()
    served.write(CONFIGURATION, with_settings(text, {"http.server.port": "many"}))
    try:
        assert served.run("systemctl", "reload", UNIT)[0] != 0
        assert f"/{CONFIGURATION}:" in served.journal(UNIT)
        assert cold_access_point.phone().info().status == 200
        assert served.property_of(UNIT, "ActiveState") == "active"
    finally:
        served.write(CONFIGURATION, text)


def test_killed_it_is_started_again_and_keeps_its_pairings(served: Booted, phone: Phone) -> None:
    assert phone.pair().status == 200
    pid = pid_of_daemon(served)
    os.kill(pid, signal.SIGKILL)
    wait_for_another(served, pid)
    assert phone.location().status == 200
    assert phone.unpair().status == 200


def test_a_loop_that_stands_still_is_started_again(served: Booted) -> None:
    drop_in = f"run/systemd/system/{UNIT}.d/watchdog.conf"
    served.write(drop_in, "[Service]\nWatchdogSec=400ms\nWatchdogSignal=SIGKILL\n")
    served.must("systemctl", "daemon-reload")
    served.must("systemctl", "restart", UNIT)
    pid = pid_of_daemon(served)
    os.kill(pid, signal.SIGSTOP)
    try:
        wait_for_another(served, pid)
    finally:
        (served.root / drop_in).unlink()
        served.must("systemctl", "daemon-reload")
    assert "Watchdog timeout" in served.journal(UNIT)


def test_a_stop_is_clean_and_leaves_only_the_settings(served: Booted) -> None:
    served.must("systemctl", "stop", UNIT)
    assert served.property_of(UNIT, "Result") == "success"
    assert not (served.root / "run/velmd").exists()
    assert (served.root / "var/lib/velmd/nvram/committed.0").exists()


def test_a_daemon_that_cannot_start_says_why(served: Booted) -> None:
    text = (served.root / CONFIGURATION).read_text()
    missing = with_settings(text, {"http.client.ca_cert.path": "/etc/velmd/none.pem"})
    served.write(CONFIGURATION, missing)
    try:
        assert served.run("systemctl", "restart", UNIT)[0] != 0
        assert served.property_of(UNIT, "ExecMainStatus") == "2"
        reason = "no authorities can be read from /etc/velmd/none.pem"
        assert reason in served.journal(UNIT)
    finally:
        served.write(CONFIGURATION, text)
