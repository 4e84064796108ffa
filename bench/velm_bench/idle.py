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
from .servers import Peers, Server
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


def first_answer_ms(command: list[str], times: int) -> float:
    """From the start of the program to its first 200: the median."""
    found = []
    for _ in range(times):
        done = subprocess.run(command, capture_output=True, text=True, timeout=30)
        if done.returncode != 0:
            raise RuntimeError(f"no answer: {done.stderr.strip()}")
        found.append(json.loads(done.stdout.strip().splitlines()[-1])["first_answer_s"] * 1000)
    return statistics.median(found)


def start_to_first_answer(
    bench: Bench, access_point: AccessPoint, peers: Peers, times: int
) -> list[Figure]:
    """With none of the servers running any more."""
    velmd = [str(access_point.build.program("velmd")), "-c", str(access_point.configuration_file)]
    commands = {"velmd": (bench.velmd, velmd), "nginx": (bench.nginx, peers.nginx_command)}
    found = {}
    for name, (server, command) in commands.items():
        client = bench.client.unpinned("first", server, "ecdsa", "--", *command)
        # Inside the access point's own /etc, the same way for both.
        settings = (f"{key}={value}" for key, value in access_point.environment.items())
        found[name] = first_answer_ms(["env", *settings, *access_point.inside(*client)], times)
    return [
        Figure("start to the first 200", "ms", found["velmd"], "nginx", found["nginx"],
               ratio_at_most(0.9))
    ]  # fmt: skip


def stripped_size(velmd: Path, scratch: Path) -> list[Figure]:
    stripped = scratch / "velmd.stripped"
    subprocess.run(["strip", "-o", str(stripped), str(velmd)], check=True)
    return [Figure("stripped velmd", "kB", stripped.stat().st_size / 1000, target=at_most(430))]
