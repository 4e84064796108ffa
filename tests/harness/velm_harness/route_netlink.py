"""Changes addresses of an interface at once, without the milliseconds that a command takes."""

from __future__ import annotations

import os
import socket
import struct
import time

from velm_sim.namespaces import Namespace

NLMSG_ERROR = 2
RTM_NEWADDR, RTM_DELADDR = 20, 21
NLM_F_REQUEST, NLM_F_ACK, NLM_F_EXCL, NLM_F_CREATE = 0x1, 0x4, 0x200, 0x400
IFA_ADDRESS, IFA_LOCAL = 1, 2
HEAD = struct.Struct("=IHHII")
PREFIX_LENGTH = 24


class RouteSocket:
    """Talks to the kernel of a namespace; every change is over when its call returns."""

    def __init__(self, namespace: Namespace) -> None:
        self._namespace = namespace
        with namespace.entered():
            self._socket = socket.socket(
                socket.AF_NETLINK, socket.SOCK_RAW | socket.SOCK_CLOEXEC, socket.NETLINK_ROUTE
            )
        self._socket.settimeout(10)
        self._number = 0

    def close(self) -> None:
        self._socket.close()

    def index(self, interface: str) -> int:
        """The interface's number, which a rebuilt one has anew."""
        with self._namespace.entered():
            return socket.if_nametoindex(interface)

    def add(self, address: str, interface: str) -> None:
        self._change(RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, address, self.index(interface))

    def remove(self, address: str, interface: str) -> None:
        self._change(RTM_DELADDR, 0, address, self.index(interface))

    def flap(self, address: str, interface: str, seconds: float) -> None:
        """The address is there for about that long."""
        index = self.index(interface)
        self._change(RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, address, index)
        if seconds:
            _pause(seconds)
        self._change(RTM_DELADDR, 0, address, index)

    def _change(self, kind: int, flags: int, address: str, index: int) -> None:
        packed = socket.inet_aton(address)
        about = struct.pack("=BBBBI", socket.AF_INET, PREFIX_LENGTH, 0, 0, index)
        body = about + b"".join(
            struct.pack("=HH4s", 8, attribute, packed) for attribute in (IFA_LOCAL, IFA_ADDRESS)
        )
        self._number += 1
        head = HEAD.pack(
            HEAD.size + len(body), kind, NLM_F_REQUEST | NLM_F_ACK | flags, self._number, 0
        )
        self._socket.send(head + body)
        answer = self._socket.recv(4096)
        _, answered, _, _, _ = HEAD.unpack_from(answer)
        (error,) = struct.unpack_from("=i", answer, HEAD.size)
        if answered != NLMSG_ERROR or error:
            raise OSError(-error, f"{os.strerror(-error)}: {address} of interface {index}")


def _pause(seconds: float) -> None:
    """Kept to a fraction of a millisecond, which `time.sleep` is not always."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        pass
