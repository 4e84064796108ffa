"""What velmd costs while nobody wants anything, how fast it starts and how large it is."""

from __future__ import annotations

import json
import statistics
import subprocess
import time
from pathlib import Path

from velm_sim.access_point import AccessPoint

from .figures import Figure, at_most, ratio_at_most
from .https import SETTLED_AFTER_S, Bench
from .servers import LAN_BRIDGE, Peers, Server
from .watch import idleness, memory


def idle(bench: Bench, mosquitto: Server) -> list[Figure]:
    time.sleep(SETTLED_AFTER_S)
    servers = {one.name: one.pid for one in (bench.velmd, bench.lighttpd, mosquitto)}
    sizes = {name: memory(pid) for name, pid in servers.items()}
    minutes = idleness(servers, bench.extent.idle_seconds)
    figures = []
    for peer in ("lighttpd", "mosquitto"):
        first = peer == "lighttpd"
        own, other = sizes["velmd"], sizes[peer]
        figures += [
            Figure("idle: resident memory", "MB", own.resident * 1.024e-3, peer,
                   other.resident * 1.024e-3, at_most(8.9) if first else None),
            Figure("idle: private dirty memory", "MB", own.private_dirty * 1.024e-3, peer,
                   other.private_dirty * 1.024e-3, at_most(1.2) if first else None),
            Figure("idle: wake-ups", "a minute", minutes["velmd"].wakeups, peer,
                   minutes[peer].wakeups, at_most(0) if first else None),
            Figure("idle: system calls", "a minute", minutes["velmd"].system_calls, peer,
                   minutes[peer].system_calls, at_most(0) if first else None),
        ]  # fmt: skip
    return figures


# What velmd runs to learn the address of the LAN. No other program of a start is like that, so nginx
# gets the time of these three in addition.
ADDRESS_COMMAND = (
    "sh", "-c", f"ip -f inet addr show {LAN_BRIDGE} | sed -En -e 's/.*inet ([0-9.]+).*/\\1/p'",
)  # fmt: skip


def one_start_ms(command: list[str]) -> float:
    """What the load client says of one start."""
    done = subprocess.run(command, capture_output=True, text=True, timeout=30)
    if done.returncode != 0:
        raise RuntimeError(f"not started: {done.stderr.strip()}")
    said: dict[str, float] = json.loads(done.stdout.strip().splitlines()[-1])
    return next(iter(said.values())) * 1000


def start_to_first_answer(
    bench: Bench, access_point: AccessPoint, peers: Peers, times: int
) -> list[Figure]:
    """With none of the servers running any more. Each in turn; the medians."""
    velmd = [str(access_point.build.program("velmd")), "-c", str(access_point.configuration_file)]
    clients = {
        "velmd": bench.client.unpinned("first", bench.velmd, "ecdsa", "--", *velmd),
        "nginx": bench.client.unpinned("first", bench.nginx, "ecdsa", "--", *peers.nginx_command),
        "programs": [str(bench.client.program), "ended", "--", *ADDRESS_COMMAND],
    }
    # Inside the access point's own /etc, the same way for all.
    settings = [f"{key}={value}" for key, value in access_point.environment.items()]
    found: dict[str, list[float]] = {name: [] for name in clients}
    for _ in range(times):
        for name, client in clients.items():
            found[name].append(one_start_ms(["env", *settings, *access_point.inside(*client)]))
    velmd_ms, nginx_ms, programs_ms = (statistics.median(times) for times in found.values())
    return [
        Figure("start to the first 200", "ms", velmd_ms, "nginx + sh, ip, sed",
               nginx_ms + programs_ms, ratio_at_most(1.0)),
        Figure("start to the first 200", "ms", velmd_ms, "nginx", nginx_ms),
        Figure("start: sh, ip and sed alone", "ms", programs_ms),
    ]  # fmt: skip


def stripped_size(velmd: Path, scratch: Path) -> list[Figure]:
    stripped = scratch / "velmd.stripped"
    subprocess.run(["strip", "-o", str(stripped), str(velmd)], check=True)
    return [Figure("stripped velmd", "kB", stripped.stat().st_size / 1000, target=at_most(430))]
