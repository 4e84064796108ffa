"""A router as the init script sees it: its files below one folder, stand-ins for OpenWrt's functions."""

from __future__ import annotations

import os
import shutil
import subprocess
from dataclasses import dataclass, field
from pathlib import Path

from velm_sim.build import Build

HERE = Path(__file__).parent
STAND_INS = HERE / "stand_ins"
FILES = HERE.parents[1] / "packaging" / "openwrt" / "files"
SHELLS = {"dash": ["dash"], "busybox": ["busybox", "sh"]}


def uci_quote(value: str) -> str:
    """As `uci export` writes a value."""
    return "'" + value.replace("'", "'\\''") + "'"


@dataclass
class Ran:
    """What one action of the init script did."""

    status: int
    output: str
    calls: list[list[str]]
    log: list[str]

    def calls_of(self, name: str) -> list[list[str]]:
        return [call[1:] for call in self.calls if call[0] == name]

    def parameter(self, name: str) -> list[str]:
        """What procd was told about it, over all calls."""
        set_ = [call[1:] for call in self.calls_of("procd_set_param") if call[0] == name]
        more = [call[1:] for call in self.calls_of("procd_append_param") if call[0] == name]
        assert len(set_) == 1, f"{name} was set {len(set_)} times"
        return [word for words in (*set_, *more) for word in words]


@dataclass
class Router:
    root: Path
    shell: list[str]
    build: Build
    environment: dict[str, str] = field(default_factory=dict)

    def install(self) -> None:
        for name, place in {
            "velmd.init": "etc/init.d/velmd",
            "velmd.config": "etc/config/velmd",
            "configuration.sh": "usr/lib/velmd/configuration.sh",
            "platform.sh": "usr/lib/velmd/platform.sh",
        }.items():
            self.put(place, FILES / name)
        self.put("lib/functions/network.sh", STAND_INS / "network.sh")
        self.put("usr/sbin/velmd", STAND_INS / "programs" / "velmd")
        self.put("usr/libexec/velmd/nvram", self.build.program("nvram"))

    def put(self, place: str, source: Path) -> None:
        target = self.root / place
        target.parent.mkdir(parents=True, exist_ok=True)
        target.unlink(missing_ok=True)
        shutil.copy(source, target)

    def configure(self, *lines: tuple[str, str, str], section: str = "velmd 'main'") -> None:
        """Each line is "option" or "list", a name and a value. The service is enabled."""
        text = [f"config {section}", "\toption enabled '1'"]
        text += [f"\t{kind} {name} {uci_quote(value)}" for kind, name, value in lines]
        (self.root / "etc/config/velmd").write_text("\n".join(text) + "\n")

    def options(self, **options: str) -> None:
        self.configure(*(("option", name, value) for name, value in options.items()))

    def add_access_point(self, interface: str, address: str) -> None:
        folder = self.root / "sys/class/net" / interface
        folder.mkdir(parents=True)
        (folder / "address").write_text(address + "\n")

    def run(self, action: str, running: bool = False) -> Ran:
        for name in ("calls", "log"):
            (self.root / name).write_text("")
        done = subprocess.run(
            [*self.shell, STAND_INS / "rc.common", self.root / "etc/init.d/velmd", action],
            env={
                **os.environ,
                **self.environment,
                "PATH": f"{STAND_INS / 'programs'}:{os.environ['PATH']}",
                "STAND_INS": str(STAND_INS),
                "IPKG_INSTROOT": str(self.root),
                "CALLS": str(self.root / "calls"),
                "LOG": str(self.root / "log"),
                "RUNNING": "yes" if running else "",
            },
            cwd=self.working_directory,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            timeout=30,
        )
        calls = (self.root / "calls").read_text().split("\036")[:-1]
        return Ran(
            status=done.returncode,
            output=done.stdout,
            calls=[call.split("\037")[:-1] for call in calls],
            log=(self.root / "log").read_text().split("\036")[:-1],
        )

    def started(self) -> Ran:
        """A start that went as it should."""
        ran = self.run("start")
        assert (ran.status, ran.output) == (0, ""), ran
        return ran

    @property
    def working_directory(self) -> Path:
        """Nothing is ever written there: a value that were run would show."""
        return self.root.parent / "empty"

    @property
    def file(self) -> Path:
        return self.root / "var/etc/velmd.conf"

    def nvram(self, *arguments: str) -> str:
        done = subprocess.run(
            [self.root / "usr/libexec/velmd/nvram", *arguments],
            env={**os.environ, "VELM_NVRAM": str(self.root / "etc/velmd/nvram")},
            stdout=subprocess.PIPE,
            text=True,
            timeout=30,
        )
        return done.stdout
