"""velmd beside nginx and lighttpd under load."""

from __future__ import annotations

import time
import warnings
from collections.abc import Callable, Iterable
from dataclasses import dataclass
from pathlib import Path

from velm_sim.access_point import AccessPoint
from velm_sim.certificates import Identity
from velm_sim.etc_files import ADMIN
from velm_sim.phone import Phone, Prepared

from .figures import Figure, Target, at_least, at_most, ratio_at_least, ratio_at_most
from .load import Best, Load, LoadClient
from .servers import Server, velmd_with
from .watch import memory

with warnings.catch_warnings():
    # Goes away with Python 3.13; on this one it is the way to libcrypt.
    warnings.simplefilter("ignore", DeprecationWarning)
    import crypt

CONNECTIONS = (1, 16, 64)
IDLE_CONNECTIONS = 60
TLS = ("1.2", "1.3")
STORM_CONNECTIONS = (1, 4)
STORM_LIMIT_S = 60.0  # it is ended long before
SETTLED_AFTER_S = 2.0


@dataclass(frozen=True)
class Extent:
    """How long and how often is measured."""

    rounds: int
    seconds: float
    locations: int
    idle_seconds: float
    starts: int
    micro_seconds: float


FULL = Extent(12, 0.4, 320, 40, 60, 0.3)
QUICK = Extent(1, 0.3, 48, 6, 3, 0.02)


@dataclass
class Bench:
    """The servers, ready, and how they are reached."""

    extent: Extent
    access_point: AccessPoint
    client: LoadClient
    velmd: Server
    nginx: Server
    lighttpd: Server
    scratch: Path
    hash_us: float  # of one password hash as logins make it

    @property
    def servers(self) -> tuple[Server, ...]:
        return (self.velmd, self.nginx, self.lighttpd)


def best_of(
    rounds: int, servers: Iterable[Server], run: Callable[[Server], Load]
) -> dict[str, Best]:
    """Servers take turns, so that what else the machine does strikes all alike."""
    runs: dict[str, list[Load]] = {server.name: [] for server in servers}
    for _ in range(rounds):
        for server in servers:
            runs[server.name].append(run(server))
    return {name: Best.of(made) for name, made in runs.items()}


def beside(
    what: str, unit: str, found: dict[str, Best], member: str, target: Target | None = None
) -> list[Figure]:
    """One figure a peer. The target is one beside each, and so beside the better of them."""
    own = getattr(found["velmd"], member)
    return [
        Figure(what, unit, own, name, getattr(found[name], member), target)
        for name in found
        if name != "velmd"
    ]


# Kept connections.


def kept(bench: Bench) -> list[Figure]:
    figures: list[Figure] = []
    for count in CONNECTIONS:
        found = best_of(
            bench.extent.rounds,
            bench.servers,
            lambda server, count=count: bench.client.run(  # type: ignore[misc]
                "kept", server, "--connections", str(count),
                "--seconds", str(bench.extent.seconds),
            ),
        )  # fmt: skip
        what = f"/info, {count} kept"
        figures += beside(what, "requests/s", found, "rate", ratio_at_least(1.0))
        figures += beside(what, "us CPU", found, "cpu_us", ratio_at_most(1.0))
        figures += beside(what, "us p50", found, "p50_us")
        figures += beside(what, "us p99", found, "p99_us")
        if count == 1:
            own = found["velmd"].p50_us / 1000
            figures.append(Figure("second request on a kept connection", "ms p50", own,
                                  target=at_most(10)))  # fmt: skip
    return figures


# New connections.


def fresh(bench: Bench, kind: str) -> list[Figure]:
    figures: list[Figure] = []
    for version in TLS:
        found = best_of(
            bench.extent.rounds,
            bench.servers,
            lambda server, version=version: bench.client.run(  # type: ignore[misc]
                "fresh", server, "--connections", "4", "--tls", version,
                "--seconds", str(bench.extent.seconds), kind=kind,
            ),
        )  # fmt: skip
        what = f"new TLS {version} connection, {kind.upper()}"
        figures += beside(what, "us CPU", found, "cpu_us", ratio_at_most(1.0))
        figures += beside(what, "connections/s", found, "rate")
        figures += beside(what, "us p99", found, "p99_us")
    return figures


def resumed(bench: Bench) -> list[Figure]:
    figures: list[Figure] = []
    connections = 4
    for version in TLS:
        found = best_of(
            bench.extent.rounds,
            (bench.velmd, bench.nginx),
            lambda server, version=version: bench.client.run(  # type: ignore[misc]
                "again", server, "--connections", str(connections), "--tls", version,
                "--seconds", str(bench.extent.seconds),
            ),
        )  # fmt: skip
        what = f"resumed TLS {version} connection"
        figures += beside(what, "us CPU", found, "cpu_us", ratio_at_most(1.0))
        figures += beside(what, "connections/s", found, "rate")
        share = 100 * found["velmd"].resumed_share
        theirs = 100 * found["nginx"].resumed_share
        figures.append(
            Figure(f"reconnects resumed, TLS {version}", "%", share, "nginx", theirs, at_least(99))
        )
    return figures


