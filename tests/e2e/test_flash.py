"""How often is the flash written that has the store?"""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import pytest
from velm_harness.written_files import WrittenFiles
from velm_sim.access_point import AccessPoint
from velm_sim.cloud import Cloud
from velm_sim.ipc_client import IpcClient
from velm_sim.phone import Phone, sample_location

HOUR = 3600


@pytest.fixture
def store(access_point: AccessPoint) -> Path:
    return access_point.directory / "nvram"


@pytest.fixture
def written(store: Path) -> Iterator[WrittenFiles]:
    with WrittenFiles(store) as watched:
        yield watched


def assert_one_commit(written: WrittenFiles) -> Path:
    """The live file was appended to, and one commit was made, in this file."""
    changes = written.take()
    (commit,) = [change.file for change in changes if change.what == "moved here"]
    assert commit in ("committed.0", "committed.1")
    assert {change.file for change in changes} == {"live", commit, f"{commit}.tmp"}
    return Path(commit)


@pytest.mark.parametrize("kind", ["iPhone", "Android"])
def test_a_pairing_writes_its_texts_and_one_commit(
    kind: str, access_point: AccessPoint, store: Path, written: WrittenFiles
) -> None:
    phone = access_point.phone() if kind == "iPhone" else access_point.android_phone()
    before = (store / "live").stat().st_size
    assert phone.pair().status == 200
    commit = (store / assert_one_commit(written)).stat().st_size
    texts = (store / "live").stat().st_size - before
    print(f"{kind}: {texts} bytes of texts, a commit of {commit} bytes")
    assert 0 < texts < 1024
    assert texts < commit < before + texts
    assert phone.pair().status == 200  # again, with the same texts
    assert written.take() == []
    assert phone.unpair().status == 200
    assert_one_commit(written)


def test_a_round_writes_nothing(
    access_point: AccessPoint,
    written: WrittenFiles,
    cloud: Cloud,
    paired_phone: Phone,
    ipc: IpcClient,
) -> None:
    assert written.take()
    for _ in range(3):
        ipc.request()
        assert paired_phone.location(sample_location()).status == 200
        assert ipc.receive_report().valid == 1
    cloud.fcm.wait(1)
    assert written.take() == []
    access_point.nvram_set({"wl2_maxssid": "1"})
    assert written.take()


@pytest.mark.movable_clock
def test_a_day_of_idleness_writes_nothing(
    access_point: AccessPoint, written: WrittenFiles, paired_phone: Phone
) -> None:
    """The daemon is asked once per hour, so that it sees the time go by."""
    assert written.take()
    for hour in range(1, 25):
        access_point.move_clock(hour * HOUR)
        assert paired_phone.host.request("/info").status == 200
    assert written.take() == []
    access_point.nvram_set({"wl2_maxssid": "1"})
    assert written.take()
