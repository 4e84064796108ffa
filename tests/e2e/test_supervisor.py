"""What the daemon tells the supervisor that started it, by systemd's protocol."""

from __future__ import annotations

import os
import signal
import socket
import subprocess
import time
from collections.abc import Iterator
from pathlib import Path

import pytest
from velm_sim.access_point import AccessPoint
from velm_sim.daemon import Daemon, wait_until
from velm_sim.namespaces import Network


class Supervisor:
    """The socket of a supervisor, and the messages that came to it."""

    def __init__(self, path: Path) -> None:
        self.environment = {"NOTIFY_SOCKET": str(path)}
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(str(path))

    def message(self, timeout: float = 10.0) -> dict[str, str]:
        """The next message: its variables."""
        self._socket.settimeout(timeout)
        text = self._socket.recv(4096).decode()
        return dict(line.split("=", 1) for line in text.split("\n"))

    def wait(self, name: str) -> dict[str, str]:
        """The next message with that variable; those before are passed over."""
        while True:
            message = self.message()
            if name in message:
                return message

    def nothing_waits(self) -> bool:
        self._socket.setblocking(False)
        try:
            self._socket.recv(4096)
        except BlockingIOError:
            return True
        return False

    def close(self) -> None:
        self._socket.close()


@pytest.fixture
def supervisor(cold_access_point: AccessPoint) -> Iterator[Supervisor]:
    made = Supervisor(cold_access_point.directory / "notify")
    yield made
    made.close()


def started(access_point: AccessPoint, environment: dict[str, str], **more: bool) -> Daemon:
    daemon = access_point.prepare(environment=environment, **more)
    daemon.start()
    return daemon


SERVES = f"Serves phones at {Network.AP_ADDRESS}:8443"


def test_ready_comes_when_everything_is_served(
    cold_access_point: AccessPoint, supervisor: Supervisor
) -> None:
    daemon = started(cold_access_point, supervisor.environment)
    ready = supervisor.wait("READY")
    assert ready == {"READY": "1", "MAINPID": str(daemon.pid), "STATUS": SERVES}
    assert daemon.https_listener() and daemon.ipc_listener()
    assert cold_access_point.phone().info().status == 200
    assert supervisor.nothing_waits(), "a request is nothing to tell"


def test_ready_names_the_pid_of_a_daemon_in_the_background(
    cold_access_point: AccessPoint, supervisor: Supervisor
) -> None:
    daemon = started(cold_access_point, supervisor.environment, daemonize=True)
    assert supervisor.wait("READY")["MAINPID"] == str(daemon.pid)


def test_a_reload_is_told_from_its_begin_to_its_end(
    cold_access_point: AccessPoint, supervisor: Supervisor
) -> None:
    daemon = started(cold_access_point, supervisor.environment)
    supervisor.wait("READY")
    cold_access_point.configure({"http.server.port": "8444"})
    before = time.monotonic_ns() // 1000
    os.kill(daemon.pid, signal.SIGHUP)
    reloading = supervisor.wait("RELOADING")
    assert before <= int(reloading["MONOTONIC_USEC"]) <= time.monotonic_ns() // 1000
    ready = supervisor.wait("READY")
    assert ready["STATUS"] == f"Serves phones at {Network.AP_ADDRESS}:8444"
    assert cold_access_point.phone().info().status == 200


def test_ready_comes_while_the_lan_address_is_missing_and_says_so(
    cold_access_point: AccessPoint, supervisor: Supervisor
) -> None:
    """A supervisor that waited for the address would end a daemon that waits for it."""
    bridge = cold_access_point.network.ap
    bridge.batch(f"addr del {Network.AP_ADDRESS}/24 dev br0\n")
    try:
        file = str(cold_access_point.configuration_file)
        daemon = cold_access_point.prepare(
            arguments=["-c", file, "-i", Network.AP_ADDRESS], environment=supervisor.environment
        )
        daemon.start()
        ready = supervisor.wait("READY")
    finally:
        bridge.batch(f"addr add {Network.AP_ADDRESS}/24 dev br0\n")
    waits = f"Waits for the LAN address {Network.AP_ADDRESS}; serves local clients"
    assert ready["STATUS"] == waits
    assert supervisor.message() == {"STATUS": SERVES}


def test_without_https_it_is_ready_for_local_clients(
    cold_access_point: AccessPoint, supervisor: Supervisor
) -> None:
    cold_access_point.configure({"http.server.port": "0"})
    started(cold_access_point, supervisor.environment)
    ready = supervisor.wait("READY")
    assert ready["STATUS"] == "Serves local clients only: http.server.port is 0"


