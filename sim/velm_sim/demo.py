"""The main job, shown step by step with the daemon that was built.

Exit status 0 only when the reports that a local client received equal what the phones sent, and the
pushes left in their time, one after another.
"""

from __future__ import annotations

import argparse
import json
import signal
import subprocess
import sys
from pathlib import Path
from types import FrameType
from typing import Any

from .answers import Recorded
from .build import Build, BuildError
from .console import Console
from .daemon import DaemonError
from .demo_scene import Scene, scene
from .demo_stay import stay
from .ipc_client import IpcClient, follow_device
from .limits import PUSH_GAP
from .namespaces import NetworkError
from .phone import Phone, Prepared, sample_location
from .ssdp import DEVICE_TYPE, discover

STEPS = 12
WANTED_WITHIN = 60
GAP_EARLY, GAP_LATE = 0.4, 0.6  # seconds by which a busy machine moves a push for the cloud

IPHONE_IS_AT = {"latitude": 52.520008, "longitude": 13.404954, "altitude": 34.5, "rssi": -47}
ANDROID_IS_AT = {
    "latitude": 52.520131,
    "longitude": 13.405217,
    "accuracy": 6.5,
    "altitude": 37.25,
    "verticalAccuracy": 1.75,
    "rssi": -61,
}


class DemoError(RuntimeError):
    """A step did not come out as it should."""


def require(condition: bool, complaint: str) -> None:
    if not condition:
        raise DemoError(complaint)


def url(request: Recorded) -> str:
    return f"https://{request.host}{request.path}"


def show_access_point(console: Console, now: Scene) -> None:
    access_point = now.access_point
    console.fact("velmd", f"pid {now.daemon.pid}, serving after {now.started_in * 1000:.0f} ms")
    console.fact("HTTPS", f"https://{now.iphone.host.server}:{access_point.port}")
    console.fact("local clients", access_point.socket_path)
    console.fact("resident memory", f"{now.daemon.resident_kib()} KiB")


def find(console: Console, now: Scene) -> None:
    """From here on each phone goes where the answer sent it."""
    console.step("The phones look for the access point on the LAN")
    console.fact("M-SEARCH", DEVICE_TYPE)
    for phone in now.phones:
        host = phone.host
        answers = discover(now.network.phone, str(host.source))
        require(len(answers) == 1, f"{len(answers)} access points answered the search")
        (answer,) = answers
        host.server, host.port = answer.host, answer.https_port
        console.fact(phone.profile.name, f"answered by {answer.address}:{answer.port}")
    for name in ("LOCATION", "SERVER", "USN"):
        console.fact(name, answer.headers[name])
    reply = now.android.host.request(answer.path)
    require(reply.status == 200, f"{answer.location} answered {reply.status}")
    console.fact("GET /info", reply.body.decode())


def send_pairing(console: Console, now: Scene, phone: Phone, request: Prepared, slot: int) -> None:
    reply = phone.send(request)
    console.fact("POST /pair", reply.status)
    require(reply.status == 200, f"/pair answered {reply.status}")
    stored = now.access_point.pairing(slot)
    for member in ("status", "dev_type", "name", "dev_model", "os_version", "date_added"):
        console.fact(f"nvram {member}", stored[member])
    if stored["attestation_key"]:
        console.fact("attestation key", f"{stored['attestation_key'][:48]}...")


def pair(console: Console, now: Scene) -> None:
    console.step("The iPhone logs in and fetches a single-use challenge")
    challenge = now.iphone.fetch_challenge()
    console.fact("challenge", challenge)

    console.step("The iPhone proves itself with an App Attest attestation and pairs")
    request = now.iphone.prepare_pair(challenge=challenge)
    console.fact("X-Attestation", f"{len(request.headers['X-Attestation'])} characters of base64")
    send_pairing(console, now, now.iphone, request, 0)

    console.step("The Android phone proves itself with a Play Integrity token and pairs")
    request = now.android.prepare_pair()
    console.fact("X-Assertion", f"{len(request.headers['X-Assertion'])} characters of base64")
    send_pairing(console, now, now.android, request, 1)
    (decoding,) = now.cloud.integrity.wait(1, 10)
    console.fact("verdict from", url(decoding))


