"""An access point: wires, accounts, settings and certificates around one velmd."""

from __future__ import annotations

import os
import shutil
import subprocess
import tempfile
import time
from collections.abc import Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path

from .android_phone import AndroidPhone, android_profile
from .app_attest import AttestationAuthority
from .build import Build
from .certificates import Identity, make_server
from .cloud import HOSTS, CloudCertificates
from .control import Control
from .daemon import Daemon
from .etc_files import ADMIN, EtcFiles
from .lan_http import LanHost
from .namespaces import Network
from .phone import Login, Phone, Profile
from .play_integrity import PACKAGE_NAME, IntegrityKeys
from .service_account import ServiceAccount
from .tls_policy import DEFAULT, TlsPolicy

PORT = 8443
APP_ID = "Q4TZ8KM2W7.com.norvale.afc"
SERIAL_NUMBER = "NV-2207-001942"
VENDOR = "NORVALE"
BSSIDS = ("00:1a:2b:3c:4d:50", "00:1a:2b:3c:4d:51", "00:1A:2B:3C:4D:60")
PAIRING_MEMBERS = (
    "status", "dev_id", "dev_type", "name", "push_token", "date_added", "dev_model", "os_version",
    "attestation_key",
)  # fmt: skip
LARGEST_CONFIGURATION = 4096
LONGEST_MOMENT = 2.0

NVRAM = {
    "wl_radio_num": "2",
    "wl0_maxssid": "4",
    "wl0_hwaddr": BSSIDS[0],
    "wl0.1_hwaddr": BSSIDS[1],
    "wl1_maxssid": "4",
    "wl1_hwaddr": BSSIDS[2],
    "lan0_ifnames": "eth0 wl0 wl1",
    "lan0_ifname": "br0",
    "ap_serial_number": SERIAL_NUMBER,
    "ap_vendor": VENDOR,
    "zelkad_debug_level": "trace",
}


@dataclass(frozen=True)
class Credentials:
    """Everything secret or signed. Slow to make and safe to share between access points.

    `tls` is what the phones are willing to negotiate; the cloud's own is in `cloud`.
    """

    server: Identity = field(default_factory=lambda: make_server([Network.AP_ADDRESS]))
    cloud: CloudCertificates = field(default_factory=CloudCertificates)
    account: ServiceAccount = field(default_factory=ServiceAccount)
    attestation: AttestationAuthority = field(default_factory=AttestationAuthority)
    integrity: IntegrityKeys = field(default_factory=IntegrityKeys)
    tls: TlsPolicy = DEFAULT


