"""The load client velm-https-load, run beside a server whose CPU time is read before and after."""

from __future__ import annotations

import contextlib
import json
import subprocess
from collections.abc import Iterator, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from velm_sim.namespaces import Namespace

from .servers import ADDRESS, Server
from .watch import CLIENT_CORE, cpu_us, pin

# velmd takes 16 connections from one address.
SOURCES = tuple(f"127.0.0.{host}" for host in range(2, 12))


class LoadError(RuntimeError):
    """A run broke, or the server answered otherwise than with 200."""


@dataclass(frozen=True)
class Load:
    """What one run showed."""

    rate: float
    p50_us: float
    p99_us: float
    cpu_us: float  # of the server, a request
    requests: int
    offered: int  # connections that had a session to resume
    resumed: int


@dataclass(frozen=True)
class Best:
    """The best of several runs, figure by figure: what disturbs a run only makes it worse."""

    rate: float
    p50_us: float
    p99_us: float
    cpu_us: float
    resumed_share: float

    @classmethod
    def of(cls, runs: Sequence[Load]) -> Best:
        offered = sum(run.offered for run in runs)
        return cls(
            rate=max(run.rate for run in runs),
            p50_us=min(run.p50_us for run in runs),
            p99_us=min(run.p99_us for run in runs),
            cpu_us=min(run.cpu_us for run in runs),
            resumed_share=sum(run.resumed for run in runs) / offered if offered else 0.0,
        )


class LoadClient:
    """Runs inside the namespace of the servers, over its loopback, on a core of its own."""

    def __init__(self, program: Path, namespace: Namespace, authorities: dict[str, Path]) -> None:
        self.program, self.namespace, self.authorities = program, namespace, authorities

    def unpinned(self, mode: str, server: Server, kind: str, *options: str) -> list[str]:
        """The client itself, to be run inside."""
        sources = [word for address in SOURCES for word in ("--source", address)]
        return [
            str(self.program), mode, "--server", f"{ADDRESS}:{server.ports[kind]}",
            "--ca", str(self.authorities[kind]), *sources, *options,
        ]  # fmt: skip

    def command(self, mode: str, server: Server, kind: str, *options: str) -> list[str]:
        client = self.unpinned(mode, server, kind, *options)
        return self.namespace.command(*pin(CLIENT_CORE), *client)

    def run(self, mode: str, server: Server, *options: str, kind: str = "ecdsa") -> Load:
        command = self.command(mode, server, kind, *options)
        before = cpu_us(server.pid)
        done = subprocess.run(command, capture_output=True, text=True, timeout=60)
        spent = cpu_us(server.pid) - before
        if done.returncode != 0:
            raise LoadError(f"{server.name}, {mode}: {done.stderr.strip()}")
        return judged(server, mode, json.loads(done.stdout), spent)

    @contextlib.contextmanager
    def repeating(
        self, server: Server, requests: Path, connections: int, limit_s: float
    ) -> Iterator[None]:
        """The requests of the file again and again while this lasts. Each must be answered with 200."""
        command = self.command(
            "kept", server, "ecdsa", "--connections", str(connections),
            "--requests", str(requests), "--repeat", "--seconds", str(limit_s),
        )  # fmt: skip
        with subprocess.Popen(
            command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
        ) as process:
            before = cpu_us(server.pid)
            try:
                yield
                ended = process.poll() is not None
            finally:
                process.terminate()
                said, problem = process.communicate(timeout=20)
            if ended or process.returncode != 0:
                raise LoadError(f"{server.name}, repeating: {problem.strip() or said.strip()}")
            judged(server, "repeating", json.loads(said), cpu_us(server.pid) - before)

    @contextlib.contextmanager
    def idle_connections(self, server: Server, count: int) -> Iterator[None]:
        """Each has been asked once."""
        command = self.command("idle", server, "ecdsa", "--connections", str(count))
        with subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
        ) as process:
            assert process.stdin and process.stdout
            said = json.loads(process.stdout.readline() or "{}")
            if said.get("statuses") != {"200": count}:
                raise LoadError(f"{server.name}, idle: {said}")
            yield
            process.stdin.close()


def judged(server: Server, mode: str, said: dict[str, Any], spent_us: float) -> Load:
    """Only a run in which every request was answered with 200 is a result."""
    if said["failures"] or set(said["statuses"]) != {"200"}:
        raise LoadError(f"{server.name}, {mode}: {said}")
    return Load(
        rate=said["rate"],
        p50_us=said["p50_us"],
        p99_us=said["p99_us"],
        cpu_us=spent_us / said["requests"],
        requests=said["requests"],
        offered=said["offered"],
        resumed=said["resumed"],
    )
