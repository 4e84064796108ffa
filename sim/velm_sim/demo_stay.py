"""What the demo does when it stays: the phones answer on, and a person tries commands."""

from __future__ import annotations

import contextlib
import json
import select
import signal
import sys
import threading
import time

from .access_point import BSSIDS
from .demo_scene import Scene
from .namespaces import NAMESPACE_DIRECTORY
from .phone import sample_location

PUSH_INTERVAL = 60  # of the daemon


def answer_pushes(now: Scene, ending: threading.Event) -> None:
    """The phone to which a push goes answers it as the app would."""
    owners = {phone.profile.push_token: phone for phone in now.phones}
    answered = len(now.cloud.fcm.requests)
    while not ending.is_set():
        try:
            pushes = now.cloud.fcm.wait(answered + 1, 0.5)
        except TimeoutError:
            continue
        phone = owners.get(pushes[answered].json()["message"]["token"])
        answered += 1
        if phone is not None:
            with contextlib.suppress(OSError, RuntimeError):
                phone.location(sample_location())


def print_commands(now: Scene) -> None:
    access_point, phone = now.access_point, now.iphone
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
    inside_daemon = f"nsenter --net --mount --target={now.daemon.pid}"
    doctor = f"{nvram} {inside_daemon} {programs}/velmctl doctor -c {access_point.configuration_file}"
    next_push = time.strftime("%H:%M:%S", time.localtime(time.time() + PUSH_INTERVAL))
    print(
        f"""
Everything keeps running. Both phones answer every push. The daemon pushes once a minute at most: a
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
  {nvram} {programs}/nvram get zelkad_pairing_1_name

  # as the operator; the last command sees the network and the /etc of the access point
  {programs}/velmctl status -c {access_point.configuration_file}
  {programs}/velmctl explain 3 -c {access_point.configuration_file}
  {programs}/velmctl explain --follow -c {access_point.configuration_file}
  {doctor}
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
