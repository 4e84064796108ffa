"""A round as it happens on a device, on the loopback of one namespace: a local client asks, velmd pushes,
a phone comes with its location, the client has the report. A bare program does the same with the same peers."""

from __future__ import annotations

import contextlib
import struct
import tempfile
import time
from collections.abc import Callable, Iterator, Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path

from velm_sim.access_point import AccessPoint, Credentials
from velm_sim.answers import Recorded
from velm_sim.build import Build
from velm_sim.cloud import HOSTS, Cloud
from velm_sim.daemon import Daemon, wait_until
from velm_sim.etc_files import ADMIN
from velm_sim.ipc_client import IpcClient
from velm_sim.limits import PUSH_GAP
from velm_sim.namespaces import Network, remove_stale
from velm_sim.phone import Phone, Profile

from . import instructions
from .https import ordinary_hash
from .micro import integrity_objects, required
from .servers import ADDRESS
from .watch import SERVER_CORE, cpu_us, next_timer_ms, page_faults, pin, wakeups

CLOUD_ADDRESS = "127.0.1.1"
FLOOR_PORT = 8444
SOURCES = tuple(f"127.0.0.{host}" for host in range(2, 66))
# velmd pushes once in that time by its clock, which is moved on by as much before each round. After so many
# steps it is set back, so that the access token, fetched before the first one, stays good.
STEP_S = 61
STEPS = 50
# A timer that is due later belongs to an open request, which velmd keeps for ten minutes.
DUE_SOON_MS = 5000
PATIENCE_S = 10.0


@dataclass(frozen=True)
class Round:
    """What one round cost the process, from the request until nothing is due any more."""

    cpu_us: float
    hashes_us: float  # of it, by password hashes
    visit_cpu_us: float  # of it, from the phones' coming on
    wakeups: int
    page_faults: int
    wait_us: float  # from the phone's coming to the report, without the phone's own time
    last_report_us: float  # from the first phone's coming to the last report, all in all

    @property
    def rest_us(self) -> float:
        return self.cpu_us - self.hashes_us


@dataclass
class Scene:
    """The process under measurement and its peers: velmd, with its phones paired and its access token at
    hand, or the bare program of the floor."""

    daemon: Daemon
    cloud: Cloud
    phones: Sequence[Phone]
    hashes: Path  # where the process adds up what its password hashes take
    clock: Path | None  # what moves velmd's clock; the floor looks at none
    patience_s: float = PATIENCE_S
    _step: int = 0

    @property
    def pid(self) -> int:
        return self.daemon.pid

    def hashes_us(self) -> float:
        return float(struct.unpack("=Q", self.hashes.read_bytes())[0]) / 1000

    def settle(self, longer_than_ms: int = DUE_SOON_MS) -> None:
        """Until the process sleeps and nothing is due soon."""

        def nothing_is_due() -> bool:
            due = next_timer_ms(self.pid)
            return due is not None and (due < 0 or due > longer_than_ms)

        wait_until(nothing_is_due, self.patience_s, "there is something to do all the time")

    def timers_left(self) -> int:
        """With no local client connected any more; 0 when velmd would sleep for ever."""
        with contextlib.suppress(TimeoutError):
            wait_until(lambda: next_timer_ms(self.pid) == -1, self.patience_s, "a timer is left")
        return 0 if next_timer_ms(self.pid) == -1 else 1

    def client(self) -> contextlib.AbstractContextManager[IpcClient]:
        return contextlib.closing(IpcClient(self.daemon.socket_path, self.patience_s))

    def round(
        self, visit: Callable[[Sequence[Phone]], float] | None = None, reports: int = 1
    ) -> Round:
        """`visit` is what the phones do after the pushes; it tells how long they themselves took."""
        with self.client() as client:
            self._move_clock()
            self.settle()
            before, woken, pushed = cpu_us(self.pid), wakeups(self.pid), len(self.cloud.fcm.requests)
            hashed, faults = self.hashes_us(), page_faults(self.pid)
            client.request()
            gaps = PUSH_GAP * len(self.phones)
            self.cloud.fcm.wait(pushed + len(self.phones), self.patience_s + gaps)
            self.wait_for_answers()
            came, at = cpu_us(self.pid), time.perf_counter_ns()
            own_us = (visit or one_phone)(self.phones)
            for _ in range(reports):
                client.receive_report()
            took_us = (time.perf_counter_ns() - at) / 1000
            self.settle()
            return Round(
                cpu_us(self.pid) - before, self.hashes_us() - hashed, cpu_us(self.pid) - came,
                wakeups(self.pid) - woken, page_faults(self.pid) - faults, took_us - own_us, took_us,
            )  # fmt: skip

    def visits(self, visit: Callable[[Sequence[Phone]], float], reports: int) -> Round:
        """The phones come without a push."""
        with self.client() as client:
            self.settle()
            before, woken, hashed = cpu_us(self.pid), wakeups(self.pid), self.hashes_us()
            faults, at = page_faults(self.pid), time.perf_counter_ns()
            own_us = visit(self.phones)
            for _ in range(reports):
                client.receive_report()
            took_us = (time.perf_counter_ns() - at) / 1000
            self.settle()
            spent = cpu_us(self.pid) - before
            return Round(
                spent, self.hashes_us() - hashed, spent, wakeups(self.pid) - woken,
                page_faults(self.pid) - faults, took_us - own_us, took_us,
            )  # fmt: skip

    def _move_clock(self) -> None:
        if self.clock is None:
            return
        self._step = self._step % STEPS + 1
        move_clock(self.clock, self._step * STEP_S)
        for phone in self.phones:
            if hasattr(phone, "clock_offset"):
                phone.clock_offset = float(self._step * STEP_S)
        self.cloud.clock_offset = float(self._step * STEP_S)

    def wait_for_answers(self) -> None:
        wait_until(lambda: not self.cloud.open_connections, self.patience_s, "a push is not answered")