def with_rsa(bench: Bench, identity: Identity) -> list[Figure]:
    with velmd_with(bench.access_point, identity):
        return fresh(bench, "rsa")


# /location.


def raw_http(request: Prepared) -> bytes:
    headers = {"Host": "velm", "Content-Length": str(len(request.body)), **request.headers}
    head = f"POST {request.path} HTTP/1.1\r\n" + "".join(
        f"{name}: {value}\r\n" for name, value in headers.items()
    )
    return f"{head}\r\n".encode() + request.body


def write_requests(path: Path, requests: Iterable[bytes]) -> Path:
    path.write_bytes(b"".join(b"%d\n%s" % (len(one), one) for one in requests))
    return path


def signed_locations(phone: Phone, count: int) -> list[bytes]:
    """Each over a challenge of its own, which serves once and within a minute."""
    made = []
    with phone.host.session() as session:
        for _ in range(count):
            reply = phone.send(phone.prepare("/challenge"), session)
            if reply.status != 200:
                raise RuntimeError(f"/challenge answered {reply.status}")
            made.append(raw_http(phone.prepare_location(challenge=reply.json()["challenge"])))
    return made


def locations(bench: Bench, phone: Phone) -> list[Figure]:
    """A whole /location, password and assertion checked, beside a file as empty as its answer."""
    figures: list[Figure] = []
    for count in CONNECTIONS:
        path = write_requests(
            bench.scratch / "locations", signed_locations(phone, bench.extent.locations)
        )
        run = bench.client.run
        found = {
            "velmd": Best.of(
                [run("kept", bench.velmd, "--connections", str(count), "--requests", str(path))]
            )
        }
        for peer in (bench.nginx, bench.lighttpd):
            found[peer.name] = Best.of(
                [run("kept", peer, "--connections", str(count), "--path", "/location",
                     "--seconds", str(bench.extent.seconds))]
            )  # fmt: skip
        what = f"/location, {count} kept"
        figures += beside(what, "requests/s", found, "rate")
        figures += beside(what, "us CPU", found, "cpu_us")
        figures += beside(what, "us p50", found, "p50_us")
        figures += beside(what, "us p99", found, "p99_us")
        figures.append(
            Figure(what, "us CPU", found["velmd"].cpu_us, "a password hash", bench.hash_us)
        )
    return figures


ORDINARY_SALT = "$6$velmsalt$"  # 5000 rounds, as accounts have it when nobody says how many


def ordinary_hash() -> str:
    return crypt.crypt(ADMIN.password, ORDINARY_SALT)


def password_hash_us() -> float:
    times = []
    for _ in range(15):
        begin = time.thread_time_ns()
        ordinary_hash()
        times.append(time.thread_time_ns() - begin)
    return min(times) / 1000


def login_storm(bench: Bench, phone: Phone) -> list[Figure]:
    """How long /info waits while other connections do nothing but log in."""
    figures = []
    path = write_requests(bench.scratch / "login", [raw_http(phone.prepare("/pairings"))])
    seconds = max(bench.extent.seconds * 2, 1.0)
    for count in STORM_CONNECTIONS:
        # Beside it, since the machine's pace may have changed since the beginning.
        hash_us = password_hash_us()
        with bench.client.repeating(bench.velmd, path, count, STORM_LIMIT_S):
            time.sleep(0.2)
            found = bench.client.run("kept", bench.velmd, "--seconds", str(seconds))
        figures.append(
            Figure(f"/info, {count} connections logging in", "us p99", found.p99_us,
                   "two hashes + 1 ms", 2 * hash_us + 1000, ratio_at_most(1.0))
        )  # fmt: skip
    return figures


# Memory.


def connection_memory(bench: Bench) -> list[Figure]:
    sizes = {}
    for server in (bench.velmd, bench.nginx):
        before = memory(server.pid).private_dirty
        with bench.client.idle_connections(server, IDLE_CONNECTIONS):
            time.sleep(SETTLED_AFTER_S)
            sizes[server.name] = (memory(server.pid).private_dirty - before) / IDLE_CONNECTIONS
    return [
        Figure("idle TLS connection", "kB", sizes["velmd"] * 1.024, "nginx", sizes["nginx"] * 1.024,
               at_most(18))
    ]  # fmt: skip


def memory_after_load(bench: Bench) -> list[Figure]:
    time.sleep(SETTLED_AFTER_S)
    return [
        Figure("private dirty memory after the load", "MB",
               memory(bench.velmd.pid).private_dirty * 1.024e-3, "nginx",
               memory(bench.nginx.pid).private_dirty * 1.024e-3, ratio_at_most(1.1))
    ]  # fmt: skip


def paired(access_point: AccessPoint) -> Phone:
    """A phone whose account has an ordinary password hash."""
    phone = access_point.phone()
    if phone.pair().status != 200:
        raise RuntimeError("the phone cannot be paired")
    return phone
