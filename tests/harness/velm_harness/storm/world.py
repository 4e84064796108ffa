"""All that a storm blows through: daemon, cloud, phones and local clients, and the model."""

from __future__ import annotations

import contextlib
import os
import shutil
import socket
import time
from collections import Counter, deque
from collections.abc import Iterator
from pathlib import Path

from velm_sim.access_point import AccessPoint, Credentials
from velm_sim.android_phone import AndroidPhone, android_profile
from velm_sim.build import Build
from velm_sim.certificates import make_server
from velm_sim.cloud import HOSTS, Cloud
from velm_sim.daemon import wait_until
from velm_sim.etc_files import ADMIN, ODD_ACCOUNTS, ROOT, SECOND
from velm_sim.ipc_client import IpcClient
from velm_sim.limits import PUSH_GAP
from velm_sim.namespaces import Network
from velm_sim.phone import Phone, Profile
from velm_sim.play_integrity import IntegrityKeys

from ..route_netlink import RouteSocket
from .lan_model import Bridge
from .log import LogReader, StormFailure, require
from .model import Model
from .schedule import ADDRESSES, ANDROID_PHONES, IOS_PHONES, PAIRINGS_LIMIT

HALF_OPEN_HOST = 8
HALF_OPEN = 10
REFUSING_ADDRESS, SILENT_ADDRESS = Network.OTHER_CLOUD_ADDRESS, "203.0.113.9"
LOG_SIZE = 4 << 20  # so that it is begun anew a few times in a long storm
PATIENCE = 30.0
ADDRESS_COMMAND = """#!/bin/sh
case "$(cat {how})" in
fails) exit 1 ;;
"prints nothing") exit 0 ;;
hangs) exec sleep 30 ;;
esac
exec {ip} "$@"
"""


class StormCloud(Cloud):
    """A cloud whose clock stands where that of the daemon does."""

    moment = 0

    def now(self) -> float:
        return self.moment


