"""velmctl doctor: all is well, things are wrong, the daemon is up or down, root or not."""

from __future__ import annotations

import datetime
import json
import os
import socket
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest
from velm_sim.access_point import AccessPoint
from velm_sim.certificates import make_server
from velm_sim.cloud import Cloud
from velm_sim.etc_files import ADMIN
from velm_sim.namespaces import Network

NOBODY = 65534


def doctor(
    access_point: AccessPoint, *arguments: str, user: int | None = None, outside: bool = False
) -> subprocess.CompletedProcess[str]:
    """Run where the daemon runs: in its network, with its /etc; or outside of both."""
    drop = [] if user is None else ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"]
    program = str(access_point.build.program("velmctl"))
    access_point.configure({})
    command = [*drop, program, "doctor", "-c", str(access_point.configuration_file), *arguments]
    return subprocess.run(
        command if outside else access_point.inside(*command),
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
    cold_access_point.nvram_set({"zelkad_debug_level": ""})
    cold_access_point.configure({"logger.level": "debug"})
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


def test_outside_of_the_daemons_network_that_is_all_that_is_said(healthy: AccessPoint) -> None:
    healthy.start()
    done = doctor(healthy, outside=True)
    assert lines_of(done, "FAIL") == []
    warnings = lines_of(done, "WARN")
    assert len(warnings) == 1 and warnings[0].startswith(
        "network: the daemon is in another network than this program"
    ), done.stdout
    assert f"nsenter --net --mount --target={healthy.daemon.pid} velmctl doctor." in done.stdout
    told = subjects(lines_of(done, "OK") + lines_of(done, "FAIL"))
    assert not {"LAN", "HTTPS", "discovery", "cloud"} & set(told)


@pytest.mark.parametrize("daemonize", [True, False])
def test_a_daemon_without_its_control_socket_is_seen(healthy: AccessPoint, daemonize: bool) -> None:
    healthy.configure({"control.sock": ""})
    healthy.start(daemonize=daemonize)
    healthy.configure({"process.daemonize": "yes" if daemonize else "no"})
    done = doctor(healthy, "--offline")
    assert (lines_of(done, "FAIL"), lines_of(done, "WARN")) == ([], []), done.stdout
    told = lines_of(done, "OK")
    assert (
        f"daemon: velmd runs as process {healthy.daemon.pid}; control.sock is empty, so it does "
        "not say how it is"
    ) in told
    assert "HTTPS: port 8443 is the daemon's" in told
    assert "discovery: port 1900 is the daemon's" in told
    assert "daemon: it answers a search on the LAN" in told


def test_a_port_of_another_program_is_not_the_daemons(healthy: AccessPoint) -> None:
    healthy.configure({"control.sock": ""})
    healthy.start()
    port = 18446
    healthy.configure({"http.server.port": str(port)})
    with healthy.network.ap.socket() as taken:
        taken.bind((Network.AP_ADDRESS, port))
        taken.listen()
        done = doctor(healthy, "--offline")
    assert f"HTTPS: port {port} is taken by another program" in lines_of(done, "FAIL")


@pytest.mark.parametrize("count", [0, 1, 2])
def test_json_has_one_shape(healthy: AccessPoint, count: int) -> None:
    healthy.start()
    if count > 0:
        name_other_address(healthy)
    if count > 1:
        healthy.etc.set_accounts([])
    done = doctor(healthy, "--offline", "--json")
    document = json.loads(done.stdout)
    assert done.stdout.count("\n") == 1
    assert set(document) == {"version", "now", "findings"} and document["version"] == 1
    assert all(
        set(finding) == {"level", "subject", "text", "remedy"} for finding in document["findings"]
    )
    by_level = {
        level: [finding for finding in document["findings"] if finding["level"] == level]
        for level in ("OK", "WARN", "FAIL")
    }
    assert all(finding["remedy"] is None for finding in by_level["OK"])
    assert all(finding["remedy"] for finding in by_level["WARN"] + by_level["FAIL"])
    assert done.returncode == count and len(by_level["FAIL"]) == (1 if count == 2 else 0)
    assert {
        "level": "OK", "subject": "HTTPS", "text": "port 8443 is the daemon's", "remedy": None
    } in document["findings"]  # fmt: skip


def test_a_log_with_secrets_is_warned_of(healthy: AccessPoint) -> None:
    expected = "is trace: passwords, tokens and locations are written to the log"
    healthy.configure({"logger.level": "trace"})
    assert lines_of(doctor(healthy, "--offline"), "WARN")[0] == f"log: logger.level {expected}"
    healthy.start()
    assert lines_of(doctor(healthy, "--offline"), "WARN") == [f"log: logger.level {expected}"]


def authority_of_cloud(access_point: AccessPoint) -> Path:
    return access_point.directory / "cloud_ca.pem"


def test_what_is_wrong_with_the_authorities_is_told_offline(healthy: AccessPoint) -> None:
    good = authority_of_cloud(healthy).read_text()
    ago = datetime.datetime.now(datetime.timezone.utc) - datetime.timedelta(days=2)
    old = make_server(["192.168.7.7"], not_before=ago - datetime.timedelta(days=9), not_after=ago)
    other = make_server(["192.168.7.8"])
    authority_of_cloud(healthy).write_text(good + old.pem + other.pem)
    told = lines_of(doctor(healthy, "--offline"), "WARN")
    assert any("has expired on" in line and "http.client.ca_cert.path" in line for line in told)
    assert any("is no certificate of an authority" in line for line in told)
    assert lines_of(doctor(healthy, "--offline"), "FAIL") == []
    authority_of_cloud(healthy).write_text(old.pem)
    failures = lines_of(doctor(healthy, "--offline"), "FAIL")
    assert any("none of its certificates is valid now" in line for line in failures)


def test_the_authority_that_is_missing_is_named(healthy: AccessPoint, cloud: Cloud) -> None:
    use_other_authority(healthy)
    failures = lines_of(doctor(healthy), "FAIL")
    missing = [line for line in failures if line.startswith("cloud: ")]
    assert missing and all(
        "its certificates lead to CN=" in line
        and f"which is not in {authority_of_cloud(healthy)}" in line
        for line in missing
    ), failures


def test_keys_of_the_method_that_is_not_used_are_judged_too(healthy: AccessPoint) -> None:
    (healthy.directory / "integrity_verification.jwk").write_text('{"kty": "oct", "k": "AA"}')
    healthy.configure({"app.ios.attest.root.ca.path": None})
    for method, grade in (("remote", "WARN"), ("local", "FAIL")):
        healthy.configure({"app.android.integrity.method": method})
        told = lines_of(doctor(healthy, "--offline"), grade)
        assert any("it is no JWK of kind EC on the curve P-256" in line for line in told), told
