"""Does the local client speak the byte order of the device, whatever this machine's is?"""

from __future__ import annotations

from pathlib import Path

import pytest
from velm_sim.ipc_client import HEADER, REQUEST, DeviceStruct, Frame, follow_device

HEADS = {
    "little": (b"\x7fELF\x02\x01", bytes.fromhex("0010 0200 07000000 08000000 09000000")),
    "big": (b"\x7fELF\x02\x02", bytes.fromhex("1000 0002 00000007 00000008 00000009")),
}


@pytest.fixture(autouse=True)
def order(monkeypatch: pytest.MonkeyPatch) -> None:
    """What a test chooses ends with it."""
    monkeypatch.setattr(DeviceStruct, "order", "=")


@pytest.mark.parametrize("name", HEADS)
def test_frames_are_in_the_order_of_the_program(name: str, tmp_path: Path) -> None:
    program, packed = HEADS[name]
    (tmp_path / "velmd").write_bytes(program + bytes(10))
    follow_device(tmp_path / "velmd")
    frame = Frame(REQUEST, 2, 7, 8, 9, b"ab")
    assert frame.encode() == packed + b"ab"
    assert Frame.decode(packed + b"ab") == frame


def test_what_is_no_program_changes_nothing(tmp_path: Path) -> None:
    before = HEADER.pack(1, 2, 3, 4, 5)
    (tmp_path / "velmd").write_text("#!/bin/sh\n")
    follow_device(tmp_path / "velmd")
    assert HEADER.pack(1, 2, 3, 4, 5) == before
