"""A process seen from outside: its CPU time, memory, system calls and wake-ups."""

from __future__ import annotations

import contextlib
import ctypes
import os
import re
import signal
import struct
import subprocess
import time
from collections import Counter
from collections.abc import Iterator, Mapping
from dataclasses import dataclass
from pathlib import Path

from velm_sim.daemon import wait_until

_CALL = re.compile(r"(?:\[pid +(\d+)\] )?\w+\(")


def cpu_us(pid: int) -> float:
    """CPU time so far, all threads, by the scheduler's own nanoseconds."""
    return sum(
        int((task / "schedstat").read_text().split()[0])
        for task in Path(f"/proc/{pid}/task").iterdir()
    ) / 1000


@dataclass(frozen=True)
class Memory:
    """In KiB."""

    resident: float
    private_dirty: float


def memory(pid: int) -> Memory:
    text = Path(f"/proc/{pid}/smaps_rollup").read_text()
    sizes = {name: int(size) for name, size in re.findall(r"^(\w+): +(\d+) kB", text, re.M)}
    return Memory(sizes["Rss"], sizes["Private_Dirty"])


def wakeups(pid: int) -> int:
    """How often it went to sleep of itself, and so woke up."""
    text = Path(f"/proc/{pid}/status").read_text()
    found = re.search(r"^voluntary_ctxt_switches:\s+(\d+)", text, re.M)
    assert found
    return int(found.group(1))


def page_faults(pid: int) -> int:
    """Those that no disk was asked for."""
    return int(Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[7])


def forget_environment() -> None:
    """As on a device, whose processes have a short one: who looks for a name there may look at all of them."""
    for name in set(os.environ) - {"PATH", "HOME", "TMPDIR"}:
        del os.environ[name]


@contextlib.contextmanager
def awake() -> Iterator[None]:
    """The cores wait without going to sleep, where the kernel lets one ask for it (its PM QoS interface). What
    wakes a core up pays for that: the same password hash takes up to 1.8 times as long."""
    try:
        wish = open("/dev/cpu_dma_latency", "wb", buffering=0)
    except OSError:
        yield
        return
    with wish:  # it holds as long as the file is open
        wish.write(struct.pack("=i", 0))  # us
        yield


# Of the machines that Linux knows: x86-64 has both of them, arm64 the second.
_WAITS = {"epoll_wait": ("232",), "epoll_pwait": ("281", "22")}
_RECEIVES = ("45", "207")  # recvfrom, without a limit


def next_timer_ms(pid: int) -> int | None:
    """How long a process that waits for whatever comes next may sleep at most; -1 for ever, None when it
    does not wait. An event loop waits in epoll, the bare program of a round's floor in recvfrom."""
    words = Path(f"/proc/{pid}/syscall").read_text().split()
    if words[0] in _RECEIVES:
        return -1
    if words[0] not in {number for numbers in _WAITS.values() for number in numbers}:
        return None
    return ctypes.c_int32(int(words[4], 16) & 0xFFFFFFFF).value


@dataclass(frozen=True)
class Idleness:
    """A minute of doing nothing."""

    wakeups: float
    system_calls: float


def idleness(pids: Mapping[str, int], seconds: float) -> dict[str, Idleness]:
    """All at once, half of the time without a tracer and half with one."""
    before = {name: wakeups(pid) for name, pid in pids.items()}
    time.sleep(seconds / 2)
    woken = {name: wakeups(pid) - before[name] for name, pid in pids.items()}
    calls = system_calls(pids, seconds / 2)
    a_minute = 60 / (seconds / 2)
    return {
        name: Idleness(woken[name] * a_minute, calls[name] * a_minute) for name in pids
    }


def system_calls(pids: Mapping[str, int], seconds: float) -> dict[str, int]:
    """Those entered within the time; the one that a process sleeps in does not count."""
    tracers = {
        name: subprocess.Popen(
            ["strace", "-qq", "-f", "-p", str(pid)], stderr=subprocess.PIPE, text=True
        )
        for name, pid in pids.items()
    }
    time.sleep(seconds)
    for tracer in tracers.values():
        tracer.send_signal(signal.SIGINT)
    return {
        name: _entered(tracer.communicate(timeout=10)[1]) for name, tracer in tracers.items()
    }


@contextlib.contextmanager
def traced(pid: int, into: Path) -> Iterator[None]:
    """Every system call of the process goes to the file, one a line, while this lasts."""
    tracer = subprocess.Popen(["strace", "-qq", "-f", "-o", str(into), "-p", str(pid)])
    try:
        wait_until(lambda: _is_traced(pid), 10, "strace does not attach")
        yield
    finally:
        tracer.send_signal(signal.SIGINT)
        tracer.wait(timeout=10)


def _is_traced(pid: int) -> bool:
    return "TracerPid:\t0\n" not in Path(f"/proc/{pid}/status").read_text()


def calls_by_name(trace: str) -> Counter[str]:
    """Of a trace that names the process in each line; without the wait in which it slept at the begin,
    if the tracer came early enough to see that."""
    names: list[str] = re.findall(r"^\d+ +(\w+)\(", trace, re.M)
    return Counter(names[1:] if names and names[0] in (*_WAITS, "restart_syscall") else names)


def _entered(trace: str) -> int:
    """Counts the calls of a trace, without the one in which each thread slept at its begin."""
    begun = [match for line in trace.splitlines() if (match := _CALL.match(line))]
    return len(begun) - len({match.group(1) for match in begun})


def pin(core: int | None) -> list[str]:
    """The words that keep a command on one core; none on a machine that has only one."""
    if core is None or (os.cpu_count() or 1) < 2:
        return []
    return ["taskset", "--cpu-list", str(core)]


SERVER_CORE, CLIENT_CORE = 0, 1


def end(process: subprocess.Popen[bytes]) -> None:
    """Ends exactly this process."""
    if process.poll() is None:
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(timeout=5)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait(timeout=5)
