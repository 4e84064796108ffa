"""velmctl doctor: all is well, things are wrong, the daemon is up or down, root or not."""

from __future__ import annotations

import datetime
import os
import socket
import subprocess
from collections.abc import Callable

import pytest
from velm_sim.access_point import AccessPoint
from velm_sim.certificates import make_server
from velm_sim.cloud import Cloud
from velm_sim.etc_files import ADMIN
from velm_sim.namespaces import Network

NOBODY = 65534


def doctor(
    access_point: AccessPoint, *arguments: str, user: int | None = None
) -> subprocess.CompletedProcess[str]:
    """Run where the daemon runs: in its network, with its /etc."""
    drop = [] if user is None else ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"]
    program = str(access_point.build.program("velmctl"))
    access_point.configure({})
    command = [*drop, program, "doctor", "-c", str(access_point.configuration_file), *arguments]
    return subprocess.run(
        access_point.inside(*command),
        env={
            **os.environ,
            **access_point.environment,
            **access_point.build.environment(access_point.directory),
        },
        capture_output=True,
        text=True,
        timeout=60,
    )


def lines_of(done: subprocess.CompletedProcess[str], grade: str) -> list[str]:
    start = f"{grade:<6}"
    return [line.removeprefix(start) for line in done.stdout.splitlines() if line.startswith(start)]


def subjects(lines: list[str]) -> list[str]:
    return [line.partition(":")[0] for line in lines]


@pytest.fixture
def healthy(cold_access_point: AccessPoint, cloud: Cloud) -> AccessPoint:
    """Nothing is wrong, and the daemon is down."""
    cold_access_point.etc.set_accounts([ADMIN])
    return cold_access_point


def test_all_is_well_with_a_daemon_that_runs(healthy: AccessPoint) -> None:
    healthy.start()
    done = doctor(healthy)
    assert lines_of(done, "FAIL") == [] and lines_of(done, "WARN") == []
    assert done.returncode == 0
    assert done.stdout.endswith("\nnothing is wrong\n")
    told = lines_of(done, "OK")
    assert subjects(told) == [
        "configuration", "modes", "certificate", "certificate", "clock", "nvram", "LAN", "BSSIDs",
        "accounts", "daemon", "HTTPS", "discovery", "daemon", "daemon", "cloud", "cloud", "cloud",
    ]  # fmt: skip
    assert "HTTPS: port 8443 is the daemon's" in told
    assert "daemon: it answers a search on the LAN" in told
    assert "daemon: it answers /info over TLS, with the certificate of the file" in told


def test_with_a_daemon_that_is_down_that_is_all_that_is_wrong(healthy: AccessPoint) -> None:
    done = doctor(healthy)
    assert (done.returncode, lines_of(done, "FAIL")) == (1, [])
    (warning,) = lines_of(done, "WARN")
    assert warning.startswith("daemon: it does not run, or not for this user: ")
    assert "HTTPS: port 8443 is free" in lines_of(done, "OK")


def test_offline_no_name_of_the_cloud_is_looked_up(healthy: AccessPoint) -> None:
    healthy.etc.set_hosts({})
    healthy.start()
    done = doctor(healthy, "--offline")
    assert done.returncode == 0 and "cloud" not in subjects(lines_of(done, "OK"))
    assert "cloud" in subjects(lines_of(doctor(healthy), "FAIL"))


def test_not_as_root_it_says_what_it_cannot_tell(healthy: AccessPoint) -> None:
    """Everything lies in a directory that only root may enter."""
    healthy.start()
    done = doctor(healthy, "--offline", user=NOBODY)
    assert (done.returncode, lines_of(done, "FAIL")) == (1, []), done.stdout
    told = lines_of(done, "WARN")
    assert told[0].startswith("doctor: run it as root or as the daemon's user")
    assert any("velmd.conf: not for this user" in line for line in told)
    assert any(line.startswith("nvram: ") for line in told)
    assert any(line.startswith("daemon: ") for line in told)


