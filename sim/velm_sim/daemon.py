"""One run of velmd: started in its namespaces, watched from outside, ended."""

from __future__ import annotations

import os
import re
import signal
import socket
import subprocess
import sys
import time
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

from .build import Build, faketime_library

TCP_LISTEN = "0A"
UNIX_ACCEPTS = 0x10000


class DaemonError(RuntimeError):
    """The daemon did not do what a caller waited for."""


def wait_until(condition: Callable[[], object], timeout: float, what: str) -> None:
    """Returns as soon as the condition holds; `TimeoutError` with `what` when it never does."""
    deadline = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > deadline:
            raise TimeoutError(f"after {timeout} s: {what}")
        time.sleep(0.005)


def remove_shared_clock(pid: int) -> None:
    """libfaketime leaves these when its process ends by a signal. Another with the same number would
    meet them."""
    for name in (f"faketime_shm_{pid}", f"sem.faketime_sem_{pid}"):
        Path("/dev/shm", name).unlink(missing_ok=True)


@dataclass
class Daemon:
    """velmd started by `command` (which becomes the daemon, under the same pid).

    `directory` takes its standard output, its log "velmd.log" and what its build reports.
    """

    build: Build
    directory: Path
    command: list[str]
    environment: dict[str, str]
    port: int
    socket_path: Path
    pid_file: Path | None = None
    clock: bool = False
    preload: tuple[Path, ...] = ()
    working_directory: Path | None = None
    process: subprocess.Popen[bytes] | None = None
    pid: int = 0
    started_pid: int = 0

    # Start and end.

    def start(self) -> None:
        """Starts without waiting for anything."""
        environment = {
            **os.environ,
            **self.environment,
            **self.build.environment(self.directory),
        }
        preload = [str(library) for library in (*self.preload, *self.build.preload())]
        if self.clock:
            self.move_clock(0)
            environment.update(
                FAKETIME_TIMESTAMP_FILE=str(self._clock_file),
                FAKETIME_NO_CACHE="1",
                FAKETIME_DONT_FAKE_MONOTONIC="1",
                NO_FAKE_STAT="1",
            )
            preload.append(str(faketime_library()))
        # Only the daemon itself gets the preloads, not the commands that lead to it.
        environment["VELM_PRELOAD"] = " ".join(preload)
        with open(self.directory / "stdout", "ab") as output:
            self.process = subprocess.Popen(
                self.command,
                env=environment,
                cwd=self.working_directory,
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=subprocess.STDOUT,
            )
        self.pid = self.started_pid = self.process.pid
        if self.pid_file:
            self._follow_detached()

    def _follow_detached(self) -> None:
        """The started process ends at once; the pid file names the one that goes on."""
        assert self.process and self.pid_file
        file = self.pid_file
        if self.process.wait(timeout=10) != 0:
            raise DaemonError(f"detaching ended with {self.process.returncode}")
        wait_until(lambda: file.exists() and file.read_text().endswith("\n"), 10, "pid file")
        self.pid = int(file.read_text())
        self.process = None

    def wait_until_serving(self, timeout: float | None = None) -> None:
        """Returns when HTTPS and IPC listen."""
        timeout = timeout or self.build.time_limit(10.0)

        def serving() -> bool:
            if not self.alive():
                raise DaemonError(f"velmd ended with {self.exit_status()}\n{self.tail()}")
            return bool(self.https_listener()) and bool(self.ipc_listener())

        try:
            wait_until(serving, timeout, "velmd does not listen")
        except TimeoutError as problem:
            raise DaemonError(f"{problem}\n{self.tail()}") from None

    def stop(self) -> None:
        """Ends the daemon, and raises what an instrumented build found."""
        try:
            if self.alive():
                self.build.before_end(self)
        finally:
            self.kill()
        self.build.judge(self.directory)

    def kill(self, number: signal.Signals = signal.SIGTERM) -> None:
        if self.alive():
            self._end(number)
        if self.clock:
            remove_shared_clock(self.started_pid)

    def _end(self, number: signal.Signals) -> None:
        os.kill(self.pid, number)
        try:
            wait_until(lambda: not self.alive(), 10, f"pid {self.pid} does not end")
        except TimeoutError:
            os.kill(self.pid, signal.SIGKILL)
            raise

    def alive(self) -> bool:
        if not self.pid:
            return False
        if self.process:
            return self.process.poll() is None
        try:
            state = Path(f"/proc/{self.pid}/stat").read_text().rpartition(")")[2].split()[0]
        except (FileNotFoundError, ProcessLookupError):
            return False
        return state not in "ZX"

    def exit_status(self) -> int | None:
        return self.process.poll() if self.process else None

    # Watching.

    def https_listener(self) -> str:
        """The kernel's number of the listening HTTPS socket, empty when nothing listens."""
        columns = self._listening()
        return columns[9] if columns else ""

    def https_address(self) -> str:
        """The address at which HTTPS listens, empty when nothing does."""
        columns = self._listening()
        if not columns:
            return ""
        number = int(columns[1].partition(":")[0], 16)
        return socket.inet_ntoa(number.to_bytes(4, sys.byteorder))

    def _listening(self) -> list[str]:
        """The kernel's row of the listening HTTPS socket."""
        for line in self._proc("net/tcp").splitlines()[1:]:
            columns = line.split()
            if columns[3] == TCP_LISTEN and int(columns[1].rpartition(":")[2], 16) == self.port:
                return columns
        return []

    def https_queues(self) -> list[tuple[int, int]]:
        """Of each HTTPS connection the bytes that wait in the kernel: to be sent or acknowledged, and
        to be read."""
        rows = [line.split() for line in self._proc("net/tcp").splitlines()[1:]]
        queues = [
            columns[4].split(":")
            for columns in rows
            if columns[3] != TCP_LISTEN and int(columns[1].rpartition(":")[2], 16) == self.port
        ]
        return [(int(sent, 16), int(received, 16)) for sent, received in queues]

    def ipc_listener(self) -> str:
        return self.listener_at(str(self.socket_path))

    def listener_at(self, path: str) -> str:
        """The kernel's number of the listening Unix socket, empty when nothing listens."""
        for line in self._proc("net/unix").splitlines()[1:]:
            columns = line.split()
            if columns[-1] == path and int(columns[3], 16) & UNIX_ACCEPTS:
                return columns[6]
        return ""

    def _proc(self, name: str) -> str:
        try:
            return Path(f"/proc/{self.pid}/{name}").read_text()
        except OSError:
            return ""

    def resident_kib(self) -> int:
        found = re.search(r"VmRSS:\s+(\d+)", self._proc("status"))
        return int(found.group(1)) if found else 0

    def descriptors(self) -> int:
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def cpu_seconds(self) -> float:
        fields = self._proc("stat").rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    # The log.

    @property
    def log_file(self) -> Path:
        return self.directory / "velmd.log"

    def log(self, start: int = 0) -> str:
        """What was logged since the mark `start`."""
        try:
            return self.log_file.read_bytes()[start:].decode(errors="replace")
        except FileNotFoundError:
            return ""

    def log_mark(self) -> int:
        try:
            return self.log_file.stat().st_size
        except FileNotFoundError:
            return 0

    def wait_log(self, text: str, *, start: int = 0, count: int = 1, timeout: float = 10.0) -> str:
        """The log once it holds `text` that often; `TimeoutError` otherwise."""
        wait_until(lambda: self.log(start).count(text) >= count, timeout, f"no log line {text!r}")
        return self.log(start)

    def tail(self, lines: int = 60) -> str:
        """The end of what the daemon said, for people."""
        try:
            output = (self.directory / "stdout").read_text(errors="replace")
        except FileNotFoundError:
            output = ""
        parts = [f"-- {self.log_file}", *self.log().splitlines()[-lines:]]
        return "\n".join([*parts, "-- standard output and error", *output.splitlines()[-lines:]])

    # Changing its world.

    @property
    def _clock_file(self) -> Path:
        return self.directory / "clock"

    def move_clock(self, seconds: float) -> None:
        """The daemon's wall clock is off by that much from now on; its timers run as ever."""
        self._write_clock(f"{seconds:+.3f}\n")

    def stop_clock(self, moment: int) -> None:
        """The daemon's wall clock stands at that second of the epoch from now on."""
        self._write_clock(time.strftime("%Y-%m-%d %H:%M:%S\n", time.localtime(moment)))

    def _write_clock(self, text: str) -> None:
        if not self.clock:
            raise DaemonError("started without a clock that can be moved")
        next_file = self.directory / "clock.next"
        next_file.write_text(text)
        next_file.replace(self._clock_file)

    def reload(self, timeout: float = 10.0) -> None:
        """SIGHUP, and the wait until new listeners have taken the place of the old ones."""
        before = (self.https_listener(), self.ipc_listener())
        os.kill(self.pid, signal.SIGHUP)

        def replaced() -> bool:
            if not self.alive():
                raise DaemonError(f"velmd ended with {self.exit_status()}\n{self.tail()}")
            after = (self.https_listener(), self.ipc_listener())
            return all(after) and after[0] != before[0] and after[1] != before[1]

        wait_until(replaced, timeout, "the servers did not come back after SIGHUP")
