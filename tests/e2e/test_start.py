"""How the daemon starts, where its settings come from, and what it leaves for others."""

from __future__ import annotations

import contextlib
import json
import os
import signal
import socket
from collections.abc import Callable
from pathlib import Path

import pytest
from velm_harness.preloads import library
from velm_harness.version import VERSION
from velm_sim.access_point import BSSIDS, SERIAL_NUMBER, AccessPoint
from velm_sim.certificates import Identity, make_server
from velm_sim.daemon import Daemon, DaemonError, wait_until
from velm_sim.limits import LOGIN_ATTEMPTS, LOGIN_BLOCK

CANNOT_LISTEN = "call failed: evhtp_bind_socket( http_server_instance, "
UNREADABLE_CERTIFICATE = "evhtp_ssl_init(http_server_instance, http_server_ssl_config)"


def ended(access_point: AccessPoint, **preparation: object) -> int:
    """The exit status of a daemon that ends by itself."""
    daemon = access_point.prepare(**preparation)  # type: ignore[arg-type]
    daemon.start()
    assert daemon.process
    return daemon.process.wait(timeout=20)


def started(access_point: AccessPoint, *arguments: str, **preparation: object) -> Daemon:
    """A daemon that serves, started with its configuration file and these arguments."""
    given = ["-c", str(access_point.configuration_file), *arguments]
    daemon = access_point.prepare(arguments=given, **preparation)  # type: ignore[arg-type]
    daemon.start()
    daemon.wait_until_serving()
    return daemon


def output(access_point: AccessPoint) -> str:
    return (access_point.directory / "stdout").read_text()


def setting(daemon: Daemon, key: str) -> str:
    """A setting as the daemon last wrote it to its log."""
    lines = [line for line in daemon.log().splitlines() if f"- {key}: " in line]
    return lines[-1].partition(f"- {key}: ")[2]


def registered(access_point: AccessPoint) -> list[dict[str, object]]:
    return [json.loads(line) for line in access_point.registry.read_text().splitlines()]


# Detaching.


def test_the_version_is_the_first_line_of_standard_output(access_point: AccessPoint) -> None:
    assert output(access_point).splitlines()[0] == f"velm {VERSION}"


def test_a_detached_daemon_has_a_session_of_its_own_and_the_root_as_its_place(
    cold_access_point: AccessPoint,
) -> None:
    daemon = cold_access_point.start(daemonize=True)
    assert cold_access_point.pid_file.read_text() == f"{daemon.pid}\n"
    assert os.path.samefile(f"/proc/{daemon.pid}/cwd", f"/proc/{daemon.pid}/root")
    assert os.getsid(daemon.pid) == daemon.pid
    program = str(cold_access_point.build.program("velmd"))
    argv = [program, "-c", str(cold_access_point.configuration_file)]
    assert registered(cold_access_point) == [{"pid": daemon.pid, "argv": argv, "flags": 0}]


def test_a_daemon_in_the_foreground_registers_nothing(access_point: AccessPoint) -> None:
    assert not access_point.registry.exists()
    assert not access_point.pid_file.exists()


def test_no_socket_takes_the_number_of_a_closed_standard_stream(
    cold_access_point: AccessPoint,
) -> None:
    daemon = started(
        cold_access_point, through=["sh", "-c", 'exec "$@" <&- >&- 2>&-', "without_streams"]
    )
    for number in range(3):
        assert os.path.samefile(f"/proc/{daemon.pid}/fd/{number}", "/dev/null")