def test_six_things_that_are_wrong_have_six_lines_and_remedies(healthy: AccessPoint) -> None:
    healthy.configure({"http.server.prot": "1"})
    other = make_server([Network.AP_ADDRESS])
    other.write(healthy.directory / "other.pem", healthy.directory / "server_key.pem")
    healthy.nvram_set({"wl_radio_num": "0"})
    healthy.etc.set_accounts([], {"shadowed": "x"})
    healthy.etc.set_hosts({})
    with healthy.network.ap.socket() as taken:
        taken.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        taken.bind((Network.AP_ADDRESS, healthy.port))
        taken.listen()
        done = doctor(healthy)
    assert done.returncode == 2
    failures = lines_of(done, "FAIL") + lines_of(done, "WARN")
    for part in (
        "http.server.prot",
        "the key is not that of the certificate",
        "BSSIDs: the platform gives none",
        "HTTPS: port 8443 is taken by another program",
        "accounts: nobody can log in: the passwords of 1 account are in the shadow file",
        "cannot be resolved",
    ):
        assert any(part in line for line in failures), part
    words = done.stdout.splitlines()
    for number, line in enumerate(words):
        if line.startswith(("FAIL", "WARN")):
            assert words[number + 1].startswith("      ") and words[number + 1].endswith(".")


def use_other_authority(access_point: AccessPoint) -> None:
    own = access_point.credentials.server.pem
    (access_point.directory / "cloud_ca.pem").write_text(own)


def let_certificate_end(access_point: AccessPoint) -> None:
    soon = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(days=5)
    ending = make_server([Network.AP_ADDRESS], not_after=soon)
    ending.write(
        access_point.directory / "server_cert.pem", access_point.directory / "server_key.pem"
    )


def name_other_address(access_point: AccessPoint) -> None:
    other = make_server(["192.168.9.9"])
    other.write(
        access_point.directory / "server_cert.pem", access_point.directory / "server_key.pem"
    )


def open_to_everybody(access_point: AccessPoint) -> None:
    access_point.directory.chmod(0o755)


def open_account(access_point: AccessPoint) -> None:
    access_point.etc.set_accounts([ADMIN], {"open": ""})


@pytest.mark.parametrize(
    "spoil, grade, part",
    [
        (use_other_authority, "FAIL", "cloud: oauth2.googleapis.com: "),
        (let_certificate_end, "WARN", "server_cert.pem ends on "),
        (name_other_address, "WARN", "certificate: it does not name the LAN address 192.168.1.1"),
        (open_to_everybody, "WARN", "modes: everybody may open the secret "),
        (open_account, "WARN", "accounts: 1 can log in with any password, since theirs is empty: open"),
    ],
)
def test_what_is_wrong_is_found(
    healthy: AccessPoint, spoil: Callable[[AccessPoint], None], grade: str, part: str
) -> None:
    spoil(healthy)
    done = doctor(healthy)
    assert done.returncode == {"WARN": 1, "FAIL": 2}[grade]
    assert any(part in line for line in lines_of(done, grade)), done.stdout


def test_a_lan_without_an_address_is_found(healthy: AccessPoint) -> None:
    bridge = healthy.network.ap
    bridge.batch(f"addr del {Network.AP_ADDRESS}/24 dev br0\n")
    try:
        done = doctor(healthy, "--offline")
    finally:
        bridge.batch(f"addr add {Network.AP_ADDRESS}/24 dev br0\n")
    assert done.returncode == 2 and "LAN" in subjects(lines_of(done, "FAIL"))


def test_a_certificate_that_was_renewed_but_not_read_is_found(healthy: AccessPoint) -> None:
    healthy.start()
    renewed = make_server([Network.AP_ADDRESS])
    renewed.write(healthy.directory / "server_cert.pem", healthy.directory / "server_key.pem")
    done = doctor(healthy, "--offline")
    assert lines_of(done, "WARN") == [
        "daemon: it answers /info over TLS, with another certificate than the file's"
    ]


def test_accounts_of_the_shadow_file_count_when_the_daemon_looks_there(
    healthy: AccessPoint,
) -> None:
    healthy.etc.set_accounts([], {"owner": "x"})
    healthy.etc.set_shadow({"owner": "$6$velmsalt$hash"})
    healthy.configure({"accounts.shadow": "yes"})
    done = doctor(healthy, "--offline")
    assert "accounts: 1 can log in, the first is owner" in lines_of(done, "OK")
    healthy.etc.set_shadow({"owner": "$6$velmsalt$hash:0"})  # must be changed first
    assert lines_of(doctor(healthy, "--offline"), "FAIL") == [
        "accounts: nobody can log in: no account but root has a password"
    ]
