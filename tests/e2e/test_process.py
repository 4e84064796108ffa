"""The process among others: why it ends, its pid file, what it creates, its log file, its clock."""

from __future__ import annotations

import contextlib
import fcntl
import json
import os
import signal
import socket
import stat
import struct
from collections.abc import Iterator
from pathlib import Path

import pytest
from velm_sim.access_point import AccessPoint
from velm_sim.daemon import Daemon, DaemonError, wait_until
from velm_sim.namespaces import Network


def output(access_point: AccessPoint) -> str:
    """Standard output and standard error."""
    return (access_point.directory / "stdout").read_text()


def without_a_log(access_point: AccessPoint) -> None:
    access_point.configure({key: None for key in access_point.configuration if "logger" in key})


def ended(daemon: Daemon) -> int:
    daemon.start()
    assert daemon.process
    return daemon.process.wait(timeout=20)


# Why it ended.


def test_standard_error_says_why_a_reload_of_a_spoilt_configuration_ends_it(
    access_point: AccessPoint,
) -> None:
    lines = access_point.configuration_file.read_text().splitlines()
    lines.insert(4, "   ")
    access_point.configuration_file.write_text("\n".join(lines) + "\n")
    with pytest.raises(DaemonError, match="ended with 2"):
        access_point.reload()
    said = output(access_point)
    assert f"{access_point.configuration_file}: line 5 is no key=value pair" in said
    assert "ends with status 2: no authorities can be read from /etc/afc/velmd/cacert.pem" in said
    assert "No such file or directory" in said


def test_standard_error_says_why_a_start_without_authorities_ends_it(
    cold_access_point: AccessPoint,
) -> None:
    without_a_log(cold_access_point)
    (cold_access_point.directory / "cloud_ca.pem").unlink()
    assert ended(cold_access_point.prepare()) == 2
    assert f"no authorities can be read from {cold_access_point.directory}/cloud_ca.pem" in output(
        cold_access_point
    )


@pytest.mark.parametrize("daemonize", [False, True])
def test_a_fatal_line_that_no_log_has_goes_to_standard_error(
    daemonize: bool, cold_access_point: AccessPoint
) -> None:
    without_a_log(cold_access_point)
    (cold_access_point.directory / "server_key.pem").unlink()
    cold_access_point.prepare(daemonize=daemonize).start()
    wait_until(lambda: "evhtp_ssl_init" in output(cold_access_point), 10, "nothing is said")
    assert " ERROR velm_http_server - http_server_start: call failed: " in output(cold_access_point)


@contextlib.contextmanager
def taken(access_point: AccessPoint, port: int) -> Iterator[None]:
    """A port of the LAN address at which another program listens."""
    with access_point.network.ap.socket() as other:
        other.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        other.bind((Network.AP_ADDRESS, port))
        other.listen(1)
        yield


def says_that_it_cannot_listen(access_point: AccessPoint, port: int) -> bool:
    said = output(access_point)
    why = f"bind_socket - {Network.AP_ADDRESS}:{port}: Address already in use\n"
    return why in said and "call failed: evhtp_bind_socket( http_server_instance, " in said


def test_standard_error_says_why_a_port_in_use_ends_it(cold_access_point: AccessPoint) -> None:
    without_a_log(cold_access_point)
    with taken(cold_access_point, cold_access_point.port):
        assert ended(cold_access_point.prepare()) == -signal.SIGABRT
    assert says_that_it_cannot_listen(cold_access_point, cold_access_point.port)


def test_standard_error_says_why_a_new_port_in_use_ends_a_reload(
    cold_access_point: AccessPoint,
) -> None:
    without_a_log(cold_access_point)
    daemon = cold_access_point.prepare()
    daemon.start()
    daemon.wait_until_serving()
    with taken(cold_access_point, 8444):
        cold_access_point.configure({"http.server.port": "8444"})
        daemon.kill(signal.SIGHUP)
        assert daemon.process and daemon.process.wait(timeout=20) == -signal.SIGABRT
    assert says_that_it_cannot_listen(cold_access_point, 8444)


def test_a_fatal_line_that_a_log_has_does_not_go_to_standard_error(
    cold_access_point: AccessPoint,
) -> None:
    (cold_access_point.directory / "server_key.pem").unlink()
    assert ended(cold_access_point.prepare()) == -signal.SIGABRT
    assert "call failed: evhtp_ssl_init" in cold_access_point.log()
    assert "call failed" not in output(cold_access_point)


def test_a_fatal_line_whose_log_file_cannot_be_written_goes_to_standard_error(
    cold_access_point: AccessPoint,
) -> None:
    cold_access_point.configure({"logger.file.name": "/nowhere/velmd.log"})
    (cold_access_point.directory / "server_key.pem").unlink()
    assert ended(cold_access_point.prepare()) == -signal.SIGABRT
    assert "call failed: evhtp_ssl_init" in output(cold_access_point)


