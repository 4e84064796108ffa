"""Network namespaces: made, entered for the moment a socket is created, and always removed."""

from __future__ import annotations

import contextlib
import ctypes
import errno
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from collections.abc import Callable, Iterator
from pathlib import Path

NAMESPACE_DIRECTORY = Path("/run/netns")
PREFIX = "velm"
CLONE_NEWNET = 0x40000000

_libc = ctypes.CDLL(None, use_errno=True)
_OWN_NAME = re.compile(rf"{PREFIX}-(\d+)-")


class NetworkError(RuntimeError):
    """A namespace or one of its links could not be made."""


def ip(*arguments: str, batch: str | None = None) -> str:
    """Runs the `ip` command, with `batch` as its script when given, and returns what it printed."""
    done = subprocess.run(["ip", *arguments], input=batch, capture_output=True, text=True)
    if done.returncode != 0:
        raise NetworkError(f"ip {' '.join(arguments)}: {done.stderr.strip()}")
    return done.stdout


class IpScript:
    """A running `ip` that takes its commands one by one."""

    def __init__(self, process: subprocess.Popen[bytes]) -> None:
        self._process = process

    def run(self, command: str) -> None:
        assert self._process.stdin
        self._process.stdin.write(f"{command}\n".encode())
        self._process.stdin.flush()


class Namespace:
    """A named network namespace with its loopback up."""

    def __init__(self, name: str) -> None:
        self.name = name
        ip("netns", "add", name)
        ip("-n", name, "link", "set", "lo", "up")

    @property
    def path(self) -> Path:
        return NAMESPACE_DIRECTORY / self.name

    def batch(self, script: str) -> None:
        """Runs `ip` commands, one a line, inside the namespace."""
        ip("-n", self.name, "-batch", "-", batch=script)

    @contextlib.contextmanager
    def script(self) -> Iterator[IpScript]:
        """`ip` commands that follow one another as fast as the kernel takes them. At the end all
        have run; one that failed is passed over."""
        command = ["ip", "-n", self.name, "-force", "-batch", "-"]
        with subprocess.Popen(command, stdin=subprocess.PIPE, stderr=subprocess.DEVNULL) as process:
            yield IpScript(process)

    def command(self, *arguments: str) -> list[str]:
        """The argument list that runs a command inside, keeping the pid that it is started with."""
        return ["nsenter", f"--net={self.path}", "--", *arguments]

    def socket(self, family: int = socket.AF_INET, kind: int = socket.SOCK_STREAM) -> socket.socket:
        """A socket that lives inside for good, whoever uses it."""
        with self.entered():
            return socket.socket(family, kind | socket.SOCK_CLOEXEC)

    @contextlib.contextmanager
    def entered(self) -> Iterator[None]:
        """The calling thread, and no other, is inside while this lasts."""
        with open("/proc/thread-self/ns/net", "rb") as home, open(self.path, "rb") as inside:
            _setns(inside.fileno())
            try:
                yield
            finally:
                _setns(home.fileno())

    def pids(self) -> list[int]:
        return [int(pid) for pid in ip("netns", "pids", self.name).split()]

    def delete(self) -> None:
        with contextlib.suppress(NetworkError):
            ip("netns", "delete", self.name)


def _setns(descriptor: int) -> None:
    if _libc.setns(descriptor, CLONE_NEWNET) != 0:
        error = ctypes.get_errno()
        raise NetworkError(f"setns: {os.strerror(error)} (network namespaces need root)")


