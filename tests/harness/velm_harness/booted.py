"""A machine with a booted systemd, in namespaces: this one's files, with changes of its own over them.

Whatever the machine writes goes into memory and is gone at its end. Its network is one of the test's.
"""

from __future__ import annotations

import contextlib
import itertools
import os
import shutil
import signal
import subprocess
import tempfile
from pathlib import Path

from velm_sim.daemon import wait_until

# In a mount namespace of its own, and control groups of its own: then nothing of the machine's own
# systemd, or of another one beside, is touched. NAME DIRECTORY LOWER NETWORK
_BOOT = r"""
set -eu
name=$1 at=$2 lower=$3 network=$4
for hierarchy in /sys/fs/cgroup /sys/fs/cgroup/systemd /sys/fs/cgroup/unified; do
    if [ -e "$hierarchy/cgroup.procs" ] && mkdir "$hierarchy/$name" 2>/dev/null; then
        echo $$ >"$hierarchy/$name/cgroup.procs"
    fi
done
mkdir -p /run/systemd
mount -t tmpfs tmpfs /run/systemd
mount -t overlay overlay -o "lowerdir=$lower,upperdir=$at/upper,workdir=$at/work" "$at/root"
exec systemd-nspawn --quiet --directory="$at/root" --machine="$name" --register=no --keep-unit \
    --network-namespace-path="$network" --resolv-conf=off --timezone=off --link-journal=no \
    --console=pipe --boot systemd.unit=velm-boot.target
"""

# What boots: the journal, and nothing that this machine has enabled.
_TARGET = """[Unit]
DefaultDependencies=no
Requires=systemd-journald.service
After=systemd-journald.service
"""


_HIERARCHIES = [Path("/sys/fs/cgroup") / name for name in ("", "systemd", "unified")]


def why_not_bootable() -> str:
    """Empty where a machine can be booted."""
    if shutil.which("systemd-nspawn") is None:
        return "systemd-container is not installed (scripts/test.sh installs it)"
    writable = [path for path in _HIERARCHIES if os.access(path / "cgroup.procs", os.W_OK)]
    return "" if writable else "no control group may be made here"


class Booted:
    """Put files under `upper` and call `boot`; `run` runs a command inside. `close` ends it all."""

    _numbers = itertools.count(1)

    def __init__(self, network: Path, lower: Path = Path("/")) -> None:
        self.name = f"velm-{os.getpid()}-boot-{next(Booted._numbers)}"
        self.network, self.lower = network, lower
        self.directory = Path(tempfile.gettempdir()) / self.name
        self.upper = self.directory / "upper"
        self.console = self.directory / "console"
        self._process: subprocess.Popen[bytes] | None = None
        self.directory.mkdir()
        # No other file system of a test machine is sure to be fit for the upper side of an overlay.
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", self.directory], check=True)
        for name in ("upper", "work", "root"):
            (self.directory / name).mkdir()
        self.write("etc/systemd/system/velm-boot.target", _TARGET)
        self.write("etc/machine-id", f"{os.urandom(16).hex()}\n")

    def write(self, path: str, content: str | bytes, mode: int = 0o644) -> Path:
        """A file of the machine, before it is booted or while it runs."""
        file = (self.root if self._process else self.upper) / path
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(content.encode() if isinstance(content, str) else content)
        file.chmod(mode)
        return file

    def boot(self) -> None:
        with open(self.console, "wb") as console:
            self._process = subprocess.Popen(
                [
                    "unshare", "--mount", "--propagation", "private", "--",
                    "/bin/sh", "-c", _BOOT, "sh",
                    self.name, self.directory, self.lower, self.network,
                ],
                stdin=subprocess.DEVNULL, stdout=console, stderr=subprocess.STDOUT,
            )  # fmt: skip
        try:
            wait_until(self._is_up, 30, "systemd has not booted")
        except TimeoutError as problem:
            raise RuntimeError(f"{problem}\n{self.console.read_text(errors='replace')}") from None

    def _is_up(self) -> bool:
        assert self._process
        if self._process.poll() is not None:
            raise RuntimeError(f"no boot\n{self.console.read_text(errors='replace')}")
        return bool(self.leader) and self.run("systemctl", "is-active", "velm-boot.target")[0] == 0

    @property
    def leader(self) -> int:
        """Process 1 of the machine, by its number outside; 0 before it exists."""
        assert self._process
        children = Path(f"/proc/{self._process.pid}/task/{self._process.pid}/children")
        with contextlib.suppress(OSError):
            for pid in children.read_text().split():
                if Path(f"/proc/{pid}/comm").read_text().strip() == "systemd":
                    return int(pid)
        return 0

    @property
    def root(self) -> Path:
        """The machine's files, as processes outside reach them."""
        return Path(f"/proc/{self.leader}/root")

    def run(self, *command: str, timeout: float = 60) -> tuple[int, str]:
        """Exit status, and all that was printed."""
        done = subprocess.run(
            [
                "nsenter", f"--target={self.leader}",
                "--mount", "--uts", "--ipc", "--net", "--pid", "--cgroup", "--",
                "/usr/bin/env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8",
                *command,
            ],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            text=True, errors="replace", timeout=timeout,
        )  # fmt: skip
        return done.returncode, done.stdout

    def must(self, *command: str, timeout: float = 60) -> str:
        status, output = self.run(*command, timeout=timeout)
        if status != 0:
            raise RuntimeError(f"{' '.join(command)}: {status}\n{output}")
        return output

    def property_of(self, unit: str, name: str) -> str:
        return self.must("systemctl", "show", unit, f"--property={name}", "--value").strip()

    def pid_outside(self, inside: int) -> int:
        """The number that a process of the machine has outside."""
        for status in Path("/proc").glob("[0-9]*/status"):
            with contextlib.suppress(OSError):
                numbers = next(
                    line.split()[1:]
                    for line in status.read_text().splitlines()
                    if line.startswith("NSpid:")
                )
                if len(numbers) > 1 and int(numbers[-1]) == inside and self._is_of(status.parent):
                    return int(numbers[0])
        return 0

    def _is_of(self, process: Path) -> bool:
        return os.readlink(process / "ns/pid") == os.readlink(f"/proc/{self.leader}/ns/pid")

    def journal(self, unit: str) -> str:
        self.must("journalctl", "--sync")
        return self.run("journalctl", "--no-pager", "--output=short-monotonic", f"--unit={unit}")[1]

    def close(self) -> None:
        """Ends every process of the machine and removes what it wrote."""
        if self._process:
            leader = self.leader
            for pid in (leader, self._process.pid):
                if pid:
                    with contextlib.suppress(ProcessLookupError):
                        os.kill(pid, signal.SIGKILL)  # with process 1 all end
            self._process.wait(timeout=20)
        wait_until(self._groups_are_gone, 20, f"control groups of {self.name} stay in use")
        wait_until(self._is_unmounted, 20, f"{self.directory} stays in use")
        self.directory.rmdir()

    def _is_unmounted(self) -> bool:
        return subprocess.run(["umount", self.directory], capture_output=True).returncode == 0

    def _groups_are_gone(self) -> bool:
        """What is dying still is in its group for a moment."""
        groups = list(Path("/sys/fs/cgroup").glob(f"**/{self.name}"))
        for group in groups:
            for below, _, _ in os.walk(group, topdown=False):
                with contextlib.suppress(OSError):
                    os.rmdir(below)
        return not any(group.exists() for group in groups)
