"""velmctl reload: checked before it is asked for, waited for, and told."""

from __future__ import annotations

import os
import subprocess
import time
from collections.abc import Callable

import pytest
from velm_sim.access_point import AccessPoint
from velm_sim.certificates import make_server
from velm_sim.daemon import wait_until
from velm_sim.namespaces import Network


def reload(access_point: AccessPoint, *arguments: str) -> subprocess.CompletedProcess[str]:
    program = str(access_point.build.program("velmctl"))
    command = [program, "reload", "-c", str(access_point.configuration_file), *arguments]
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


def reloads(access_point: AccessPoint) -> int:
    return int(access_point.control.json("/v1/status")["daemon"]["reloads"])


def test_a_reload_is_waited_for_and_its_changes_are_told(access_point: AccessPoint) -> None:
    access_point.configure({"pairings.limit": "7"})
    done = reload(access_point)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == "reloaded:\n  pairings.limit: 10 -> 7\n"
    assert reloads(access_point) == 1


def test_a_reload_that_changes_nothing_says_so(access_point: AccessPoint) -> None:
    assert reload(access_point).stdout == (
        "reloaded: no setting that velmctl status shows has changed\n"
    )
    assert reloads(access_point) == 1


def test_a_renewed_certificate_is_told(access_point: AccessPoint) -> None:
    renewed = make_server([Network.AP_ADDRESS])
    at = access_point.directory
    renewed.write(at / "server_cert.pem", at / "server_key.pem")
    done = reload(access_point)
    assert done.returncode == 0
    assert done.stdout.startswith("reloaded:\n  certificate: ")


def test_a_wrong_configuration_is_not_read(access_point: AccessPoint) -> None:
    """The daemon would have ended: its key is not that of the certificate."""
    other = make_server([Network.AP_ADDRESS])
    at = access_point.directory
    other.write(at / "unused.pem", at / "server_key.pem")
    done = reload(access_point)
    assert (done.returncode, done.stdout) == (1, "")
    assert "the key is not that of the certificate" in done.stderr
    assert done.stderr.endswith(
        "velmctl: the configuration is wrong: the daemon was not told to read it\n"
    )
    assert reloads(access_point) == 0 and access_point.daemon_alive()


def test_a_daemon_in_the_background_is_found_by_its_pid_file(
    cold_access_point: AccessPoint,
) -> None:
    cold_access_point.configure({"control.sock": ""})
    cold_access_point.start(daemonize=True)
    done = reload(cold_access_point)
    assert (done.returncode, done.stdout) == (0, "")
    assert "without its control socket nobody can tell whether it has" in done.stderr
    cold_access_point.daemon.wait_log("http_server_start - begin", count=2)


