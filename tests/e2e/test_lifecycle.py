"""The command line, settings from the file and from nvram, and what outlives what."""

from __future__ import annotations

import os
import pty
import signal
import subprocess

import pytest
from velm_harness.version import VERSION
from velm_sim.access_point import AccessPoint
from velm_sim.daemon import wait_until


def run(access_point: AccessPoint, *arguments: str) -> tuple[int, str]:
    """A run that ends by itself: exit status and all output."""
    daemon = access_point.prepare(arguments=arguments)
    daemon.start()
    assert daemon.process
    status = daemon.process.wait(timeout=20)
    return status, (access_point.directory / "stdout").read_text()


def usage(access_point: AccessPoint) -> str:
    program = access_point.build.program("velmd")
    return (
        "Usage:\n"
        f" {program}\n"
        f" {program} -c path_to_config\n"
        f" {program} -c path_to_config -i lan_ip_address -n lan_if_name -s serial_number"
        " -m mac_address -b bssids_list\n"
        "  (all parameters are optional)\n"
        "\n"
        f" {program} -v\n"
        f" {program} -h\n"
    )


def test_help_alone_prints_the_usage(cold_access_point: AccessPoint) -> None:
    assert run(cold_access_point, "-h") == (0, usage(cold_access_point))


def test_help_on_a_terminal_has_the_check_too(cold_access_point: AccessPoint) -> None:
    """Tools compare the text that they have always got."""
    program = cold_access_point.build.program("velmd")
    ours, theirs = pty.openpty()
    try:
        subprocess.run([str(program), "-h"], stdout=theirs, check=True, timeout=20)
        shown = os.read(ours, 65536).decode().replace("\r\n", "\n")
    finally:
        os.close(ours)
        os.close(theirs)
    assert shown == f"{usage(cold_access_point)} {program} -t -c path_to_config\n"


def test_version_alone_prints_the_version(cold_access_point: AccessPoint) -> None:
    assert run(cold_access_point, "-v") == (0, f"velmd {VERSION}\n")


@pytest.mark.parametrize("arguments", [["-z"], ["-c"], ["-h", "-z"], ["-v", "-z"]])
def test_a_bad_option_ends_with_the_usage(
    arguments: list[str], cold_access_point: AccessPoint
) -> None:
    status, output = run(cold_access_point, *arguments)
    assert status == 1
    assert f"unknown parameter: -?\n\n{usage(cold_access_point)}" in output
    assert ("invalid option" in output) or ("requires an argument" in output)


def test_help_beside_a_configuration_starts_the_daemon(cold_access_point: AccessPoint) -> None:
    file = str(cold_access_point.configuration_file)
    daemon = cold_access_point.prepare(arguments=["-h", "-c", file])
    daemon.start()
    daemon.wait_until_serving()
    assert f"velm {VERSION}\n" in (cold_access_point.directory / "stdout").read_text()


def test_with_port_0_nothing_listens_and_the_rest_runs(cold_access_point: AccessPoint) -> None:
    cold_access_point.configure({"http.server.port": "0"})
    daemon = cold_access_point.prepare()
    daemon.start()
    wait_until(lambda: bool(daemon.ipc_listener()), 10, "no IPC")
    daemon.wait_log("http_server_start - not configured")
    assert not daemon.https_listener()


def test_nvram_overrides_the_file(cold_access_point: AccessPoint) -> None:
    cold_access_point.nvram_set({"zelkad_pairing_maxnum": "3", "ap_vendor": "OTHER"})
    cold_access_point.start()
    info = cold_access_point.phone().info().json()
    assert (info["pairingsLimit"], info["vendorId"]) == (3, "OTHER")


def test_a_reload_reads_file_and_nvram_again(access_point: AccessPoint) -> None:
    access_point.configure({"pairings.limit": "4"})
    access_point.nvram_set({"ap_serial_number": "NEW-1", "wl0.1_hwaddr": "00:1a:2b:3c:4d:99"})
    access_point.reload()
    info = access_point.phone().info().json()
    assert (info["pairingsLimit"], info["serialNumber"]) == (4, "NEW-1")
    assert "00:1a:2b:3c:4d:99" in info["bssids"]


def test_a_relative_configuration_path_outlives_detaching(cold_access_point: AccessPoint) -> None:
    name = cold_access_point.configuration_file.name
    daemon = cold_access_point.prepare(daemonize=True, arguments=["-c", name])
    daemon.working_directory = cold_access_point.directory
    daemon.start()
    daemon.wait_until_serving()
    cold_access_point.configure({"pairings.limit": "5"})
    daemon.reload()
    assert cold_access_point.phone().info().json()["pairingsLimit"] == 5


def test_pairings_survive_a_kill(access_point: AccessPoint) -> None:
    phone = access_point.phone()
    assert phone.pair().status == 200
    access_point.daemon.kill(signal.SIGKILL)
    access_point.nvram("revert")
    access_point.start()
    assert phone.location().status == 200


def test_idle_it_makes_no_noise(access_point: AccessPoint) -> None:
    """A second of idling: the periodic tick, not a busy loop."""
    spent = access_point.daemon.cpu_seconds()
    subprocess.run(["sleep", "1"], check=True)
    assert access_point.daemon.cpu_seconds() - spent <= 0.05
