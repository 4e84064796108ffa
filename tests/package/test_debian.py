"""Do the Debian packages install, upgrade and leave as people expect of them?"""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

from velm_harness.booted import Booted
from velm_harness.packaged import (
    CONFIGURATION,
    SOCKET,
    UNIT,
    owner,
    pid_of_daemon,
    set_nvram,
    settings_of_test,
    with_settings,
    write_credentials,
    write_names_and_account,
)
from velm_sim.access_point import PORT, AccessPoint, Credentials
from velm_sim.cloud import Cloud
from velm_sim.ipc_client import STATUS_OK, IpcClient
from velm_sim.phone import Phone, sample_location

FILES = ("/var/tmp/velmd.deb", "/var/tmp/velmd-nvram.deb", "/var/tmp/libvelm-dev.deb")
NAMES = ("velmd", "velmd-nvram", "libvelm-dev")

# What dpkg, the journal and the commands for accounts write about anything.
OF_OTHERS = (
    "/var/lib/dpkg/", "/var/log/", "/var/cache/", "/var/lib/systemd/", "/etc/passwd-", "/etc/group-",
    "/etc/shadow-", "/etc/gshadow-", "/etc/subuid-", "/etc/subgid-", "/etc/.pwd.lock",
)  # fmt: skip


def all_files(machine: Booted) -> set[str]:
    """Of the root file system, less what belongs to others."""
    found = machine.must("find", "/", "-xdev").splitlines()
    return {path for path in found if not path.startswith(OF_OTHERS)}


def install(machine: Booted) -> str:
    return machine.must("dpkg", "--install", *FILES)


def round_trip(machine: Booted, cloud: Cloud, phone: Phone) -> None:
    client = IpcClient(machine.root / SOCKET)
    client.request(wanted_within=45)
    cloud.fcm.wait()
    assert phone.location(sample_location()).status == 200
    assert client.receive().status == STATUS_OK
    client.close()
    cloud.reset()


def check_installed(machine: Booted) -> None:
    """Nothing runs yet: the certificate is missing. What root sets belongs to the daemon."""
    assert machine.run("systemctl", "is-active", UNIT) == (3, "inactive\n")
    assert machine.run("systemctl", "is-enabled", UNIT) == (1, "disabled\n")
    assert machine.run("systemd-analyze", "verify", "--man=no", UNIT) == (0, "")
    user, group = (int(machine.must("id", what, "velmd")) for what in ("--user", "--group"))
    assert owner(machine.root / "var/lib/velmd/nvram") == (user, group, 0o700)
    assert "velmd 7." in machine.must("velmd", "-v")


def check_commands(machine: Booted) -> None:
    """They find the configuration and the daemon without being told where."""
    assert machine.must("velmd", "-t").endswith("configuration is good\n")
    assert "velmd 7." in machine.must("velmctl", "status")
    status, findings = machine.run("velmctl", "doctor", "--offline")
    assert status in (0, 1) and "FAIL" not in findings, findings
    assert machine.must("velmctl", "reload").startswith("reloaded")


def check_upgrade(machine: Booted, changed: str, phone: Phone) -> None:
    pid = pid_of_daemon(machine)
    install(machine)
    assert (machine.root / CONFIGURATION).read_text() == changed
    assert machine.property_of(UNIT, "ActiveState") == "active"
    assert pid_of_daemon(machine) != pid, "the old daemon still runs"
    assert phone.location(sample_location()).status == 200


def check_removed(machine: Booted, changed: str) -> None:
    machine.must("dpkg", "--remove", *NAMES)
    assert machine.run("systemctl", "is-active", UNIT)[0] != 0
    assert not (machine.root / "usr/sbin/velmd").exists()
    assert (machine.root / CONFIGURATION).read_text() == changed
    assert (machine.root / "var/lib/velmd/nvram/committed.0").exists()


def check_purged(machine: Booted, before: set[str]) -> None:
    machine.must("dpkg", "--purge", *NAMES)
    assert all_files(machine) - before == set()
    for name in ("passwd", "group", "shadow", "gshadow"):
        assert "velmd" not in (machine.root / "etc" / name).read_text(), name
    assert "velm" not in machine.must("dpkg", "--list")
    assert machine.must("find", "/var/lib/systemd", "/etc/systemd", "-name", "velmd*") == ""


def test_install_upgrade_remove_and_purge(
    machine: Booted, credentials: Credentials, cloud: Cloud, phones: AccessPoint
) -> None:
    write_names_and_account(machine)
    before = all_files(machine)
    install(machine)
    check_installed(machine)

    sample = (machine.root / CONFIGURATION).read_text()
    changed = with_settings(sample, settings_of_test(PORT))
    machine.write(CONFIGURATION, changed)
    write_credentials(machine, credentials)
    set_nvram(machine)
    machine.must("systemctl", "enable", "--now", UNIT)
    phone = phones.phone()
    assert phone.pair().status == 200
    round_trip(machine, cloud, phone)
    check_commands(machine)

    check_upgrade(machine, changed, phone)
    check_removed(machine, changed)
    install(machine)
    machine.must("systemctl", "start", UNIT)
    round_trip(machine, cloud, phone)
    check_purged(machine, before)


def test_the_headers_are_found_by_pkg_config(packages: dict[str, Path], tmp_path: Path) -> None:
    subprocess.run(["dpkg-deb", "--extract", packages["libvelm-dev"], tmp_path], check=True)
    environment = {
        **os.environ,
        "PKG_CONFIG_LIBDIR": str(tmp_path / "usr/share/pkgconfig"),
        "PKG_CONFIG_SYSROOT_DIR": str(tmp_path),
        "PKG_CONFIG_ALLOW_SYSTEM_CFLAGS": "1",
    }
    command = ["pkg-config", "--cflags", "velm"]
    flags = subprocess.run(command, env=environment, capture_output=True, text=True, check=True)
    source = tmp_path / "client.c"
    source.write_text("#include <velm/location_policy.h>\nint main(void) { return 0; }\n")
    compiler = ["cc", "-Wall", "-Werror", "-fsyntax-only", *flags.stdout.split(), str(source)]
    subprocess.run(compiler, check=True)
    assert f"-I{tmp_path}/usr/include" in flags.stdout