def test_sigterm_is_told_and_ends_the_daemon_by_the_signal(
    cold_access_point: AccessPoint, supervisor: Supervisor
) -> None:
    daemon = started(cold_access_point, supervisor.environment)
    supervisor.wait("READY")
    daemon.kill(signal.SIGTERM)
    assert supervisor.message() == {"STOPPING": "1", "STATUS": "Stops"}
    assert daemon.exit_status() == -signal.SIGTERM


def test_a_daemon_that_nvram_switched_off_was_no_failure(
    cold_access_point: AccessPoint, supervisor: Supervisor
) -> None:
    cold_access_point.nvram_set({"zelkad_mode": "0"})
    daemon = started(cold_access_point, supervisor.environment)
    ready = supervisor.wait("READY")
    assert ready["STATUS"] == "Switched off: zelkad_mode is 0 in nvram"
    assert daemon.process and daemon.process.wait(timeout=10) == 0


def test_an_address_at_which_it_cannot_listen_is_told(
    cold_access_point: AccessPoint, supervisor: Supervisor
) -> None:
    assert cold_access_point.nvram("unset", "lan0_ifnames").returncode == 0
    file = str(cold_access_point.configuration_file)
    cold_access_point.configure({})
    daemon = cold_access_point.prepare(
        arguments=["-c", file, "-i", "no address"], environment=supervisor.environment
    )
    daemon.start()
    told = supervisor.wait("STATUS")
    assert told == {"STATUS": "Ended: cannot listen at no address:8443"}
    assert daemon.process and daemon.process.wait(timeout=10) == -signal.SIGABRT
    assert supervisor.nothing_waits(), "it was never ready"


def test_the_reason_of_an_end_is_told(
    cold_access_point: AccessPoint, supervisor: Supervisor
) -> None:
    missing = cold_access_point.directory / "none.pem"
    cold_access_point.configure({"http.client.ca_cert.path": str(missing)})
    daemon = started(cold_access_point, supervisor.environment)
    told = supervisor.wait("STATUS")
    assert told == {"STATUS": f"Ended: no authorities can be read from {missing}"}
    assert daemon.process and daemon.process.wait(timeout=10) == 2
    assert supervisor.nothing_waits(), "it was never ready"


def test_the_watchdog_is_fed_twice_in_its_time_while_the_loop_turns(
    cold_access_point: AccessPoint, supervisor: Supervisor
) -> None:
    # Of this shell, which becomes the daemon.
    shell = ["/bin/sh", "-c", 'export WATCHDOG_PID=$$; exec "$@"', "sh"]
    daemon = cold_access_point.prepare(
        environment={**supervisor.environment, "WATCHDOG_USEC": "200000"}, through=shell
    )
    daemon.start()
    supervisor.wait("READY")
    begun = time.monotonic()
    for _ in range(5):
        assert supervisor.message() == {"WATCHDOG": "1"}
    assert time.monotonic() - begun >= 0.35
    os.kill(daemon.pid, signal.SIGSTOP)
    try:
        wait_until(lambda: " T " in Path(f"/proc/{daemon.pid}/stat").read_text(), 5, "no stop")
        while not supervisor.nothing_waits():
            pass
        with pytest.raises(TimeoutError):
            supervisor.message(timeout=0.3)
    finally:
        os.kill(daemon.pid, signal.SIGCONT)
    assert supervisor.message() == {"WATCHDOG": "1"}


def test_what_another_process_shall_feed_is_not_fed(
    cold_access_point: AccessPoint, supervisor: Supervisor
) -> None:
    started(
        cold_access_point,
        {**supervisor.environment, "WATCHDOG_USEC": "50000", "WATCHDOG_PID": "1"},
    )
    supervisor.wait("READY")
    with pytest.raises(TimeoutError):
        supervisor.message(timeout=0.3)


def test_no_child_learns_of_the_supervisor(
    cold_access_point: AccessPoint, supervisor: Supervisor
) -> None:
    """The command that prints the LAN address is one."""
    directory = cold_access_point.directory
    seen = directory / "environment"
    wrapper = directory / "ip"
    real = subprocess.run(["which", "ip"], capture_output=True, text=True, check=True).stdout
    wrapper.write_text(f'#!/bin/sh\nenv >"{seen}"\nexec {real.strip()} "$@"\n')
    wrapper.chmod(0o755)
    started(
        cold_access_point,
        {
            **supervisor.environment,
            "WATCHDOG_USEC": "1000000",
            "PATH": f"{directory}:{os.environ['PATH']}",
        },
    )
    supervisor.wait("READY")
    environment = seen.read_text()
    assert "PATH=" in environment
    assert "NOTIFY_SOCKET" not in environment and "WATCHDOG" not in environment
