"""Runs everything, prints the table, writes it into a directory.

The exit status is 0 when every figure was measured, whatever it is: a target that was missed stands
in the table.
"""

from __future__ import annotations

import argparse
import contextlib
import os
import sys
import tempfile
import time
from collections.abc import Callable, Iterator
from pathlib import Path

from velm_sim.access_point import AccessPoint, Credentials
from velm_sim.build import Build
from velm_sim.namespaces import Network, remove_stale

from . import https, idle, micro, rounds
from .figures import Figure, Verdict, table, write
from .https import FULL, QUICK, Bench, Extent
from .load import LoadClient
from .packets import packets
from .plot import svg
from .servers import ADDRESS, Peers, Server, rsa_identity, start_velmd
from .watch import forget_environment

class Run:
    """Collects figures; a part that breaks becomes a line that says so, and the rest goes on."""

    def __init__(self) -> None:
        self.figures: list[Figure] = []

    def take(self, name: str, part: Callable[[], list[Figure]]) -> None:
        begin = time.monotonic()
        try:
            self.figures += part()
            said = "done"
        except Exception as problem:  # the table shows what is missing
            said = f"FAILED: {problem}"
            self.figures.append(Figure(name, "", None, note=str(problem).splitlines()[0][:100]))
        print(f"{name}: {said}, {time.monotonic() - begin:.1f} s", file=sys.stderr, flush=True)


@contextlib.contextmanager
def servers(build: Build, extent: Extent) -> Iterator[tuple[Bench, Peers, Server]]:
    """All up, in one namespace, and gone afterwards."""
    with contextlib.ExitStack() as cleanup:
        remove_stale()
        scratch = Path(cleanup.enter_context(tempfile.TemporaryDirectory(prefix="velm-bench-")))
        credentials = Credentials()
        identities = {"ecdsa": credentials.server, "rsa": rsa_identity(ADDRESS)}
        authorities = {kind: scratch / f"{kind}.ca" for kind in identities}
        for kind, identity in identities.items():
            authorities[kind].write_text(identity.pem)
        network = Network()
        cleanup.callback(network.close)
        access_point = AccessPoint(build, network, credentials)
        cleanup.callback(access_point.close)
        access_point.configure({"logger.file": "no", "logger.level": "error"})
        access_point.nvram_set({"zelkad_debug_level": "error"})
        # root and nobody stand in every device's file: without them glibc would go on to whatever
        # nsswitch.conf names next, in velmd and in nginx.
        fields = {access_point.login.username: https.ordinary_hash(), "root": "*", "nobody": "*"}
        access_point.etc.set_accounts([], fields)
        peers = Peers(scratch / "peers", network.ap, identities)
        cleanup.callback(peers.close)
        bench = Bench(
            extent, access_point,
            LoadClient(build.program("velm-https-load"), network.ap, authorities),
            start_velmd(access_point), peers.start_nginx(), peers.start_lighttpd(), scratch,
            https.password_hash_us(),
        )  # fmt: skip
        yield bench, peers, peers.start_mosquitto()


def publish_info(bench: Bench, peers: Peers) -> None:
    """What velmd answers, nginx and lighttpd serve from a file."""
    peers.publish("info", bench.access_point.lan_host().request("/info").body)


def measure_servers(run: Run, build: Build, extent: Extent) -> None:
    with servers(build, extent) as (bench, peers, mosquitto):
        run.take("idle", lambda: idle.idle(bench, mosquitto))
        run.take("SSDP and IPC", lambda: packets(bench, build.directory / "bin"))
        publish_info(bench, peers)
        peers.publish("location", b"")
        run.take("connection memory", lambda: https.connection_memory(bench))
        run.take("kept connections", lambda: https.kept(bench))
        run.take("new connections, ECDSA", lambda: https.fresh(bench, "ecdsa"))
        run.take("resumed connections", lambda: https.resumed(bench))
        run.take("locations", lambda: https.locations(bench, https.paired(bench.access_point)))
        run.take(
            "login storm", lambda: https.login_storm(bench, bench.access_point.phone())
        )
        run.take("memory after load", lambda: https.memory_after_load(bench))
        run.take("new connections, RSA", lambda: rsa(bench, peers))


def measure_start(run: Run, build: Build, extent: Extent) -> None:
    """In a namespace of its own. Where the load was, thousands of ended connections still wait (TIME_WAIT), and
    whoever takes the port looks at each of them: that took velmd 4 ms, and nginx less, with fewer of them."""
    with servers(build, extent) as (bench, peers, _):
        publish_info(bench, peers)
        peers.close()
        bench.access_point.stop()
        run.take(
            "start",
            lambda: idle.start_to_first_answer(bench, bench.access_point, peers, extent.starts),
        )
        run.take(
            "size", lambda: idle.stripped_size(build.program("velmd"), bench.scratch)
        )


def rsa(bench: Bench, peers: Peers) -> list[Figure]:
    return https.with_rsa(bench, peers.identities["rsa"])


def measure_steps(run: Run, build: Build, extent: Extent) -> None:
    programs = build.directory / "bin"
    with tempfile.TemporaryDirectory(prefix="velm-bench-") as scratch:
        run.take(
            "verifications",
            lambda: micro.verifications(programs, Path(scratch), extent.micro_seconds),
        )
    run.take("steps in process", lambda: micro.micro(programs, extent.micro_seconds))


def measure_rounds(run: Run, build: Build, extent: rounds.Extent) -> None:
    with rounds.prepared(build) as setting:
        for name, part in rounds.parts(setting, extent):
            run.take(name, part)


def machine() -> dict[str, object]:
    model = "unknown"
    with contextlib.suppress(OSError):
        for line in Path("/proc/cpuinfo").read_text().splitlines():
            if line.startswith("model name"):
                model = line.partition(":")[2].strip()
                break
    return {
        "processor": model,
        "cores": os.cpu_count(),
        "load_average": os.getloadavg()[0],
        "when": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()),
    }


def main() -> int:
    parser = argparse.ArgumentParser(prog="scripts/bench.sh", description=__doc__)
    parser.add_argument("--quick", action="store_true", help="short runs: rough figures")
    parser.add_argument("--build", default="build/release", help=argparse.SUPPRESS)
    parser.add_argument("--output", type=Path, default=Path("build/bench"))
    given = parser.parse_args()
    extent = QUICK if given.quick else FULL
    # Pages of a program that was built just now are dirty until they are on the disk, and would count.
    os.sync()
    forget_environment()
    build, run, about = Build(given.build), Run(), machine()
    measure_servers(run, build, extent)
    measure_start(run, build, extent)
    measure_rounds(run, build, rounds.QUICK if given.quick else rounds.FULL)
    measure_steps(run, build, extent)
    write(run.figures, about, given.output, svg(run.figures))
    print(table(run.figures))
    worst = max(run.figures, key=lambda one: one.excess)
    if worst.verdict is Verdict.MISSED:
        print(f"\nFurthest from its target: {worst.what}, {worst.unit}")
    missing = sum(one.verdict is Verdict.NOT_MEASURED for one in run.figures)
    print(f"\n{given.output}: table.txt, figures.json, figures.svg")
    left = rounds.left_behind(run.figures)
    for line in left:
        print(f"left behind by a round: {line}", file=sys.stderr)
    return 1 if missing or left else 0


if __name__ == "__main__":
    sys.exit(main())
