"""The main job, shown step by step with the daemon that was built.

Exit status 0 only when the report that a local client received equals what the phone sent.
"""

from __future__ import annotations

import argparse
import contextlib
import json
import select
import signal
import sys
import threading
import time
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path
from types import FrameType
from typing import Any

from .access_point import BSSIDS, AccessPoint, Credentials
from .answers import Recorded
from .build import Build, BuildError
from .cloud import Cloud
from .console import Console
from .daemon import Daemon, DaemonError
from .ipc_client import IpcClient, Report
from .namespaces import NAMESPACE_DIRECTORY, Network, NetworkError, remove_stale
from .phone import Phone, sample_location
from .ssdp import DEVICE_TYPE, discover

STEPS = 8
WANTED_WITHIN = 60
PUSH_INTERVAL = 60  # of the daemon


class DemoError(RuntimeError):
    """A step did not come out as it should."""


@dataclass
class Scene:
    """All that the demo runs."""

    network: Network
    cloud: Cloud
    access_point: AccessPoint
    daemon: Daemon
    phone: Phone
    started_in: float


@contextlib.contextmanager
def scene(build: Build) -> Iterator[Scene]:
    """Everything up; everything gone afterwards, whatever happened."""
    with contextlib.ExitStack() as cleanup:
        remove_stale()
        credentials = Credentials()
        network = Network()
        cleanup.callback(network.close)
        cloud = Cloud(
            network.cloud,
            network.CLOUD_ADDRESS,
            credentials.cloud,
            credentials.account,
            integrity_keys=credentials.integrity,
        )
        cloud.start()
        cleanup.callback(cloud.stop)
        access_point = AccessPoint(build, network, credentials)
        cleanup.callback(access_point.close)
        start = time.monotonic()
        daemon = access_point.start()
        started_in = time.monotonic() - start
        yield Scene(network, cloud, access_point, daemon, access_point.phone(), started_in)


def require(condition: bool, complaint: str) -> None:
    if not condition:
        raise DemoError(complaint)


def show_access_point(console: Console, now: Scene) -> None:
    access_point = now.access_point
    console.fact("velmd", f"pid {now.daemon.pid}, serving after {now.started_in * 1000:.0f} ms")
    console.fact("HTTPS", f"https://{now.phone.host.server}:{access_point.port}")
    console.fact("local clients", access_point.socket_path)
    console.fact("resident memory", f"{now.daemon.resident_kib()} KiB")


def find(console: Console, now: Scene) -> None:
    """From here on the phone goes where the answer sent it."""
    host = now.phone.host
    console.step("The phone looks for the access point on the LAN")
    console.fact("M-SEARCH", DEVICE_TYPE)
    answers = discover(now.network.phone, str(host.source))
    require(len(answers) == 1, f"{len(answers)} access points answered the search")
    (answer,) = answers
    console.fact("answer of", f"{answer.address}:{answer.port}")
    for name in ("LOCATION", "SERVER", "USN"):
        console.fact(name, answer.headers[name])
    host.server, host.port = answer.host, answer.https_port
    reply = host.request(answer.path)
    require(reply.status == 200, f"{answer.location} answered {reply.status}")
    console.fact("GET /info", reply.body.decode())


def pair(console: Console, now: Scene) -> None:
    phone = now.phone
    console.step("The phone logs in and fetches a single-use challenge")
    challenge = phone.fetch_challenge()
    console.fact("challenge", challenge)

    console.step("The phone proves itself with an App Attest attestation and pairs")
    request = phone.prepare_pair(challenge=challenge)
    console.fact("X-Attestation", f"{len(request.headers['X-Attestation'])} characters of base64")
    reply = phone.send(request)
    console.fact("POST /pair", reply.status)
    require(reply.status == 200, f"/pair answered {reply.status}")
    stored = now.access_point.pairing(0)
    for member in ("status", "name", "dev_model", "os_version", "date_added"):
        console.fact(f"nvram {member}", stored[member])
    console.fact("attestation key", f"{(stored['attestation_key'] or '')[:48]}...")


def ask(console: Console, now: Scene) -> tuple[Any, Recorded]:
    console.step("A local client asks for the location")
    client = now.access_point.locate("--timeout", str(WANTED_WITHIN), "--wait", "20")
    console.command(" ".join(str(word) for word in client.args))

    console.step("The push, as the messaging service received it")
    try:
        (push,) = now.cloud.fcm.wait(1, 10)
    except TimeoutError as problem:
        client.kill()
        raise DemoError(f"no push: {problem}; token refusals: {now.cloud.refusals}") from None
    console.fact("access token", f"granted for {next(iter(now.cloud.grants.values()))['iss']}")
    console.fact("POST", f"https://{push.host}{push.path}")
    console.say(json.dumps(push.json(), indent=2))
    return client, push


def deliver(console: Console, now: Scene) -> dict[str, Any]:
    console.step("The phone signs its location over a fresh challenge and posts it")
    location: dict[str, Any] = sample_location()
    request = now.phone.prepare_location(location)
    console.fact("X-Assertion", f"{len(request.headers['X-Assertion'])} characters of base64")
    console.say(json.dumps({"location": location}, indent=2))
    reply = now.phone.send(request)
    console.fact("POST /location", reply.status)
    require(reply.status == 200, f"/location answered {reply.status}")
    return location


