"""SSDP and IPC, each beside a loop that does nothing but receive and send the same bytes."""

from __future__ import annotations

import json
import subprocess
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

from velm_sim.namespaces import Namespace

from .figures import Figure, at_most, ratio_at_most
from .https import Bench
from .micro import required
from .servers import ADDRESS
from .watch import CLIENT_CORE, SERVER_CORE, end, pin

SSDP_PORT = 1900
ROUNDS = 5
SEARCHES, ROUND_TRIPS = 20000, 10000


@dataclass(frozen=True)
class Load:
    """velm-load inside the namespace of the servers."""

    program: str
    namespace: Namespace

    def ask(self, kind: str, pid: int, count: int, *where: str) -> dict[str, float]:
        command = [
            *pin(CLIENT_CORE), self.program, kind, "--pid", str(pid), "--count", str(count), *where,
        ]  # fmt: skip
        done = subprocess.run(
            self.namespace.command(*command), capture_output=True, text=True, timeout=60
        )
        if done.returncode != 0:
            raise RuntimeError(f"velm-load {kind}: {done.stderr.strip()}")
        said: dict[str, float] = json.loads(done.stdout)
        return said

    @contextmanager
    def peer(self, kind: str, count: int, *how: str) -> Iterator[tuple[int, str]]:
        """The bare loop: its pid and where it listens. It ends after so many answers by itself."""
        command = [
            *pin(SERVER_CORE), self.program, f"{kind}-peer", "--count", str(count),
            "--seconds", "120", *how,
        ]  # fmt: skip
        process = subprocess.Popen(
            self.namespace.command(*command), stdout=subprocess.PIPE, text=True
        )
        try:
            assert process.stdout
            yield process.pid, str(json.loads(process.stdout.readline())["listening"])
        finally:
            end(process)


def packets(bench: Bench, programs: Path) -> list[Figure]:
    """While no phone is paired, since then a request is answered at once, with status 3."""
    load = Load(required(programs, "velm-load"), bench.access_point.network.ap)
    return [*_ssdp(load, bench), *_ipc(load, bench)]


def _ssdp(load: Load, bench: Bench) -> Iterator[Figure]:
    reply = bench.scratch / "ssdp-reply"
    own = ("--address", f"{ADDRESS}:{SSDP_PORT}", "--reply", str(reply))
    load.ask("ssdp", bench.velmd.pid, 1, *own)  # its bytes, for the peer
    for outstanding in (1, 32):
        how = ("--outstanding", str(outstanding))
        velmd, bare, lost = [], [], 0.0
        answers = 2 * ROUNDS * SEARCHES
        bare_reply = ("--address", f"{ADDRESS}:0", "--reply", str(reply))
        with load.peer("ssdp", answers, *bare_reply) as (peer, listening):
            for _ in range(ROUNDS):
                said = load.ask("ssdp", bench.velmd.pid, SEARCHES, *own, *how)
                velmd.append(said["cpu_us"])
                lost += said["lost"]
                said = load.ask("ssdp", peer, SEARCHES, "--address", listening, *how)
                bare.append(said["cpu_us"])
        what = f"M-SEARCH to reply, {outstanding} outstanding"
        yield Figure(what, "us CPU", min(velmd), "bare loop", min(bare), ratio_at_most(1.15))
        yield Figure(f"{what}: lost", "", lost, target=at_most(0))


def _ipc(load: Load, bench: Bench) -> Iterator[Figure]:
    velmd, bare = [], []
    own = ("--socket", str(bench.access_point.socket_path))
    at = ("--socket", str(bench.scratch / "bare.sock"))
    with load.peer("ipc", 2 * ROUNDS * ROUND_TRIPS, *at) as (peer, _listening):
        for _ in range(ROUNDS):
            velmd.append(load.ask("ipc", bench.velmd.pid, ROUND_TRIPS, *own)["cpu_us"])
            bare.append(load.ask("ipc", peer, ROUND_TRIPS, *at)["cpu_us"])
    yield Figure(
        "IPC request to status-3 answer", "us CPU", min(velmd), "bare loop", min(bare),
        ratio_at_most(1.35),
    )  # fmt: skip