def ask(console: Console, now: Scene) -> Any:
    console.step("A local client asks for the location")
    client = now.access_point.locate("--timeout", str(WANTED_WITHIN), "--wait", "20")
    console.command(" ".join(str(word) for word in client.args))
    return client


def show_pushes(console: Console, now: Scene) -> None:
    console.step(f"The pushes, {PUSH_GAP} s apart, as the messaging service received them")
    try:
        pushes = now.cloud.fcm.wait(len(now.phones), 10)
    except TimeoutError as problem:
        raise DemoError(f"no push: {problem}; token refusals: {now.cloud.refusals}") from None
    console.fact("access token", f"granted for {next(iter(now.cloud.grants.values()))['iss']}")
    for phone, push in zip(now.phones, pushes):
        later = push.monotonic - pushes[0].monotonic
        console.fact(f"POST after {later:.2f} s", f"{url(push)} for {phone.profile.name}")
        message = push.json()["message"]
        console.say(json.dumps({"message": message}, indent=2))
        require(message["token"] == phone.profile.push_token, "the push is for another phone")
    gap = pushes[1].monotonic - pushes[0].monotonic
    in_time = PUSH_GAP - GAP_EARLY < gap < PUSH_GAP + GAP_LATE
    require(in_time, f"the pushes are {gap:.2f} s apart")


def deliver(console: Console, phone: Phone, location: dict[str, Any], proof: str) -> None:
    console.step(f"{phone.profile.name} {proof} and posts its location")
    request = phone.prepare_location(location)
    console.fact("X-Assertion", f"{len(request.headers['X-Assertion'])} characters of base64")
    console.say(json.dumps({"location": location}, indent=2))
    reply = phone.send(request)
    console.fact("POST /location", reply.status)
    require(reply.status == 200, f"/location answered {reply.status}")


def compare(console: Console, watcher: IpcClient, phone: Phone, location: dict[str, Any]) -> None:
    report, wanted = watcher.receive_report(), phone.expected_report(location)
    require(report == wanted, f"the report differs\n  sent     {wanted}\n  received {report}")
    console.fact(
        "report",
        f"{report.phone_model} at {report.phone_ip}: {report.latitude}, {report.longitude}, "
        f"{report.height} m, {report.rssi} dBm at {report.bssid}",
    )


def explain(console: Console, now: Scene) -> None:
    console.step("What a support line reads afterwards")
    access_point = now.access_point
    command = [str(access_point.build.program("velmctl")), "explain"]
    command += ["--control", str(access_point.control.path)]
    console.command(" ".join(command))
    done = subprocess.run(command, capture_output=True, text=True, timeout=20)
    console.say(done.stdout.rstrip() or done.stderr.rstrip())
    require(done.returncode == 0, f"velmctl explain ended with {done.returncode}")


def run(console: Console, now: Scene) -> None:
    find(console, now)
    pair(console, now)
    with IpcClient(now.access_point.socket_path) as watcher:
        client = ask(console, now)
        try:
            show_pushes(console, now)
            iphone_is_at = sample_location(**IPHONE_IS_AT)
            deliver(console, now.iphone, iphone_is_at, "signs over a fresh challenge")
            console.step("The client that asked receives the 224-byte report and ends")
            output, errors = client.communicate(timeout=20)
        finally:
            client.kill()
        console.say(output.rstrip() or errors.rstrip())
        require(client.returncode == 0, f"velmctl ended with {client.returncode}: {errors}")
        android_is_at = sample_location(**ANDROID_IS_AT)
        deliver(console, now.android, android_is_at, "fetches a token over a fresh challenge")
        console.step("A client that only listens has received a report of each phone")
        compare(console, watcher, now.iphone, iphone_is_at)
        compare(console, watcher, now.android, android_is_at)
    explain(console, now)
    console.good("Each report equals what its phone sent.")


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
        build = Build(options.build)
        follow_device(build.program("velmd"))
        with scene(build) as now:
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