# The pid file.


def test_a_second_daemon_says_who_holds_the_pid_file_and_leaves_it(
    cold_access_point: AccessPoint,
) -> None:
    first = cold_access_point.start(daemonize=True)
    try:
        before = cold_access_point.pid_file.stat()
        second = cold_access_point.prepare(daemonize=True)
        second.pid_file = None
        assert ended(second) == 1
        held = f"{cold_access_point.pid_file} is held by pid {first.pid}"
        assert held in output(cold_access_point)
        assert cold_access_point.pid_file.read_text() == f"{first.pid}\n"
        assert cold_access_point.pid_file.stat().st_mtime_ns == before.st_mtime_ns
        assert len(cold_access_point.registry.read_text().splitlines()) == 1
        assert cold_access_point.phone().info().status == 200
    finally:
        last = int(cold_access_point.pid_file.read_text())
        first.stop()
        if last != first.pid:  # one that should not run
            os.kill(last, signal.SIGKILL)


def test_the_pid_file_of_a_dead_daemon_is_taken_over(cold_access_point: AccessPoint) -> None:
    first = cold_access_point.start(daemonize=True)
    first.kill(signal.SIGKILL)
    assert cold_access_point.pid_file.read_text() == f"{first.pid}\n"
    second = cold_access_point.start(daemonize=True)
    assert second.pid != first.pid
    assert cold_access_point.pid_file.read_text() == f"{second.pid}\n"


def test_a_longer_text_in_a_pid_file_is_gone(cold_access_point: AccessPoint) -> None:
    cold_access_point.pid_file.write_text("not a pid at all, and much longer than one\n")
    daemon = cold_access_point.prepare(daemonize=True)
    daemon.start()
    assert cold_access_point.pid_file.read_text() == f"{daemon.pid}\n"


def test_the_pid_file_is_locked_by_the_daemon_and_by_no_program_that_it_runs(
    cold_access_point: AccessPoint,
) -> None:
    daemon = cold_access_point.start(daemonize=True)
    with cold_access_point.pid_file.open("r") as file, pytest.raises(BlockingIOError):
        fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
    (number,) = [
        entry.name
        for entry in Path(f"/proc/{daemon.pid}/fd").iterdir()
        if os.readlink(entry) == str(cold_access_point.pid_file)
    ]
    information = Path(f"/proc/{daemon.pid}/fdinfo/{number}").read_text()
    (flags,) = [line.split()[1] for line in information.splitlines() if line.startswith("flags:")]
    assert int(flags, 8) & os.O_CLOEXEC


# What it creates.


def test_files_have_their_modes_whatever_the_mask_of_the_caller(
    cold_access_point: AccessPoint,
) -> None:
    daemon = cold_access_point.prepare(
        daemonize=True, through=["sh", "-c", 'umask 0; exec "$@"', "unmasked"]
    )
    daemon.start()
    daemon.wait_until_serving()
    assert cold_access_point.phone().pair().status == 200
    modes = {
        path.name: f"{stat.S_IMODE(path.stat().st_mode):o}"
        for path in [
            cold_access_point.pid_file,
            daemon.log_file,
            cold_access_point.registry,
            cold_access_point.socket_path,
            cold_access_point.directory / "nvram" / "live",
            cold_access_point.directory / "nvram" / "committed.0",
        ]
    }
    assert modes == {
        "velmd.pid": "644",
        "velmd.log": "640",
        "restart.jsonl": "644",
        "zelka_daemon": "660",
        "live": "600",
        "committed.0": "600",
    }


def mode_of(path: Path) -> str:
    return f"{stat.S_IMODE(path.stat().st_mode):o}"


def test_files_that_everybody_could_write_to_are_the_daemons_own_again(
    cold_access_point: AccessPoint,
) -> None:
    daemon = cold_access_point.prepare(daemonize=True)
    previous = daemon.log_file.with_name(f"{daemon.log_file.name}.1")
    left = [cold_access_point.pid_file, daemon.log_file, previous]
    for path in left:
        path.write_text("of an earlier run\n")
        path.chmod(0o666)
    daemon.start()
    daemon.wait_until_serving()
    assert [mode_of(path) for path in left] == ["644", "640", "640"]
    log = daemon.log()
    assert log.count(" had mode 666: now no more than ") == 2
    # One that its owner has made narrower stays so, and nothing is said.
    daemon.log_file.chmod(0o600)
    mark = daemon.log_mark()
    cold_access_point.reload()
    assert mode_of(daemon.log_file) == "600"
    assert "had mode" not in daemon.log(mark)
    daemon.log_file.chmod(0o666)
    cold_access_point.reload()
    assert mode_of(daemon.log_file) == "640"