class Network:
    """The wires of one access point.

    `ap` owns the LAN bridge br0 (192.168.1.1/24) with the phone's port in it and an uplink
    (198.51.100.2/24); `phone` answers to 192.168.1.50 .. .59; `cloud` is 198.51.100.1, and also
    198.51.100.3, where nobody listens until a test does. Routes lead both ways. Names carry the pid
    and a number, so that several run side by side.
    """

    AP_ADDRESS = "192.168.1.1"
    PHONE_ADDRESSES = tuple(f"192.168.1.{host}" for host in range(50, 60))
    CLOUD_ADDRESS = "198.51.100.1"
    UPLINK_ADDRESS = "198.51.100.2"
    OTHER_CLOUD_ADDRESS = "198.51.100.3"
    NOBODY_ADDRESS = "198.51.100.66"  # on the uplink; who connects to it hears nothing
    CLOUD_IPV6 = "2001:db8:6::1"
    UPLINK_IPV6 = "2001:db8:6::2"

    _next = 1

    def __init__(self) -> None:
        self.label = f"{PREFIX}-{os.getpid()}-{Network._next}"
        Network._next += 1
        self._made: list[Namespace] = []
        try:
            self.ap = self._make("ap")
            self.phone = self._make("phone")
            self.cloud = self._make("cloud")
            self._wire()
        except BaseException:
            self.close()
            raise

    def _make(self, role: str) -> Namespace:
        namespace = Namespace(f"{self.label}-{role}")
        self._made.append(namespace)
        return namespace

    def _wire(self) -> None:
        self.ap.batch(
            "link add br0 type bridge forward_delay 0\n"
            f"link add lan0 type veth peer name eth0 netns {self.phone.name}\n"
            f"link add wan0 type veth peer name eth0 netns {self.cloud.name}\n"
            "link set lan0 master br0\n"
            "link set lan0 up\nlink set br0 up\nlink set wan0 up\n"
            f"addr add {self.AP_ADDRESS}/24 dev br0\n"
            f"addr add {self.UPLINK_ADDRESS}/24 dev wan0\n"
        )
        self.phone.batch(
            "".join(f"addr add {address}/24 dev eth0\n" for address in self.PHONE_ADDRESSES)
            + f"link set eth0 up\nroute add default via {self.AP_ADDRESS}\n"
        )
        self.cloud.batch(
            f"addr add {self.CLOUD_ADDRESS}/24 dev eth0\n"
            f"addr add {self.OTHER_CLOUD_ADDRESS}/24 dev eth0\n"
            f"link set eth0 up\nroute add 192.168.1.0/24 via {self.UPLINK_ADDRESS}\n"
        )

    @contextlib.contextmanager
    def ipv6_uplink(self, only: bool = False) -> Iterator[None]:
        """While this lasts, the uplink has IPv6 too, and no IPv4 when that is `only`."""
        self.ap.batch(f"addr add {self.UPLINK_IPV6}/64 dev wan0 nodad\n")
        self.cloud.batch(f"addr add {self.CLOUD_IPV6}/64 dev eth0 nodad\n")
        if only:
            self.ap.batch(f"addr del {self.UPLINK_ADDRESS}/24 dev wan0\n")
        try:
            yield
        finally:
            self.ap.batch(f"addr del {self.UPLINK_IPV6}/64 dev wan0\n")
            self.cloud.batch(f"addr del {self.CLOUD_IPV6}/64 dev eth0\n")
            if only:
                self.ap.batch(f"addr add {self.UPLINK_ADDRESS}/24 dev wan0\n")

    @contextlib.contextmanager
    def cloud_out_of_reach(self) -> Iterator[None]:
        """While this lasts, what is sent to the cloud vanishes."""
        self.cloud.batch("link set eth0 down\n")
        try:
            yield
        finally:
            self.cloud.batch(
                f"link set eth0 up\nroute replace 192.168.1.0/24 via {self.UPLINK_ADDRESS}\n"
            )
            self.wait_for_cloud()

    def wait_for_cloud(self, timeout: float = 10.0) -> None:
        """Returns once packets reach the cloud again.

        A look-up of the cloud's hardware address that began while the link was down may still fail
        seconds later, and takes the next connection with it.
        """
        deadline = time.monotonic() + timeout
        while True:
            with self.ap.socket() as probe:
                probe.settimeout(0.5)
                outcome = probe.connect_ex((self.CLOUD_ADDRESS, 443))
            if outcome in (0, errno.ECONNREFUSED):
                return
            if time.monotonic() > deadline:
                raise NetworkError(f"the cloud stays out of reach: {os.strerror(outcome)}")

    def move_ap(self, old: str, new: str, between: Callable[[], None]) -> None:
        """The access point takes an address and gives up another, in that order.

        Connections of the phones that were left unclosed may have been looking for the new address
        while nobody had it: such a look-up fails seconds later, and takes the next connection with
        it. So the phones begin theirs anew.
        """
        self.ap.batch(f"addr add {new}/24 dev br0\n")
        self.phone.batch(f"neigh flush to {new} dev eth0\n")
        between()
        self.ap.batch(f"addr del {old}/24 dev br0\n")

    def close(self) -> None:
        while self._made:
            self._made.pop().delete()


def owner_is_gone(name: str) -> bool:
    """True for a name that a run of ours gave whose process is no more."""
    found = _OWN_NAME.match(name)
    return found is not None and not Path(f"/proc/{found.group(1)}").exists()


def remove_stale() -> None:
    """Ends and removes what killed runs left: processes in namespaces, the namespaces, files."""
    names = [path.name for path in NAMESPACE_DIRECTORY.glob(f"{PREFIX}-*")]
    for name in filter(owner_is_gone, names):
        with contextlib.suppress(NetworkError):
            for pid in ip("netns", "pids", name).split():
                with contextlib.suppress(ProcessLookupError):
                    os.kill(int(pid), signal.SIGKILL)
            ip("netns", "delete", name)
    for path in Path(tempfile.gettempdir()).glob(f"{PREFIX}-*"):
        if owner_is_gone(path.name):
            shutil.rmtree(path, ignore_errors=True)
