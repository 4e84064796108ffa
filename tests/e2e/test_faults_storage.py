"""The store under the daemon: killed in the middle, on a disk that is full, damaged byte by byte."""

from __future__ import annotations

import contextlib
import http.client
import random
import shutil
import signal
import subprocess
import threading
import time
from pathlib import Path

import pytest
from velm_sim.access_point import AccessPoint
from velm_sim.daemon import wait_until
from velm_sim.ipc_client import STATUS_NO_PAIRED_DEVICES, IpcClient
from velm_sim.phone import Phone, Profile
from velm_sim.sample import Sample

MEMBERS = ("dev_id", "name", "push_token", "attestation_key")
CUT_OFF = (OSError, RuntimeError, ValueError, http.client.HTTPException)


def committed(access_point: AccessPoint) -> dict[str, str]:
    """What a power cut would leave; the store itself stays as it is."""
    copy = access_point.directory / "nvram-copy"
    shutil.rmtree(copy, ignore_errors=True)
    shutil.copytree(access_point.directory / "nvram", copy)
    seen = {}
    for is_live in (True, False):
        if not is_live:
            (copy / "live").unlink(missing_ok=True)
        shown = access_point.nvram("show", environment={"VELM_NVRAM": str(copy)})
        assert shown.returncode == 0
        # The end of a record that a killed writer left is told, and left out.
        assert "damaged" not in shown.stderr
        seen = dict(line.split("=", 1) for line in shown.stdout.splitlines())
    return seen


def pairing_names(settings: dict[str, str], limit: int = 10) -> set[str]:
    """The names of the committed pairings, each of which must be whole."""
    names = set()
    for slot in range(limit):
        if settings.get(f"zelkad_pairing_{slot}_status") == "Valid":
            for member in MEMBERS:
                assert settings[f"zelkad_pairing_{slot}_{member}"], (slot, member)
            names.add(settings[f"zelkad_pairing_{slot}_name"])
    return names


@pytest.mark.begun_first
def test_a_daemon_killed_at_any_instant_of_a_pairing_leaves_a_finished_commit(
    cold_access_point: AccessPoint, sample: Sample
) -> None:
    rounds = 500 if sample.whole else 40
    chance = random.Random(sample.seed)
    access_point = cold_access_point
    kept: set[str] = set()
    cut = 0
    for number in range(rounds):
        daemon = access_point.start()
        name = f"Round {number}"
        phone = access_point.phone(profile=Profile(name=name))
        phone.host.timeout = 5
        request = phone.prepare_pair()
        # The commit is in the last of some 15 ms; half of the rounds aim at the store itself.
        aim = chance.random()
        mark = daemon.log_mark()
        killer = threading.Thread(
            target=kill_in_time, args=(access_point, mark, aim, chance.random())
        )
        killer.start()
        status = 0
        with contextlib.suppress(*CUT_OFF):
            status = phone.send(request).status
        killer.join()
        wait_until(lambda: not daemon.alive(), 5, "not killed")
        cut += status != 200
        names = pairing_names(committed(access_point))
        assert kept <= names <= kept | {name}, (number, names)
        assert status != 200 or name in names, (number, "answered 200 and is not there")
        kept = set()
        forget_all(access_point)
        if number % 20 == 0:
            print(f"round {number}: {cut} cut off")
    assert 0 < cut


def kill_in_time(access_point: AccessPoint, mark: int, aim: float, part: float) -> None:
    """Half of the times somewhere in the request, else while pairings are written and committed."""
    daemon = access_point.daemon
    if aim < 0.5:
        time.sleep(part * 0.02)
    else:
        with contextlib.suppress(TimeoutError):
            daemon.wait_log("insert_pairing" if aim < 0.75 else "nvram_commit - start",
                            start=mark, timeout=2)  # fmt: skip
        time.sleep(part * 0.004)
    daemon.kill(signal.SIGKILL)


def forget_all(access_point: AccessPoint) -> None:
    """No pairing is left for the next round."""
    names = [
        line.partition("=")[0]
        for line in access_point.nvram_show().splitlines()
        if line.startswith("zelkad_pairing_")
    ]
    if names:
        assert access_point.nvram("unset", *names).returncode == 0
    assert access_point.nvram("commit").returncode == 0