def test_without_a_daemon_nobody_is_told(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({})
    done = reload(cold_access_point)
    assert done.returncode == 3
    assert "no daemon runs" in done.stderr


def test_a_process_that_is_not_the_daemon_gets_no_signal(
    cold_access_point: AccessPoint,
) -> None:
    """A pid file that a dead daemon left; its number is another process's now."""
    with subprocess.Popen(["sleep", "60"]) as other:
        try:
            cold_access_point.pid_file.write_text(f"{other.pid}\n")
            cold_access_point.configure({})
            done = reload(cold_access_point)
            assert done.returncode == 3
            assert f"process {other.pid} is not velmd: it gets no signal" in done.stderr
            assert other.poll() is None
        finally:
            other.kill()


@pytest.mark.parametrize("text", ["", "none\n", "-1\n", "1\n", "999999999\n"])
def test_a_pid_file_without_a_number_of_a_process_is_no_daemon(
    cold_access_point: AccessPoint, text: str
) -> None:
    cold_access_point.pid_file.write_text(text)
    cold_access_point.configure({})
    assert reload(cold_access_point).returncode == 3


def test_another_file_than_the_daemon_reads_is_refused(access_point: AccessPoint) -> None:
    other = access_point.directory / "other.conf"
    other.write_text(access_point.configuration_file.read_text())
    done = reload(access_point, "-c", str(other))
    assert done.returncode == 1
    assert f"the daemon reads {access_point.configuration_file}, not {other}" in done.stderr
    assert reloads(access_point) == 0


def test_the_same_file_by_another_name_is_the_same(access_point: AccessPoint) -> None:
    link = access_point.directory / "link.conf"
    link.symlink_to(access_point.configuration_file)
    assert reload(access_point, "-c", str(link)).returncode == 0
    assert reloads(access_point) == 1


def test_a_port_that_another_program_has_is_refused(access_point: AccessPoint) -> None:
    """The daemon would have ended."""
    port = 18445
    access_point.configure({"http.server.port": str(port)})
    with access_point.network.ap.socket() as taken:
        taken.bind((Network.AP_ADDRESS, port))
        taken.listen()
        done = reload(access_point)
    assert done.returncode == 1
    assert done.stderr == (
        f"velmctl: port {port} (http.server.port) is taken by another program: "
        "the daemon was not told to reload, since it would end\n"
    )
    assert reloads(access_point) == 0 and access_point.daemon_alive()


def test_a_control_socket_that_moves_is_followed(access_point: AccessPoint) -> None:
    moved = access_point.directory / "moved.sock"
    old = access_point.control.path
    access_point.configure({"control.sock": str(moved)})
    done = reload(access_point, "--control", str(old))
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.startswith("reloaded:\n") and f"-> {moved}" in done.stdout
    assert moved.is_socket()


def test_root_checks_with_the_rights_of_the_daemon(cold_access_point: AccessPoint) -> None:
    """A key that root alone can read would end a daemon of another user."""
    user = 65534
    at = cold_access_point.directory
    cold_access_point.configure({})
    through = ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups", "--"]
    daemon = cold_access_point.prepare(through=through)
    for path in (at, *at.rglob("*")):
        os.chown(path, user, user)
    daemon.start()
    daemon.wait_until_serving()
    key = at / "server_key.pem"
    os.chown(key, 0, 0)
    key.chmod(0o600)
    done = reload(cold_access_point)
    assert done.returncode == 1
    assert f"{key}: cannot be read: Permission denied" in done.stderr
    assert reloads(cold_access_point) == 0 and cold_access_point.daemon_alive()


def test_root_without_the_capabilities_of_root_is_checked_so(cold_access_point: AccessPoint) -> None:
    """The daemon may not read every file, as under a supervisor that takes that from it."""
    through = ["setpriv", "--bounding-set=-dac_override,-dac_read_search", "--"]
    daemon = cold_access_point.prepare(through=through)
    daemon.start()
    daemon.wait_until_serving()
    key = cold_access_point.directory / "server_key.pem"
    key.chmod(0)
    done = reload(cold_access_point)
    assert done.returncode == 1
    assert f"{key}: cannot be read: Permission denied" in done.stderr
    assert reloads(cold_access_point) == 0 and cold_access_point.daemon_alive()


def test_a_daemon_that_ends_meanwhile_is_told_at_once(access_point: AccessPoint) -> None:
    key = access_point.directory / "server_key.pem"
    key.write_text("no key\n")
    done = reload(access_point, "--force")
    assert done.returncode == 1
    assert f"{key}: no private key can be read" in done.stderr
    assert "has ended during the reload: its log says why\n" in done.stderr


def break_service_account(access_point: AccessPoint) -> None:
    (access_point.directory / "service_account.json").unlink()


def break_key_of_other_method(access_point: AccessPoint) -> None:
    access_point.configure({"app.android.integrity.d.key.path": "/nowhere"})


def add_unknown_key(access_point: AccessPoint) -> None:
    access_point.configure({"http.server.prot": "1"})


def add_value_that_does_not_fit(access_point: AccessPoint) -> None:
    access_point.configure({"ssdp.server.port": "none"})


def add_wrong_level(access_point: AccessPoint) -> None:
    access_point.configure({"logger.category.velm_ipc": "chatty"})


def add_wrong_nvram(access_point: AccessPoint) -> None:
    access_point.nvram_set({"zelkad_pairing_maxnum": "many"})


def add_wrong_bssid(access_point: AccessPoint) -> None:
    access_point.nvram_set({"wl1_hwaddr": "none"})


OLD_FAULTS = [
    break_service_account, break_key_of_other_method, add_unknown_key, add_value_that_does_not_fit,
    add_wrong_level, add_wrong_nvram, add_wrong_bssid,
]  # fmt: skip


@pytest.mark.parametrize("spoil", OLD_FAULTS)
def test_what_is_wrong_already_is_told_and_refuses_nothing(
    cold_access_point: AccessPoint, spoil: Callable[[AccessPoint], None]
) -> None:
    spoil(cold_access_point)
    cold_access_point.start()
    cold_access_point.configure({"pairings.limit": "7"})
    done = reload(cold_access_point)
    assert "  pairings.limit: 10 -> 7\n" in done.stdout, done.stderr
    assert "already so: " in done.stderr
    assert reloads(cold_access_point) == 1


@pytest.mark.parametrize("spoil", OLD_FAULTS)
def test_the_same_is_refused_when_it_is_new(
    cold_access_point: AccessPoint, spoil: Callable[[AccessPoint], None]
) -> None:
    cold_access_point.nvram_set({"zelkad_pairing_maxnum": "9"})
    cold_access_point.start()
    spoil(cold_access_point)
    done = reload(cold_access_point)
    assert (done.returncode, done.stdout) == (1, ""), done.stderr
    assert "already so: " not in done.stderr
    assert done.stderr.endswith("the daemon was not told to read it\n")
    assert reloads(cold_access_point) == 0
    assert reload(cold_access_point, "--force").stdout.startswith("reloaded")
    assert reloads(cold_access_point) == 1


def test_a_bad_line_would_take_all_settings_away(access_point: AccessPoint) -> None:
    with access_point.configuration_file.open("a") as file:
        file.write("no pair\n")
    done = reload(access_point)
    assert done.returncode == 1 and reloads(access_point) == 0
    assert "no key=value pair: the whole file is left out" in done.stderr


def test_a_file_that_is_as_the_daemon_read_it_is_no_news(access_point: AccessPoint) -> None:
    """It has not looked into it: that is done when a phone comes."""
    root = access_point.directory / "attestation_root.pem"
    root.write_text("no certificate\n")
    wait_until(lambda: time.time() // 1 > root.stat().st_ctime // 1, 5, "the second does not end")
    access_point.reload()
    access_point.configure({"pairings.limit": "7"})
    done = reload(access_point)
    assert f"already so: {root}: no certificate can be read" in done.stderr
    assert done.stdout == "reloaded:\n  pairings.limit: 10 -> 7\n"


def test_the_keys_of_the_logger_are_told(access_point: AccessPoint) -> None:
    access_point.nvram_set({"zelkad_debug_level": "info"})
    access_point.configure({"logger.lineandfile": "yes", "logger.category.velm_ipc": "warn"})
    done = reload(access_point)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == (
        "reloaded:\n"
        "  logger.level: trace -> info\n"
        "  logger.lineandfile: no -> yes\n"
        "  logger.category.velm_ipc: nothing -> warn\n"
    )