@pytest.mark.parametrize("path", ["/nowhere/velmd.pid", "", "/"])
def test_without_a_pid_file_it_does_not_run(path: str, cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({"process.pidfile": path})
    daemon = cold_access_point.prepare(daemonize=True)
    daemon.pid_file = None
    daemon.start()
    assert daemon.process
    # An empty path is found out before the parent leaves; what lies there only afterwards.
    status = daemon.process.wait(timeout=20)
    assert_nobody_uses(cold_access_point.directory)
    assert status == (0 if path else 1)
    assert not cold_access_point.registry.exists()
    assert output(cold_access_point) == ""


def users(directory: Path) -> list[int]:
    """The processes that have the directory in their command line."""
    found = []
    for entry in Path("/proc").glob("[0-9]*/cmdline"):
        with contextlib.suppress(OSError):
            if str(directory) in entry.read_text(errors="replace"):
                found.append(int(entry.parent.name))
    return found


def assert_nobody_uses(directory: Path) -> None:
    try:
        wait_until(lambda: not users(directory), 10, "a process stays")
    finally:
        for pid in users(directory):
            os.kill(pid, signal.SIGKILL)


def only_child(pid: int) -> int:
    children = Path(f"/proc/{pid}/task/{pid}/children")
    wait_until(lambda: children.read_text().split(), 10, f"pid {pid} has no child")
    return int(children.read_text().split()[0])


def test_started_by_init_it_registers_but_neither_forks_nor_writes_a_pid_file(
    cold_access_point: AccessPoint,
) -> None:
    daemon = cold_access_point.prepare(
        daemonize=True,
        # The shell is process 1 of its namespace, and so the daemon's parent is.
        through=["unshare", "--pid", "--fork", "--kill-child", "sh", "-c", '"$@" & wait', "init"],
    )
    daemon.pid_file = None
    daemon.start()
    unshare = daemon.pid
    try:
        wait_until(lambda: cold_access_point.registry.exists(), 10, "no registration")
        daemon.pid, daemon.process = only_child(only_child(unshare)), None
        daemon.wait_until_serving()
        (line,) = registered(cold_access_point)
        assert line["pid"] == 2  # not forked: what the shell started is what serves
        assert not cold_access_point.pid_file.exists()
        assert cold_access_point.phone().info().status == 200
        daemon.stop()
    finally:
        if not daemon.process:
            os.kill(unshare, signal.SIGKILL)
            os.waitpid(unshare, 0)


def test_a_parent_that_ignores_its_children_does_no_harm(cold_access_point: AccessPoint) -> None:
    """The address comes from a command, whose end the daemon has to learn of."""
    started(cold_access_point, through=["env", "--ignore-signal=CHLD"])
    assert cold_access_point.phone().info().status == 200


# Whether it runs at all.


@pytest.mark.parametrize("mode", ["", "1", "-0", "0x0", " 0", "0" * 21, "65535", "65536"])
def test_what_is_no_number_of_digits_or_not_zero_lets_it_run(
    mode: str, cold_access_point: AccessPoint
) -> None:
    cold_access_point.nvram_set({"zelkad_mode": mode})
    cold_access_point.start()


@pytest.mark.parametrize("mode", ["0", "00", "0" * 20])
def test_a_zero_keeps_it_from_running_however_long(
    mode: str, cold_access_point: AccessPoint
) -> None:
    cold_access_point.nvram_set({"zelkad_mode": mode})
    assert ended(cold_access_point, arguments=["-z"]) == 0
    assert output(cold_access_point) == ""  # not even the usage: no option was read


def remove_ca(access_point: AccessPoint) -> None:
    (access_point.directory / "cloud_ca.pem").unlink()


def empty_ca(access_point: AccessPoint) -> None:
    (access_point.directory / "cloud_ca.pem").write_text("")


@pytest.mark.parametrize("spoil", [remove_ca, empty_ca])
def test_it_ends_with_2_at_start_without_usable_authorities(
    spoil: Callable[[AccessPoint], None], cold_access_point: AccessPoint
) -> None:
    spoil(cold_access_point)
    assert ended(cold_access_point) == 2


@pytest.mark.parametrize("spoil", [remove_ca, empty_ca])
def test_it_ends_with_2_on_a_reload_without_usable_authorities_while_a_phone_is_connected(
    spoil: Callable[[AccessPoint], None], access_point: AccessPoint
) -> None:
    idle, busy = (access_point.lan_host(number).session() for number in range(2))
    with idle, busy:
        assert idle.request("/info").status == 200
        busy.connect()
        busy.send("/challenge", b"{")
        spoil(access_point)
        with pytest.raises(DaemonError, match="ended with 2"):
            access_point.reload()


def write_pair(access_point: AccessPoint, certificate: str | None, key: str | None) -> None:
    """None: no such file."""
    for name, text in (("server_cert.pem", certificate), ("server_key.pem", key)):
        (access_point.directory / name).unlink()
        if text is not None:
            (access_point.directory / name).write_text(text)


def other_identity() -> Identity:
    return make_server(["192.168.1.1"])


BAD_PAIRS: dict[str, Callable[[Identity], tuple[str | None, str | None]]] = {
    "no file of a certificate": lambda right: (None, right.key_pem),
    "no file of a key": lambda right: (right.pem, None),
    "no certificate": lambda right: ("", right.key_pem),
    "garbage for a certificate": lambda right: ("garbage\n", right.key_pem),
    "no key": lambda right: (right.pem, ""),
    "garbage for a key": lambda right: (right.pem, "garbage\n"),
    "the key of another certificate": lambda right: (right.pem, other_identity().key_pem),
    "the two exchanged": lambda right: (right.key_pem, right.pem),
}


@pytest.mark.parametrize("name", BAD_PAIRS)
def test_it_aborts_with(name: str, cold_access_point: AccessPoint) -> None:
    write_pair(cold_access_point, *BAD_PAIRS[name](cold_access_point.credentials.server))
    assert ended(cold_access_point) == -signal.SIGABRT
    assert f"call failed: {UNREADABLE_CERTIFICATE}" in cold_access_point.log()


def at_address(access_point: AccessPoint, address: str) -> list[str]:
    """The arguments for an address that counts, since no bridge has another."""
    assert access_point.nvram("unset", "lan0_ifnames").returncode == 0
    access_point.configure({})
    return ["-c", str(access_point.configuration_file), "-i", address]


@pytest.mark.parametrize("address", ["no address", "", "192.168.1", "192.168.1.1 "])
def test_it_aborts_on_what_is_no_address(address: str, cold_access_point: AccessPoint) -> None:
    arguments = at_address(cold_access_point, address)
    assert ended(cold_access_point, arguments=arguments) == -signal.SIGABRT
    assert CANNOT_LISTEN in cold_access_point.log()


def test_an_address_that_nobody_has_is_waited_for(cold_access_point: AccessPoint) -> None:
    arguments = at_address(cold_access_point, "192.168.1.9")
    daemon = cold_access_point.prepare(arguments=arguments)
    daemon.start()
    daemon.wait_log("wait_for_address - until an interface has 192.168.1.9")
    assert daemon.log().count(CANNOT_LISTEN) == 1
    # On any interface, since the platform names none.
    address = "addr {} 192.168.1.9/32 dev wan0\n"
    cold_access_point.network.ap.batch(address.format("add"))
    try:
        daemon.wait_until_serving()
    finally:
        cold_access_point.network.ap.batch(address.format("del"))


def test_a_port_in_use_aborts(cold_access_point: AccessPoint) -> None:
    with cold_access_point.network.ap.socket() as other:
        other.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        other.bind(("192.168.1.1", cold_access_point.port))
        other.listen(1)
        assert ended(cold_access_point) == -signal.SIGABRT


def test_without_an_ipc_path_phones_are_served(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({"location.policy.ipc.sock": "/proc/nowhere/socket"})
    daemon = cold_access_point.prepare()
    daemon.start()
    wait_until(lambda: bool(daemon.https_listener()), 10, "no HTTPS")
    assert cold_access_point.phone().info().status == 200


# What it does not leave to others.


@pytest.mark.parametrize("port", ["8443", "0"])
def test_no_peer_that_closes_can_end_it_by_a_signal(
    port: str, cold_access_point: AccessPoint
) -> None:
    """The HTTPS library would see to that, but only when it listens."""
    cold_access_point.configure({"http.server.port": port})
    daemon = cold_access_point.prepare()
    daemon.start()
    daemon.wait_log("ssdp_server_start")
    status = Path(f"/proc/{daemon.pid}/status").read_text()
    (ignored,) = [line for line in status.splitlines() if line.startswith("SigIgn:")]
    assert int(ignored.split()[1], 16) & 1 << (signal.SIGPIPE - 1)


def test_what_libevent_has_to_say_stands_in_the_log(cold_access_point: AccessPoint) -> None:
    voice = [library(cold_access_point.build, "libevent_voice")]
    daemon = started(cold_access_point, preload=voice)
    assert " WARN main - libevent - a warning of the library\n" in daemon.log()
    assert "a warning" not in output(cold_access_point)


def test_a_libevent_that_cannot_go_on_ends_it_in_the_fatal_line(
    cold_access_point: AccessPoint,
) -> None:
    voice = [library(cold_access_point.build, "libevent_voice")]
    status = ended(cold_access_point, preload=voice, environment={"VELM_LIBEVENT": "broken"})
    assert status == -signal.SIGABRT
    log = cold_access_point.log()
    assert "ERROR main - libevent - cannot go on\n" in log
    assert "ERROR main - libevent_is_broken: call failed: libevent result: 77 loc: " in log


# Where settings come from.


def test_the_platform_stands_above_the_command_line(cold_access_point: AccessPoint) -> None:
    daemon = started(
        cold_access_point,
        "-i", "203.0.113.9", "-n", "eth7", "-s", "SN-7", "-m", "02:00:00:00:00:07",
        "-b", "02:00:00:00:00:01,02:00:00:00:00:02",
    )  # fmt: skip
    info = cold_access_point.phone().info().json()
    assert info["serialNumber"] == SERIAL_NUMBER
    assert info["bssids"] == list(BSSIDS)
    assert setting(daemon, "lan.ip.address") == "192.168.1.1"
    assert setting(daemon, "lan.name") == "br0"
    assert setting(daemon, "mac.address") == BSSIDS[0]


def test_the_command_line_serves_where_the_platform_says_nothing(
    cold_access_point: AccessPoint,
) -> None:
    missing = ["lan0_ifnames", "lan0_ifname", "ap_serial_number", "wl0_hwaddr"]
    assert cold_access_point.nvram("unset", *missing).returncode == 0
    daemon = started(
        cold_access_point,
        "-i", "192.168.1.1", "-n", "eth7", "-s", "SN-7", "-m", "02:00:00:00:00:07",
        "-b", "02:00:00:00:00:01",
    )  # fmt: skip
    info = cold_access_point.phone().info().json()
    assert info["serialNumber"] == "SN-7"
    # Not those of the command line: the first radio has no address now, the second has.
    assert info["bssids"] == [BSSIDS[2]]
    assert setting(daemon, "lan.name") == "eth7"
    assert setting(daemon, "mac.address") == "02:00:00:00:00:07"


def test_an_empty_setting_of_the_platform_leaves_the_command_line(
    cold_access_point: AccessPoint,
) -> None:
    cold_access_point.nvram_set({"ap_serial_number": ""})
    started(cold_access_point, "-s", "SN-7")
    assert cold_access_point.phone().info().json()["serialNumber"] == "SN-7"


def test_no_bssid_of_the_platform_leaves_none_of_the_command_line(
    cold_access_point: AccessPoint,
) -> None:
    cold_access_point.nvram_set({"wl_radio_num": "0"})
    started(cold_access_point, "-b", "02:00:00:00:00:01")
    assert cold_access_point.phone().info().json()["bssids"] == []


# What a reload reads, keeps and forgets.


def test_a_reload_reads_the_debug_level_again(access_point: AccessPoint) -> None:
    access_point.nvram_set({"zelkad_debug_level": "error"})
    access_point.reload()
    quiet = access_point.daemon.log_mark()
    assert access_point.phone().info().status == 200
    assert access_point.log(quiet) == ""
    access_point.nvram_set({"zelkad_debug_level": "trace"})
    access_point.reload()
    assert access_point.phone().info().status == 200
    assert "http_method_info - start" in access_point.log(quiet)


def test_a_reload_neither_looks_at_the_mode_nor_detaches_again(
    cold_access_point: AccessPoint,
) -> None:
    daemon = cold_access_point.start(daemonize=True)
    cold_access_point.nvram_set({"zelkad_mode": "0"})
    cold_access_point.reload()
    assert cold_access_point.pid_file.read_text() == f"{daemon.pid}\n"
    assert len(registered(cold_access_point)) == 1
    assert cold_access_point.phone().info().status == 200


def test_a_reload_moves_the_servers_to_new_places(access_point: AccessPoint) -> None:
    access_point.configure({"http.server.port": "9443"})
    os.kill(access_point.daemon.pid, signal.SIGHUP)
    access_point.daemon.port = 9443
    wait_until(lambda: bool(access_point.daemon.https_listener()), 10, "no HTTPS at its new port")
    assert access_point.phone().info().status == 200


def test_a_reload_takes_a_new_certificate(access_point: AccessPoint) -> None:
    renewed = other_identity()
    write_pair(access_point, renewed.pem, renewed.key_pem)
    access_point.reload()
    host = access_point.lan_host()
    host.certificate_pem = renewed.pem
    assert host.request("/info").status == 200


@pytest.mark.movable_clock
def test_a_reload_keeps_the_block_of_logins_and_drops_the_challenges(
    access_point: AccessPoint,
) -> None:
    phone = access_point.phone()
    challenge = phone.fetch_challenge()
    for _ in range(LOGIN_ATTEMPTS):
        assert phone.challenge({"password": "wrong"}).status == 401
    access_point.reload()
    assert phone.challenge().status == 401
    access_point.move_clock(LOGIN_BLOCK + 1)
    assert phone.challenge().status == 200
    access_point.move_clock(0)  # so that the challenge has not just become too old
    assert phone.pair(challenge=challenge).status == 424


def test_reloads_that_come_together_leave_one_server(access_point: AccessPoint) -> None:
    daemon = access_point.daemon
    for _ in range(50):
        os.kill(daemon.pid, signal.SIGHUP)
    access_point.reload()
    daemon.wait_log("http_server_start - begin", count=2)

    def answers() -> bool:
        try:
            return access_point.phone().info().status == 200
        except OSError:
            return False  # while one of the reloads is at work

    wait_until(answers, 10, "nobody answers")
    assert daemon.alive()