def move_clock(file: Path, seconds: int) -> None:
    """In place: velmd has the file mapped."""
    with open(file, "r+b", buffering=0) as opened:
        opened.write(struct.pack("=q", seconds))


def one_phone(phones: Sequence[Phone]) -> float:
    """The first phone comes with a new connection; how long it itself took."""
    begin = time.thread_time_ns()
    come(phones[0])
    return (time.thread_time_ns() - begin) / 1000


def come(phone: Phone) -> None:
    with phone.host.session() as session:
        reply = phone.send(phone.prepare("/challenge"), session)
        if reply.status != 200:
            raise RuntimeError(f"/challenge answered {reply.status}")
        located = phone.prepare_location(challenge=reply.json()["challenge"])
        reply = phone.send(located, session)
        if reply.status != 200:
            raise RuntimeError(f"/location answered {reply.status}")


def as_sent(request: Recorded) -> bytes:
    """Byte for byte, except that the names of headers are in lower case."""
    headers = "".join(f"{name}: {value}\r\n" for name, value in request.headers.items())
    head = f"{request.method} {request.path} HTTP/1.1\r\n{headers}\r\n"
    return head.encode("latin-1") + request.body


def pair(phone: Phone) -> None:
    if phone.pair().status != 200:
        raise RuntimeError("a phone cannot be paired")


@dataclass(frozen=True)
class Kind:
    """By what the phones prove themselves."""

    name: str
    is_android: bool = False


APP_ATTEST, PLAY_INTEGRITY = Kind("App Attest"), Kind("Play Integrity", is_android=True)


