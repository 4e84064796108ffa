"""A client of the daemon's Unix socket, and the 224-byte location report decoded."""

from __future__ import annotations

import ipaddress
import select
import socket
import struct
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from .build import byte_order

REQUEST = 0x1000
REPORT = 0xA000
STATUS_OK = 0
STATUS_BUSY = 1
STATUS_NO_PAIRED_DEVICES = 3

class DeviceStruct:
    """A `struct.Struct` in the byte order of the device, which is this machine's until told otherwise."""

    order = "="

    def __init__(self, layout: str) -> None:
        self._layout = layout
        self.size = struct.calcsize(f"={layout}")

    def pack(self, *values: Any) -> bytes:
        return struct.pack(f"{self.order}{self._layout}", *values)

    def unpack(self, data: bytes) -> tuple[Any, ...]:
        return struct.unpack(f"{self.order}{self._layout}", data)

    def unpack_from(self, data: bytes, offset: int = 0) -> tuple[Any, ...]:
        return struct.unpack_from(f"{self.order}{self._layout}", data, offset)


def follow_device(program: Path) -> None:
    """Frames are in the byte order of that program from now on: the device's, also when it is emulated
    here."""
    DeviceStruct.order = byte_order(program)


HEADER = DeviceStruct("HHIII")
WANTED_WITHIN = DeviceStruct("H")
REQUEST_PAYLOAD_LENGTH = 140
# valid, ip, os, model, time, BSSID present, BSSID, RSSI, reserved, doubles, height kind, vertical
REPORT_LAYOUT = DeviceStruct("I 4s 64s 64s I B 6s x h 2x 8s 6d I 4x d")
assert HEADER.size == 16 and REPORT_LAYOUT.size == 224


@dataclass(frozen=True)
class Frame:
    """One packet."""

    type: int
    length: int
    id: int
    time: int
    status: int
    payload: bytes

    @classmethod
    def decode(cls, packet: bytes) -> Frame:
        if len(packet) < HEADER.size:
            raise ValueError(f"packet of {len(packet)} bytes")
        frame = cls(*HEADER.unpack_from(packet), packet[HEADER.size :])
        if len(frame.payload) != frame.length:
            raise ValueError(f"length {frame.length}, payload {len(frame.payload)}")
        return frame

    def encode(self) -> bytes:
        head = HEADER.pack(self.type, self.length, self.id, self.time, self.status)
        return head + self.payload


@dataclass(frozen=True)
class Report:
    """A location report."""

    valid: int
    phone_ip: str
    os_version: str
    phone_model: str
    time: int
    bssid_present: int
    bssid: str
    rssi: int
    reserved: bytes
    latitude: float
    longitude: float
    horizontal_uncertainty1: float
    horizontal_uncertainty2: float
    orientation: float
    height: float
    height_kind: int
    vertical_uncertainty: float

    @classmethod
    def decode(cls, payload: bytes) -> Report:
        valid, address, os_version, model, taken, present, bssid, *rest = REPORT_LAYOUT.unpack(
            payload
        )
        return cls(
            valid,
            str(ipaddress.IPv4Address(address)),
            os_version.split(b"\0", 1)[0].decode(),
            model.split(b"\0", 1)[0].decode(),
            taken,
            present,
            ":".join(f"{byte:02x}" for byte in bssid),
            *rest,
        )


class IpcClient:
    """A connection to the daemon; every wait has a deadline and ends in `TimeoutError`."""

    def __init__(self, path: Path | str, timeout: float = 5.0) -> None:
        self.timeout = timeout
        self._next_id = 1
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.settimeout(timeout)
        self.socket.connect(str(path))

    def __enter__(self) -> IpcClient:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        self.socket.close()

    def send(self, packet: bytes) -> None:
        self.socket.send(packet)

    def request(
        self,
        wanted_within: int = 60,
        *,
        request_id: int | None = None,
        frame_type: int = REQUEST,
        length: int | None = None,
        payload: bytes | None = None,
    ) -> int:
        """Asks for the location and returns the request's id; every field can be bent."""
        if request_id is None:
            request_id, self._next_id = self._next_id, self._next_id + 1
        if payload is None:
            payload = WANTED_WITHIN.pack(wanted_within).ljust(REQUEST_PAYLOAD_LENGTH, b"\0")
        stated = len(payload) if length is None else length
        frame = Frame(frame_type, stated, request_id, int(time.time()), 0, payload)
        self.send(frame.encode())
        return request_id

    def receive(self, timeout: float | None = None) -> Frame:
        """The next frame; `ConnectionError` when the daemon has closed."""
        packet = self.receive_packet(timeout)
        if not packet:
            raise ConnectionError("the daemon closed the connection")
        return Frame.decode(packet)

    def receive_packet(self, timeout: float | None = None) -> bytes:
        """The next packet as it came, empty when the daemon has closed."""
        self.socket.settimeout(self.timeout if timeout is None else timeout)
        return self.socket.recv(65536)

    def receive_report(self, timeout: float | None = None) -> Report:
        frame = self.receive(timeout)
        if frame.type != REPORT:
            raise ValueError(f"frame type {frame.type:#x} instead of a report")
        return Report.decode(frame.payload)

    def is_silent(self, seconds: float) -> bool:
        """True when nothing comes for that long."""
        return not select.select([self.socket], [], [], seconds)[0]