def test_no_mode_is_changed_behind_a_link(cold_access_point: AccessPoint, tmp_path: Path) -> None:
    """Who can write to the folder may not have the files of others changed."""
    daemon = cold_access_point.prepare(daemonize=True)
    previous = daemon.log_file.with_name(f"{daemon.log_file.name}.1")
    others = {}
    for link in (cold_access_point.pid_file, daemon.log_file, previous):
        others[link.name] = tmp_path / link.name
        others[link.name].write_text("of somebody else\n")
        others[link.name].chmod(0o666)
        link.symlink_to(others[link.name])
    daemon.start()
    daemon.wait_until_serving()
    cold_access_point.reload()
    assert {name: mode_of(file) for name, file in others.items()} == dict.fromkeys(others, "666")
    assert "had mode" not in daemon.log()


@pytest.mark.parametrize("form", ["apart", "together"])
def test_the_registration_starts_it_again_from_anywhere(
    form: str, cold_access_point: AccessPoint
) -> None:
    name = cold_access_point.configuration_file.name
    daemon = cold_access_point.prepare(
        daemonize=True,
        arguments=["-c", name] if form == "apart" else [f"-c{name}"],
        through=["bash", "-c", 'exec -a velmd "$@"', "renamed"],
    )
    daemon.working_directory = cold_access_point.directory
    daemon.start()
    daemon.wait_until_serving()
    (line,) = cold_access_point.registry.read_text().splitlines()
    program, *arguments = json.loads(line)["argv"]
    assert os.path.samefile(program, cold_access_point.build.program("velmd"))
    assert os.path.isabs(program)
    file = str(cold_access_point.configuration_file)
    assert arguments == (["-c", file] if form == "apart" else [f"-c{file}"])


# The log file.


def fill_the_log(access_point: AccessPoint, beyond: int) -> None:
    """Requests until that many bytes were logged."""
    written, last = 0, access_point.daemon.log_mark()
    with access_point.lan_host().session() as session:
        while written < beyond:
            assert session.request("/info").status == 200
            now = access_point.daemon.log_mark()
            written += now - last if now >= last else now
            last = now


def test_a_log_file_that_is_full_is_renamed_and_begun_anew(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({"logger.file.maxsize": "40000"})
    daemon = cold_access_point.start()
    previous = daemon.log_file.with_name("velmd.log.1")
    fill_the_log(cold_access_point, 100_000)
    for file in (daemon.log_file, previous):
        assert file.stat().st_size <= 40000
        assert stat.S_IMODE(file.stat().st_mode) == 0o640
        assert file.read_text().endswith("\n")
        assert file.read_text().startswith("20")
    assert previous.stat().st_size > 30000
    assert cold_access_point.phone().info().status == 200


def test_a_log_file_that_cannot_be_renamed_keeps_its_bound_too(
    cold_access_point: AccessPoint,
) -> None:
    cold_access_point.configure({"logger.file.maxsize": "40000"})
    daemon = cold_access_point.prepare()
    (cold_access_point.directory / "velmd.log.1" / "in the way").mkdir(parents=True)
    daemon.start()
    daemon.wait_until_serving()
    fill_the_log(cold_access_point, 100_000)
    assert daemon.log_file.stat().st_size <= 41000
    assert daemon.log().startswith("log file cannot be renamed, so it was emptied: error ")
    assert cold_access_point.phone().info().status == 200


# The time zone.


def zone_file(name: str, hours: int) -> bytes:
    """A time zone file: one zone for all times."""
    header = b"TZif2" + bytes(15) + struct.pack(">6l", 0, 0, 0, 0, 1, len(name) + 1)
    zone = struct.pack(">lBB", hours * 3600, 0, 0) + name.encode() + b"\0"
    return (header + zone) * 2 + f"\n<{name}>{-hours}\n".encode()


def hour_of_the_last_line(daemon: Daemon) -> int:
    return int(daemon.log().splitlines()[-1][11:13])


def test_a_reload_takes_the_time_zone_that_is_set_now(cold_access_point: AccessPoint) -> None:
    zone = cold_access_point.directory / "localtime"
    zone.write_bytes(zone_file("ONE", 1))
    mount = f'mount --bind "{zone}" /etc/localtime && exec env --unset=TZ "$@"'
    daemon = cold_access_point.prepare(through=["sh", "-c", mount, "zoned"])
    daemon.start()
    daemon.wait_until_serving()
    before = hour_of_the_last_line(daemon)
    zone.write_bytes(zone_file("NINE", 9))
    os.utime(zone, (1, 1))  # the C library compares whole seconds
    cold_access_point.reload()
    assert (hour_of_the_last_line(daemon) - before) % 24 in (8, 9)