class Setting:
    """The namespace, the cloud and the secrets: made once, for any number of scenes."""

    def __init__(self, build: Build, cleanup: contextlib.ExitStack) -> None:
        self.build, self.programs = build, build.directory / "bin"
        remove_stale()
        self.scratch = Path(cleanup.enter_context(tempfile.TemporaryDirectory(prefix="velm-round-")))
        self.credentials = Credentials()
        self.network = Network()
        cleanup.callback(self.network.close)
        secret = self.credentials
        self.cloud = Cloud(
            self.network.ap, CLOUD_ADDRESS, secret.cloud, secret.account,
            integrity_keys=secret.integrity,
        )  # fmt: skip
        self.cloud.start()
        cleanup.callback(self.cloud.stop)

    @contextlib.contextmanager
    def scene(
        self, kind: Kind, phones: int = 1, heap: Path | None = None,
        settings: dict[str, str] | None = None, profile: Path | None = None,
    ) -> Iterator[Scene]:  # fmt: skip
        """`heap` is where a daemon counts what it takes from the heap, `profile` where its
        instructions are counted."""
        self.cloud.reset()
        with contextlib.ExitStack() as cleanup:
            access_point = AccessPoint(self.build, self.network, self.credentials)
            cleanup.callback(access_point.close)
            self._configure(access_point, phones)
            access_point.nvram_set({"zelkad_debug_level": "error", **(settings or {})})
            clock, hashes = (counter(access_point.directory / name) for name in ("clock", "hashes"))
            patience_s = PATIENCE_S if profile is None else instructions.PATIENCE_S
            self._start(access_point, clock, hashes, heap, profile, patience_s)
            made = [self._phone(access_point, kind, number) for number in range(phones)]
            scene = Scene(access_point.daemon, self.cloud, made, hashes, clock, patience_s)
            pair(made[0])
            self._fetch_access_token(scene)
            for phone in made[1:]:
                pair(phone)
            yield scene

    def _configure(self, access_point: AccessPoint, phones: int) -> None:
        access_point.configure(
            {
                "logger.file": "no",
                "logger.level": "error",
                "app.android.integrity.method": "local",
                "pairings.limit": str(max(10, phones)),
            }
        )
        access_point.etc.set_hosts(dict.fromkeys(HOSTS, CLOUD_ADDRESS))
        self._set_accounts(access_point)

    def _set_accounts(self, access_point: AccessPoint) -> None:
        fields = {access_point.login.username: ordinary_hash(), "root": "*", "nobody": "*"}
        access_point.etc.set_accounts([], fields)

    def _start(
        self, access_point: AccessPoint, clock: Path, hashes: Path, heap: Path | None,
        profile: Path | None, patience_s: float,
    ) -> None:  # fmt: skip
        watched = {"clock": clock, "hash": hashes, **({"heap": heap} if heap else {})}
        daemon = access_point.prepare(
            through=words_before(profile), preload=self._preload(watched),
            environment=preload_files(watched),
        )  # fmt: skip
        daemon.start()
        daemon.wait_until_serving(patience_s)

    def _preload(self, watched: Mapping[str, Path]) -> tuple[Path, ...]:
        return tuple(
            Path(required(self.programs, f"velm-round-{name}.so")) for name in watched
        )

    def _phone(self, access_point: AccessPoint, kind: Kind, number: int) -> Phone:
        phone: Phone = access_point.android_phone() if kind.is_android else access_point.phone()
        if not kind.is_android:
            phone.profile = Profile(name=f"Phone {number}")
        phone.host.namespace, phone.host.source = self.network.ap, SOURCES[number]
        return phone

    def _fetch_access_token(self, scene: Scene) -> None:
        """By a request that does not count, while one phone is paired."""
        with scene.client() as client:
            client.request()
            self.cloud.fcm.wait(1, PATIENCE_S)
            scene.wait_for_answers()

    @contextlib.contextmanager
    def floor(self, kind: Kind, profile: Path | None = None) -> Iterator[Scene]:
        """The bare program beside a velmd that has its scene. It has a phone of its own, and sends what
        velmd pushed last, whose access token is good."""
        with contextlib.ExitStack() as cleanup:
            access_point = AccessPoint(self.build, self.network, self.credentials)
            cleanup.callback(access_point.close)
            self._set_accounts(access_point)
            at = access_point.directory
            files = {
                "push": as_sent(self.cloud.fcm.requests[-1]),
                "password": ADMIN.password.encode(),
                **integrity_objects(bytes(32)),
            }
            for name, content in files.items():
                (at / name).write_bytes(content)
            hashes = counter(at / "hashes")
            patience_s = PATIENCE_S if profile is None else instructions.PATIENCE_S
            watched = {"hash": hashes}
            command = [
                *words_before(profile), required(self.programs, "velm-round-floor"), str(at), ADDRESS,
                str(FLOOR_PORT), CLOUD_ADDRESS, HOSTS[0], "token" if kind.is_android else "check",
            ]  # fmt: skip
            daemon = Daemon(
                self.build, at, access_point.inside(*command), preload_files(watched), FLOOR_PORT,
                at / "socket", preload=self._preload(watched),
            )  # fmt: skip
            cleanup.callback(daemon.kill)
            daemon.start()
            daemon.wait_until_serving(patience_s)
            phone = self._phone(access_point, kind, 0)
            phone.host.port = FLOOR_PORT
            yield Scene(daemon, self.cloud, [phone], hashes, None, patience_s)


def counter(file: Path) -> Path:
    """Eight bytes that a preloaded library shares with us."""
    file.write_bytes(bytes(8))
    return file


def preload_files(watched: Mapping[str, Path]) -> dict[str, str]:
    return {f"VELM_ROUND_{name.upper()}": str(file) for name, file in watched.items()}


def words_before(profile: Path | None) -> list[str]:
    """The command that runs the process under measurement."""
    return pin(SERVER_CORE) + (instructions.counting(profile) if profile else [])