@pytest.fixture
def small_disk(cold_access_point: AccessPoint) -> Path:
    """The daemon alone sees its store on a file system of 64 KiB."""
    access_point = cold_access_point
    store = access_point.directory / "nvram"
    mount = (
        f"mv '{store}' '{store}.before' && mkdir '{store}' && "
        f"mount -t tmpfs -o size=64k none '{store}' && cp '{store}.before'/* '{store}' && "
        'exec "$@"'
    )
    daemon = access_point.prepare(through=["/bin/sh", "-c", mount, "sh"])
    daemon.start()
    daemon.wait_until_serving()
    # Seen through the daemon: the mount is in its namespace only.
    return Path(f"/proc/{daemon.pid}/root{store}")


def test_on_a_full_disk_of_64_kib_it_serves_and_takes_pairings_again_when_there_is_room(
    cold_access_point: AccessPoint, small_disk: Path
) -> None:
    access_point = cold_access_point
    assert access_point.phone(0).pair().status == 200
    ballast = small_disk / "ballast"
    with contextlib.suppress(OSError):
        ballast.write_bytes(bytes(1 << 17))
    late = access_point.phone(1, Profile(name="Late"))
    # The store tells no errors to the daemon: it answers as if all were well.
    assert late.pair().status == 200
    assert "cannot" in (access_point.directory / "stdout").read_text()
    assert access_point.phone(0).info().status == 200
    assert committed_on(small_disk, access_point) == {"Anna's iPhone"}
    ballast.unlink()
    assert late.pair().status == 200
    assert committed_on(small_disk, access_point) == {"Anna's iPhone", "Late"}


def committed_on(store: Path, access_point: AccessPoint) -> set[str]:
    copy = access_point.directory / "disk-copy"
    shutil.rmtree(copy, ignore_errors=True)
    copy.mkdir()
    for name in ("committed.0", "committed.1"):
        if (store / name).exists():
            shutil.copy(store / name, copy)
    shown = access_point.nvram("show", environment={"VELM_NVRAM": str(copy)})
    assert (shown.returncode, shown.stderr) == (0, "")
    return pairing_names(dict(line.split("=", 1) for line in shown.stdout.splitlines()))


@pytest.mark.begun_first
def test_a_store_with_any_byte_damaged_is_read_as_a_state_that_was(
    access_point: AccessPoint, paired_phone: Phone, sample: Sample
) -> None:
    store = access_point.directory / "nvram"
    copy = access_point.directory / "damaged"
    shutil.copytree(store, copy)
    whole = settings_of(access_point, copy)
    before = {name: value for name, value in whole.items() if "pairing" not in name}
    for name in ("live", "committed.0", "committed.1"):
        good = (store / name).read_bytes()
        for at in sample.of(range(len(good)), 41):
            (copy / name).write_bytes(good[:at] + bytes([good[at] ^ 0x55]) + good[at + 1 :])
            seen = settings_of(access_point, copy)
            rest = {key: value for key, value in seen.items() if "pairing" not in key}
            # Of the commits, of which one is enough; of the live file, what stood before the byte.
            assert rest == before, (name, at)
            assert name == "live" or seen == whole, (name, at)
        (copy / name).write_bytes(good)


def settings_of(access_point: AccessPoint, store: Path) -> dict[str, str]:
    shown: subprocess.CompletedProcess[str] = access_point.nvram(
        "show", environment={"VELM_NVRAM": str(store)}
    )
    assert shown.returncode == 0
    return dict(line.split("=", 1) for line in shown.stdout.splitlines())


def test_a_daemon_whose_store_is_damaged_throughout_serves_without_pairings(
    cold_access_point: AccessPoint,
) -> None:
    access_point = cold_access_point
    for name in ("live", "committed.0", "committed.1"):
        (access_point.directory / "nvram" / name).write_bytes(b"garbage")
    access_point.start()
    assert access_point.phone().info().status == 200
    with IpcClient(access_point.socket_path) as ipc:
        ipc.request()
        assert ipc.receive().status == STATUS_NO_PAIRED_DEVICES
    assert "no good copy is left" in (access_point.directory / "stdout").read_text()
