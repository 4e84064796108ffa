"""An access point as the packages set it up: systemd runs the daemon as a user of its own."""

from __future__ import annotations

import os
import re
import subprocess
from collections.abc import Mapping
from pathlib import Path

from velm_harness.booted import Booted
from velm_sim.access_point import APP_ID, NVRAM, Credentials
from velm_sim.cloud import HOSTS
from velm_sim.daemon import wait_until
from velm_sim.etc_files import ADMIN, hashed
from velm_sim.namespaces import Network
from velm_sim.play_integrity import PACKAGE_NAME

REPOSITORY = Path(__file__).resolve().parents[3]
UNIT = "velmd.service"
CONFIGURATION = "etc/velmd/velmd.conf"
SOCKET = "run/velmd/location"


def packaged_configuration() -> str:
    """What the package installs."""
    command = ["sed", "-f", "packaging/debian/velmd.conf.sed", "etc/velmd.conf"]
    done = subprocess.run(command, cwd=REPOSITORY, capture_output=True, text=True, check=True)
    return done.stdout


def with_settings(text: str, settings: Mapping[str, str]) -> str:
    """The configuration with other values; a key that it has not, or only as a comment, is added."""
    for key, value in settings.items():
        line = f"{key}={value}"
        text, count = re.subn(rf"^{re.escape(key)}=.*$", line, text, flags=re.MULTILINE)
        text += "" if count else f"{line}\n"
    return text


def settings_of_test(port: int) -> dict[str, str]:
    """What differs from the sample: the authorities and the app of the tests."""
    return {
        "http.server.port": str(port),
        "http.client.ca_cert.path": "/etc/velmd/cloud_ca.pem",
        "app.ios.appid": APP_ID,
        "app.ios.attest.root.ca.path": "/etc/velmd/attestation_root.pem",
        "app.android.package_name": PACKAGE_NAME,
    }


def write_credentials(machine: Booted, secret: Credentials) -> None:
    """Keys that the daemon's group may read, after its user has been made."""
    at = machine.root / "etc/velmd"
    secret.server.write(at / "velm_server_cert.pem", at / "velm_server_key.pem")
    (at / "cloud_ca.pem").write_text(secret.cloud.authority.pem)
    (at / "attestation_root.pem").write_text(secret.attestation.root.pem)
    for name in ("firebase_adminsdk_key.json", "android_integrity_adminsdk_key.json"):
        secret.account.write(at / name)
    (at / "android_integrity_decryption.jwk").write_text(secret.integrity.decryption_file())
    (at / "android_integrity_verification.jwk").write_text(secret.integrity.verification_file())
    for path in at.iterdir():
        machine.must("chgrp", "velmd", f"/etc/velmd/{path.name}")
        path.chmod(0o640)


def write_names_and_account(machine: Booted) -> None:
    """The cloud's names, and the account of the owner, as passwd(1) stores it."""
    names = "".join(f"{Network.CLOUD_ADDRESS} {name}\n" for name in HOSTS)
    machine.write("etc/hosts", f"127.0.0.1 localhost\n{names}")
    account = f"{ADMIN.username}:x:4242:4242::/:/bin/false\n"
    machine.write("etc/passwd", (machine.root / "etc/passwd").read_text() + account)
    secret = f"{ADMIN.username}:{hashed(ADMIN.password)}:19000:0:99999:7:::\n"
    machine.write("etc/shadow", (machine.root / "etc/shadow").read_text() + secret, 0o640)


# Such a machine logs as the sample says.
SETTINGS = {name: value for name, value in NVRAM.items() if name != "zelkad_debug_level"}


def set_nvram(machine: Booted, settings: Mapping[str, str] = SETTINGS) -> None:
    machine.must("nvram", "set", *(f"{name}={value}" for name, value in settings.items()))
    machine.must("nvram", "commit")


def pid_of_daemon(machine: Booted) -> int:
    """Outside; 0 while there is none."""
    inside = int(machine.property_of(UNIT, "MainPID"))
    return machine.pid_outside(inside) if inside else 0


def wait_for_another(machine: Booted, pid: int) -> int:
    """The daemon that was started in the place of `pid`, once it is ready."""

    def another() -> bool:
        is_active = machine.property_of(UNIT, "ActiveState") == "active"
        return is_active and pid_of_daemon(machine) not in (0, pid)

    wait_until(another, 20, "the daemon was not started again")
    return pid_of_daemon(machine)


def status_fields(pid: int) -> dict[str, str]:
    lines = Path(f"/proc/{pid}/status").read_text().splitlines()
    return {name: value.strip() for name, _, value in (line.partition(":") for line in lines)}


def owner(path: Path) -> tuple[int, int, int]:
    """User, group and mode."""
    found = os.stat(path)
    return found.st_uid, found.st_gid, found.st_mode & 0o7777
