"""Does a daemon that is built for a vendor's platform library link with it, alone, and run on it?

The library is a stand-in in C (tests/vendor). The build under test has a daemon that is linked with it.
A port names its library in VELM_PLATFORM_LIBRARIES: what CMake makes of that is looked at, not built.
Everything stays in a temporary directory and on loopback.
"""

from __future__ import annotations

import os
import re
import signal
import socket
import ssl
import subprocess
import time
import urllib.request
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from velm_harness.version import VERSION
from velm_sim.build import Build

pytestmark = pytest.mark.each_machine

REPOSITORY = Path(__file__).resolve().parents[2]
PLATFORM_FUNCTIONS = {
    "nvram_unf_get",
    "nvram_set",
    "nvram_commit",
    "dm_register_app_restart_info",
}
WAIT_LIMIT_S = 20
CONFIGURE_LIMIT_S = 120


def run(*command: str | Path, timeout: float = WAIT_LIMIT_S, **options) -> str:
    done = subprocess.run(
        [str(word) for word in command],
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        timeout=timeout,
        check=False,
        **options,
    )
    assert done.returncode == 0, f"{command} ended with {done.returncode}:\n{done.stdout[-4000:]}"
    return done.stdout


def wait_until(holds: Callable[[], bool], what: str) -> None:
    deadline = time.monotonic() + WAIT_LIMIT_S
    while not holds():
        assert time.monotonic() < deadline, f"waited in vain: {what}"
        time.sleep(0.02)


@pytest.fixture
def vendor_daemon(build: Build) -> Path:
    """A daemon linked with the vendor's library."""
    program = build.directory / "tests" / "vendor" / "velmd"
    assert program.is_file(), f"build the target velmd_vendor of {build.directory} first"
    return program


class Device:
    """The vendor's settings and registry, and the environment that names them."""

    def __init__(self, place: Path) -> None:
        self.place = place
        self.nvram = place / "nvram.txt"
        self.registry = place / "registry.txt"
        self.environment = os.environ | {
            "VENDOR_NVRAM": str(self.nvram),
            "VENDOR_REGISTRY": str(self.registry),
        }

    def set(self, **settings: object) -> None:
        with self.nvram.open("a") as store:
            store.writelines(f"{name}={value}\n" for name, value in settings.items())


@pytest.fixture
def device(tmp_path: Path) -> Device:
    return Device(tmp_path)


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def make_certificate(place: Path) -> tuple[Path, Path]:
    certificate, key = place / "cert.pem", place / "key.pem"
    run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
        "-nodes", "-subj", "/CN=vendor", "-days", "2", "-keyout", key, "-out", certificate,
        stdin=subprocess.DEVNULL)  # fmt: skip
    return certificate, key


@pytest.fixture
def running_daemon(vendor_daemon: Path, device: Device) -> Iterator[int]:
    """The port of a daemon in the background that has all its settings from the vendor's nvram."""
    certificate, key = make_certificate(device.place)
    port = free_port()
    device.set(
        zelkad_http_client_trusted_ca=certificate,
        zelkad_http_server_cert=certificate,
        zelkad_http_server_privatekey=key,
        zelkad_http_server_port=port,
        zelkad_cmd_path=device.place / "socket",
    )
    pid_file = device.place / "velmd.pid"
    config = device.place / "velmd.conf"
    config.write_text(f"process.pidfile={pid_file}\n")
    with (device.place / "output").open("w") as output:
        subprocess.run(
            [vendor_daemon, "-c", config, "-i", "127.0.0.1", "-n", "lo"],
            env=device.environment,
            stdin=subprocess.DEVNULL,
            stdout=output,
            stderr=output,
            timeout=WAIT_LIMIT_S,
            check=True,
        )
    wait_until(lambda: pid_file.exists() and pid_file.read_text().endswith("\n"), "the pid file")
    pid = int(pid_file.read_text())
    yield port
    os.kill(pid, signal.SIGTERM)
    wait_until(lambda: not is_running(pid), "the daemon's end")


def is_running(pid: int) -> bool:
    try:
        # A zombie waits for an init that this machine may lack.
        return "\nState:\tZ" not in Path(f"/proc/{pid}/status").read_text()
    except FileNotFoundError:
        return False


def info_status(port: int) -> int | None:
    trusting = ssl.create_default_context()
    trusting.check_hostname = False
    trusting.verify_mode = ssl.CERT_NONE
    try:
        with urllib.request.urlopen(
            f"https://127.0.0.1:{port}/info", context=trusting, timeout=5
        ) as answer:
            return answer.status
    except OSError:
        return None


def test_a_build_for_a_vendor_has_its_library_and_nothing_of_the_host(
    tmp_path: Path, build: Build
) -> None:
    if build.is_asan:
        pytest.skip("the same for every build under test")
    library = tmp_path / "libvendor_platform.so"
    run("cmake", "-G", "Ninja", "-S", REPOSITORY, "-B", tmp_path / "port", "-DVELM_TESTS=OFF",
        "-DVELM_PLATFORM=vendor", f"-DVELM_PLATFORM_LIBRARIES={library}",
        timeout=CONFIGURE_LIMIT_S)  # fmt: skip
    plan = (tmp_path / "port" / "build.ninja").read_text()
    assert "platform/host" not in plan
    assert not re.search(r"^build bin/nvram\b", plan, re.MULTILINE)
    link = re.search(r"^build bin/velmd:.*\n(?: .*\n)*", plan, re.MULTILINE)
    assert link and str(library) in link.group(0)


def test_daemon_takes_the_platform_functions_from_the_library(vendor_daemon: Path) -> None:
    symbols = run("nm", "--dynamic", "--undefined-only", vendor_daemon)
    undefined = {line.split()[-1] for line in symbols.splitlines() if line.strip()}
    assert undefined >= PLATFORM_FUNCTIONS


def test_daemon_prints_its_version(vendor_daemon: Path, device: Device) -> None:
    printed = run(vendor_daemon, "-v", env=device.environment)
    assert printed == f"velmd {VERSION}\n"


def test_mode_zero_in_the_vendors_nvram_keeps_the_daemon_from_running(
    vendor_daemon: Path, device: Device
) -> None:
    device.set(zelkad_mode=0)
    assert run(vendor_daemon, "-v", env=device.environment) == ""


def test_daemon_serves_with_the_settings_of_the_vendors_nvram(running_daemon: int) -> None:
    wait_until(lambda: info_status(running_daemon) == 200, "an answer to /info")


def test_daemon_registers_with_the_vendors_process_monitor_once(
    running_daemon: int, device: Device
) -> None:
    wait_until(lambda: info_status(running_daemon) == 200, "an answer to /info")
    pid = (device.place / "velmd.pid").read_text().strip()
    lines = device.registry.read_text().splitlines()
    assert len(lines) == 1
    registered_pid, flags, program, *arguments = lines[0].split(" ")
    assert (registered_pid, flags) == (pid, "0")
    assert Path(program).name == "velmd"
    assert arguments == ["-c", str(device.place / "velmd.conf"), "-i", "127.0.0.1", "-n", "lo"]