class AccessPoint:
    """Settings first (`configuration`, `etc`, nvram), then `start`.

    Everything lies in `directory`, which `close` removes together with the daemon. The daemon and
    whatever it runs see the machine's files except for three of /etc.
    """

    def __init__(self, build: Build, network: Network, credentials: Credentials) -> None:
        self.build, self.network, self.credentials = build, network, credentials
        self.directory = Path(tempfile.mkdtemp(prefix=f"{network.label}-"))
        self.socket_path = self.directory / "run" / "zelka_daemon"
        self.pid_file = self.directory / "velmd.pid"
        self.registry = self.directory / "restart.jsonl"
        self.configuration_file = self.directory / "velmd.conf"
        self.etc = EtcFiles(self.directory / "etc")
        self.etc.set_hosts(dict.fromkeys(HOSTS, Network.CLOUD_ADDRESS))
        self.login: Login = ADMIN
        self.port = PORT
        self.configuration = self._default_configuration()
        self._write_credentials()
        self.nvram_set(NVRAM)
        self._daemon: Daemon | None = None

    # Settings.

    def _default_configuration(self) -> dict[str, str]:
        at = self.directory
        return {
            "process.daemonize": "no",
            "process.pidfile": str(self.pid_file),
            "http.client.ca_cert.path": f"{at}/cloud_ca.pem",
            "http.server.cert.path": f"{at}/server_cert.pem",
            "http.server.key.path": f"{at}/server_key.pem",
            "http.server.port": str(self.port),
            "ssdp.server.port": "1900",
            "pairings.limit": "10",
            "app.android.package_name": PACKAGE_NAME,
            "app.android.integrity.d.key.path": f"{at}/integrity_decryption.jwk",
            "app.android.integrity.v.key.path": f"{at}/integrity_verification.jwk",
            "app.android.integrity.privatekey.path": f"{at}/service_account.json",
            "app.ios.appid": APP_ID,
            "app.ios.attest.root.ca.path": f"{at}/attestation_root.pem",
            "location.policy.ipc.sock": str(self.socket_path),
            "cloudmessaging.firebase.privatekey.path": f"{at}/service_account.json",
            "logger.level": "trace",
            "logger.file": "yes",
            "logger.file.name": f"{at}/velmd.log",
        }

    def _write_credentials(self) -> None:
        at, secret = self.directory, self.credentials
        secret.server.write(at / "server_cert.pem", at / "server_key.pem")
        (at / "cloud_ca.pem").write_text(secret.cloud.authority.pem)
        (at / "attestation_root.pem").write_text(secret.attestation.root.pem)
        secret.account.write(at / "service_account.json")
        (at / "integrity_decryption.jwk").write_text(secret.integrity.decryption_file())
        (at / "integrity_verification.jwk").write_text(secret.integrity.verification_file())

    def configure(self, changes: Mapping[str, str | None]) -> None:
        """Changes keys and writes the file; None drops a key. A running daemon needs a reload."""
        for key, value in changes.items():
            if value is None:
                self.configuration.pop(key, None)
            else:
                self.configuration[key] = value
        self.port = int(self.configuration.get("http.server.port", self.port))
        text = "# settings of an access point under test\n" + "".join(
            f"{key} = {_quoted(value)}\n" for key, value in self.configuration.items()
        )
        if len(text.encode()) > LARGEST_CONFIGURATION:
            raise ValueError(f"the daemon reads {LARGEST_CONFIGURATION} bytes of {len(text)}")
        self.configuration_file.write_text(text)

    # nvram, through its command.

    @property
    def environment(self) -> dict[str, str]:
        return {"VELM_NVRAM": str(self.directory / "nvram"), "VELM_DM_REGISTRY": str(self.registry)}

    def nvram(
        self, *arguments: str, environment: Mapping[str, str] | None = None
    ) -> subprocess.CompletedProcess[str]:
        environment = {
            **os.environ,
            **self.environment,
            **(environment or {}),
            **self.build.environment(self.directory),
        }
        command = [str(self.build.program("nvram")), *arguments]
        return subprocess.run(command, env=environment, capture_output=True, text=True, timeout=30)

    def nvram_set(self, settings: Mapping[str, str]) -> None:
        done = self.nvram("set", *(f"{name}={value}" for name, value in settings.items()))
        if done.returncode != 0 or self.nvram("commit").returncode != 0:
            raise RuntimeError(f"nvram set: {done.stderr}")

    def nvram_get(self, name: str) -> str | None:
        done = self.nvram("get", name)
        return done.stdout.removesuffix("\n") if done.returncode == 0 else None

    def nvram_show(self) -> str:
        return self.nvram("show").stdout

    def pairing(self, slot: int) -> dict[str, str | None]:
        """What nvram holds of a pairing."""
        return {
            member: self.nvram_get(f"zelkad_pairing_{slot}_{member}") for member in PAIRING_MEMBERS
        }

    # The daemon.

    def inside(self, *arguments: str) -> list[str]:
        """A command in the access point's network that sees the access point's /etc files."""
        script = (
            f"{self.etc.mount_script()}"
            'exec env ${VELM_PRELOAD:+LD_PRELOAD="$VELM_PRELOAD"} "$@"'
        )
        return self.network.ap.command(
            "unshare", "--mount", "--propagation", "private", "--",
            "/bin/sh", "-c", script, "sh", *arguments,
        )  # fmt: skip

    def prepare(
        self,
        *,
        daemonize: bool = False,
        clock: bool = False,
        arguments: Sequence[str] | None = None,
        environment: Mapping[str, str] | None = None,
        through: Sequence[str] = (),
        preload: Sequence[Path] = (),
    ) -> Daemon:
        """A daemon that is not started yet. `arguments` replace "-c FILE"; `through` is a command
        that runs it; `preload` are libraries for it alone."""
        self.configure({"process.daemonize": "yes" if daemonize else "no"})
        given = ["-c", str(self.configuration_file)] if arguments is None else list(arguments)
        self._daemon = Daemon(
            build=self.build,
            directory=self.directory,
            command=self.inside(*through, str(self.build.program("velmd")), *given),
            environment={**self.environment, **(environment or {})},
            port=self.port,
            socket_path=self.socket_path,
            pid_file=self.pid_file if daemonize else None,
            clock=clock,
            preload=tuple(preload),
        )
        return self._daemon

    def start(self, *, daemonize: bool = False, clock: bool = False) -> Daemon:
        """Starts the daemon and returns once it serves."""
        daemon = self.prepare(daemonize=daemonize, clock=clock)
        daemon.start()
        daemon.wait_until_serving()
        self._wait_for_control_socket(daemon)
        return daemon

    @property
    def started(self) -> bool:
        return self._daemon is not None and self._daemon.pid != 0

    @property
    def daemon(self) -> Daemon:
        if self._daemon is None:
            raise RuntimeError("the daemon was not started")
        return self._daemon

    def stop(self) -> None:
        if self._daemon:
            self._daemon.stop()

    def close(self) -> None:
        """Ends the daemon without judging it and removes the files."""
        try:
            if self._daemon:
                self._daemon.kill()
        finally:
            shutil.rmtree(self.directory, ignore_errors=True)

    def daemon_alive(self) -> bool:
        return self.daemon.alive()

    def log(self, start: int = 0) -> str:
        return self.daemon.log(start)

    def reload(self) -> None:
        self.daemon.reload()

    def move_clock(self, seconds: float) -> None:
        self.daemon.move_clock(seconds)

    def stop_clock(self, moment: int) -> None:
        self.daemon.stop_clock(moment)

    # Who talks to it.

    @property
    def control_path(self) -> str:
        """Empty when it is switched off."""
        beside = self.pid_file.parent / "velmd.control.sock"
        return self.configuration.get("control.sock", str(beside))

    def _wait_for_control_socket(self, daemon: Daemon) -> None:
        """It comes a moment after the servers: who counts descriptors must count it too. A daemon that
        cannot have one says so and serves all the same."""
        end = time.monotonic() + LONGEST_MOMENT
        while self.control_path and time.monotonic() < end:
            if daemon.listener_at(self.control_path) or "no control socket" in daemon.log():
                return
            time.sleep(0.001)

    @property
    def control(self) -> Control:
        """A client of the control socket, which comes a moment after the servers."""
        made = Control(Path(self.control_path))
        end = time.monotonic() + LONGEST_MOMENT
        while self.started and not made.listens() and time.monotonic() < end:
            time.sleep(0.001)
        return made

    def lan_host(self, number: int = 0, timeout: float = 10.0) -> LanHost:
        """A host of the LAN, by the number of its address."""
        return LanHost(
            self.network.phone,
            Network.AP_ADDRESS,
            self.port,
            self.credentials.server.pem,
            source=Network.PHONE_ADDRESSES[number],
            timeout=timeout,
            policy=self.credentials.tls,
        )

    def phone(self, number: int = 0, profile: Profile | None = None) -> Phone:
        """A phone with the app and the right login, not paired yet."""
        return Phone(
            self.lan_host(number),
            self.credentials.attestation,
            APP_ID,
            BSSIDS[0],
            self.login,
            profile or Profile(),
        )

    def android_phone(
        self, number: int = 0, profile: Profile | None = None, timeout: float = 10.0
    ) -> AndroidPhone:
        """An Android phone with the app and the right login, not paired yet."""
        return AndroidPhone(
            self.lan_host(number, timeout),
            self.credentials.attestation,
            APP_ID,
            BSSIDS[0],
            self.login,
            profile or android_profile(),
            integrity=self.credentials.integrity,
        )

    def locate(self, *arguments: str) -> subprocess.Popen[str]:
        """The command `velmctl locate`, running."""
        program = str(self.build.program("velmctl"))
        return subprocess.Popen(
            [program, "locate", "--socket", str(self.socket_path), *arguments],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )


def _quoted(value: str) -> str:
    """A value that holds blanks must stand in quotes."""
    if value and not any(letter.isspace() or letter == '"' for letter in value):
        return value
    escaped = value.replace('"', '\\"')
    return f'"{escaped}"'
