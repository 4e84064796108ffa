"""velmctl reload: checked before it is asked for, waited for, and told."""

from __future__ import annotations

import os
import subprocess

import pytest
from velm_sim.access_point import AccessPoint
from velm_sim.certificates import make_server
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


def test_a_daemon_that_ends_meanwhile_is_told_at_once(cold_access_point: AccessPoint) -> None:
    """Root without the capabilities of root: the check cannot know that it may not read the key."""
    through = ["setpriv", "--bounding-set=-dac_override,-dac_read_search", "--"]
    daemon = cold_access_point.prepare(through=through)
    daemon.start()
    daemon.wait_until_serving()
    key = cold_access_point.directory / "server_key.pem"
    key.chmod(0)
    done = reload(cold_access_point)
    assert done.returncode == 1
    assert "has ended during the reload: its log says why\n" in done.stderr