def expected(phone: Phone, location: dict[str, Any]) -> Report:
    """The report that says exactly what the phone said."""
    return Report(
        1, str(phone.host.source), phone.profile.os_version, phone.profile.model,
        int(location["timestamp"]), 1, phone.bssid, location["rssi"], bytes(8),
        location["latitude"], location["longitude"], location["accuracy"], location["accuracy"],
        0.0, location["altitude"], 2, location["verticalAccuracy"],
    )  # fmt: skip


def run(console: Console, now: Scene) -> None:
    find(console, now)
    pair(console, now)
    with IpcClient(now.access_point.socket_path) as watcher:
        client, _ = ask(console, now)
        location = deliver(console, now)
        console.step("Every local client receives the 224-byte report")
        output, errors = client.communicate(timeout=20)
        console.say(output.rstrip() or errors.rstrip())
        require(client.returncode == 0, f"velmctl ended with {client.returncode}: {errors}")
        report = watcher.receive_report()
    wanted = expected(now.phone, location)
    require(report == wanted, f"the report differs\n  sent     {wanted}\n  received {report}")
    console.good("The report equals what the phone sent.")


def answer_pushes(now: Scene, ending: threading.Event) -> None:
    """While the demo stays, the phone answers each push as the app would."""
    answered = len(now.cloud.fcm.requests)
    while not ending.is_set():
        try:
            now.cloud.fcm.wait(answered + 1, 0.5)
        except TimeoutError:
            continue
        answered += 1
        with contextlib.suppress(OSError, RuntimeError):
            now.phone.location(sample_location())


def print_commands(now: Scene) -> None:
    access_point, phone = now.access_point, now.phone
    url = f"https://{phone.host.server}:{access_point.port}"
    inside = f"nsenter --net={NAMESPACE_DIRECTORY / now.network.phone.name}"
    curl = f"{inside} curl --cacert {access_point.directory}/server_cert.pem"
    login = {
        "auth": {
            "deviceId": "by-hand",
            "deviceType": "iOS",
            "bssid": BSSIDS[0],
            "username": phone.login.username,
            "password": phone.login.password,
        }
    }
    nvram = f"VELM_NVRAM={access_point.environment['VELM_NVRAM']}"
    programs = access_point.build.directory / "bin"
    next_push = time.strftime("%H:%M:%S", time.localtime(time.time() + PUSH_INTERVAL))
    print(
        f"""
Everything keeps running. The phone answers every push. The daemon pushes once a minute at most: a
request before {next_push} pushes nothing, so no report comes for it. Try:

  # as a host on the LAN
  {curl} {url}/info
  {curl} {url}/challenge -d '{json.dumps(login)}'
  {curl} {url}/pairings -d '{json.dumps(login)}'

  # as the location-policy client
  {programs}/velmctl locate --socket {access_point.socket_path} --wait 90
  {programs}/velmctl watch --socket {access_point.socket_path}

  # as the platform
  {nvram} {programs}/nvram show
  {nvram} {programs}/nvram get zelkad_pairing_0_name

  # as the operator
  tail -f {now.daemon.log_file}
  kill -HUP {now.daemon.pid}
""",
        flush=True,
    )


def stay(now: Scene) -> None:
    """Until Enter, Ctrl-C or SIGTERM."""
    ending = threading.Event()
    helper = threading.Thread(target=answer_pushes, args=(now, ending), daemon=True)
    helper.start()
    print_commands(now)
    try:
        if sys.stdin is not None and sys.stdin.isatty():
            print("Press Enter to end.", flush=True)
            select.select([sys.stdin], [], [])
        else:
            print("Send SIGTERM or SIGINT to end.", flush=True)
            while True:
                signal.pause()
    finally:
        ending.set()
        helper.join(2)


SIGNALS = (signal.SIGTERM, signal.SIGHUP, signal.SIGINT)


def end_on_signal(number: int, _frame: FrameType | None) -> None:
    # One is enough: a second must not cut the cleaning up short.
    for other in SIGNALS:
        signal.signal(other, signal.SIG_IGN)
    raise SystemExit(128 + number)


def main() -> int:
    parser = argparse.ArgumentParser(description="Shows velmd's main job.")
    parser.add_argument("--build", default="build/release", type=Path, help="CMake build directory")
    parser.add_argument("--stay", action="store_true", help="leave everything running")
    options = parser.parse_args()
    for number in SIGNALS:
        signal.signal(number, end_on_signal)
    console = Console(STEPS)
    try:
        console.step("An access point comes up in network namespaces of its own")
        with scene(Build(options.build)) as now:
            show_access_point(console, now)
            try:
                run(console, now)
            except (DemoError, OSError, RuntimeError):
                print(now.daemon.tail(30), file=sys.stderr)
                raise
            if options.stay:
                try:
                    stay(now)
                except SystemExit:
                    print("Ending.", flush=True)
        return 0
    except (DemoError, BuildError, DaemonError, NetworkError, OSError, RuntimeError) as problem:
        console.bad(str(problem))
        return 1


if __name__ == "__main__":
    sys.exit(main())