class World:
    """`close` takes everything down."""

    def __init__(self, build: Build) -> None:
        self.cleanup = contextlib.ExitStack()
        self.credentials = Credentials(server=make_server(ADDRESSES))
        self.strange_keys = IntegrityKeys()
        try:
            self._raise(build)
        except BaseException:
            self.close()
            raise

    def _raise(self, build: Build) -> None:
        secret = self.credentials
        self.network = Network()
        self.cleanup.callback(self.network.close)
        with self.network.ap.entered():
            # The first address of a subnet takes the others along otherwise. Also of a new bridge.
            Path("/proc/sys/net/ipv4/conf/all/promote_secondaries").write_text("1")
        self.routes = RouteSocket(self.network.ap)
        self.cleanup.callback(self.routes.close)
        self.cloud = StormCloud(
            self.network.cloud,
            Network.CLOUD_ADDRESS,
            secret.cloud,
            secret.account,
            integrity_keys=secret.integrity,
        )
        self.cloud.start()
        self.cleanup.callback(self.cloud.stop)
        self.access_point = AccessPoint(build, self.network, secret)
        self.cleanup.callback(self.access_point.close)
        self.access_point.etc.set_accounts([ADMIN, ROOT, SECOND], ODD_ACCOUNTS)
        self.cloud_addresses: tuple[str, ...] = (Network.CLOUD_ADDRESS,)
        # An address behind the cloud that swallows what is sent there.
        self.network.ap.batch(f"route add {SILENT_ADDRESS} via {Network.CLOUD_ADDRESS}\n")
        self.access_point.configure(
            {
                "pairings.limit": str(PAIRINGS_LIMIT),
                "app.android.integrity.enabled": "yes",
                "app.android.integrity.method": "remote",
                "logger.file.maxsize": str(LOG_SIZE),
            }
        )
        self.model = Model(int(time.time()))
        self.first_moment = self.model.moment
        # Before its first look the daemon's clock must stand where the model's does.
        daemon = self.access_point.prepare(clock=True, environment=self._own_address_command())
        daemon.start()
        daemon.stop_clock(self.model.moment)
        daemon.wait_until_serving()
        self.daemon = daemon
        self.log = LogReader(daemon.log_file, daemon.alive)
        self.cleanup.callback(self.log.close)
        self.server_identity = secret.server
        self.address = Network.AP_ADDRESS
        self.bridge = Bridge([self.address], self.address)
        self.push_addresses = {self.address}
        self.markers = 0
        self.returns: list[float] = []  # seconds until all were served again, one per LAN event
        self.phones = self._make_phones()
        self.clients: dict[int, IpcClient] = {}
        self.half_open: list[socket.socket] = []
        self.allowed: list[str] = []
        self.allowed_before: list[str] = []
        self.perhaps_until = 0.0
        self.pushes_seen = 0
        self.baseline = 0

    def _own_address_command(self) -> dict[str, str]:
        """The daemon's `ip` does what the file `address_command` says."""
        programs = self.access_point.directory / "programs"
        programs.mkdir()
        self.address_command = programs / "how"
        self.address_command.write_text("works")
        command = programs / "ip"
        command.write_text(ADDRESS_COMMAND.format(how=self.address_command, ip=shutil.which("ip")))
        command.chmod(0o755)
        return {"PATH": f"{programs}:{os.environ['PATH']}"}

    def _make_phones(self) -> list[Phone]:
        apple: list[Phone] = [
            self.access_point.phone(number, Profile(name=f"iPhone {number}"))
            for number in range(IOS_PHONES)
        ]
        android: list[Phone] = [
            self.access_point.android_phone(
                IOS_PHONES + number, android_profile(name=f"Pixel {number}"), PATIENCE
            )
            for number in range(ANDROID_PHONES)
        ]
        for phone in android[::2]:
            assert isinstance(phone, AndroidPhone)
            phone.hashed = True
        return apple + android

    def close(self) -> None:
        for client in getattr(self, "clients", {}).values():
            client.close()
        self.close_half_open()
        self.cleanup.close()

    # Clocks.

    def jump(self, seconds: int) -> None:
        """The clocks of the daemon and of all others go on together."""
        # The certificates of the storm begin when it does.
        to = max(self.model.moment + seconds, self.first_moment)
        if to != self.model.moment:
            self.drain()
            self.model.moment = to
            self.daemon.stop_clock(self.model.moment)
        self.cloud.moment = self.model.moment
        offset = self.model.moment - time.time()
        for phone in self.phones:
            if isinstance(phone, AndroidPhone):
                phone.clock_offset = offset

    # Who connects.

    def client(self, number: int) -> IpcClient:
        """That local client, connected."""
        if number not in self.clients:
            self.log.mark()
            self.clients[number] = IpcClient(self.access_point.socket_path)
            self.model.queues[number] = deque()
            # Reports go to those whom the daemon has accepted.
            self.log.wait("Connection accepted")
        return self.clients[number]

    def disconnect(self, number: int) -> None:
        if number in self.clients:
            self.clients.pop(number).close()
            del self.model.queues[number]

    def open_half(self, count: int) -> None:
        for _ in range(count):
            host = self.access_point.lan_host(HALF_OPEN_HOST)
            host.server = self.address
            self.half_open.append(host.connect_tcp())
        while len(self.half_open) > HALF_OPEN:
            self.half_open.pop(0).close()

    def close_half_open(self) -> None:
        for connection in getattr(self, "half_open", []):
            connection.close()
        self.half_open = []

    def expect_clients_closed(self) -> None:
        """The servers began anew, so every local client reads the end."""
        for number, client in list(self.clients.items()):
            with contextlib.suppress(ConnectionResetError):
                rest = client.receive_packet(5)
                require(rest == b"", f"client {number} reads the end of its connection")
            client.close()
        self.clients.clear()

    def perhaps_push(self) -> None:
        """The pushes of a run may be under way until all phones have had theirs."""
        self.perhaps_until = time.monotonic() + PAIRINGS_LIMIT * PUSH_GAP + 1.5

    # What changes its settings.

    def reload(self) -> None:
        self.perhaps_push()
        self.access_point.reload()
        # The first address of the bridge is the one that the command tells.
        first = self.bridge.addresses[0]
        where = self.daemon.https_address()
        require(where == first, f"after a reload {first} is served at, not {where!r}")
        self.bridge.announce(first)
        self.serve_at(first)
        self.reloaded()

    def reloaded(self) -> None:
        """What a reload means to everybody."""
        self.model.reload()
        self.allow(r"nvram_get_parameter - cannot get zelkad_")
        if self.model.may_push():
            self.allow(r"missing auth token", r"send_push_handler - \[")
        self.expect_clients_closed()

    def renew_certificate(self) -> None:
        self.server_identity = make_server(ADDRESSES)
        at = self.access_point.directory
        self.server_identity.write(at / "server_cert.pem", at / "server_key.pem")
        self.reload()
        for phone in self.phones:
            phone.host.trust(self.server_identity.pem)

    def serve_at(self, address: str) -> None:
        """The access point has that address for everybody."""
        self.address = address
        # Pushes on their way may name the one before.
        self.push_addresses.add(address)
        for phone in self.phones:
            phone.host.server = address

    @contextlib.contextmanager
    def cloud_fault(self, fault: str, certificate: str) -> Iterator[None]:
        """The cloud cannot be talked to: "certificate", "cloud down" or "no dns"."""
        self.drain()
        if fault == "certificate":
            self.cloud.certificate = certificate
        elif fault == "cloud down":
            self.cloud.stop()
        else:
            self.access_point.etc.set_hosts({})
        try:
            yield
        finally:
            if fault == "certificate":
                self.cloud.certificate = "right"
            elif fault == "cloud down":
                self.cloud.start()
            else:
                self.access_point.etc.set_hosts(dict.fromkeys(HOSTS, self.cloud_addresses))

    def name_cloud(self, addresses: tuple[str, ...]) -> None:
        """From now on the names of the cloud have these, in this order."""
        self.cloud_addresses = addresses
        self.access_point.etc.set_hosts(dict.fromkeys(HOSTS, addresses))

    # What may be in the log, and pushes.

    def allow(self, *patterns: str) -> None:
        """ERROR lines that this step may bring, and only this one."""
        self.allowed += patterns

    def drain(self) -> None:
        """Returns when the pushes on their way have come, and those that may come have had time."""
        deadline = time.monotonic() + len(self.model.pushes) + 6
        self.see_pushes()
        while self.model.pushes:
            require(time.monotonic() < deadline, f"pushes to {self.model.pushes}")
            time.sleep(0.02)
            self.see_pushes()
        while self.model.may_push() and time.monotonic() < self.perhaps_until:
            time.sleep(0.02)
            self.see_pushes()
        self.model.forget_pushes()
        wait_until(lambda: not self.cloud.open_connections, 14, "the cloud's answers are taken")
        self.push_addresses = {self.address}

    def see_pushes(self) -> None:
        """Each push that came is one that the model knows of, and the certain ones keep order."""
        requests = self.cloud.fcm.requests
        for push in requests[self.pushes_seen :]:
            message = push.json()["message"]
            token = message["token"]
            if self.model.pushes and self.model.pushes[0] == token:
                self.model.pushes.pop(0)
                self._check_push(message)
            elif self.model.perhaps[token] > 0:
                self.model.perhaps[token] -= 1
                self.model.perhaps += Counter()  # drops what is at zero
            else:
                raise StormFailure(f"no push to {token[:40]}, next is {self.model.pushes[:1]}")
            self.model.push_came(token)
        self.pushes_seen = len(requests)

    def _check_push(self, message: dict[str, dict[str, object]]) -> None:
        block = message.get("apns", {}).get("payload") or message.get("android", {}).get("data")
        require(isinstance(block, dict), "the push has a block of its platform")
        assert isinstance(block, dict)
        wanted = [f"{address}:{self.access_point.port}" for address in self.push_addresses]
        found = block["location"]
        require(found in wanted, f"the push names one of {wanted}, not {found}")

    def descriptors(self) -> int:
        return len(os.listdir(f"/proc/{self.daemon.pid}/fd"))

