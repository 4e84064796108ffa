"""The store under the daemon: killed in the middle, on a disk that is full, damaged byte by byte."""

from __future__ import annotations

import contextlib
import http.client
import os
import random
import shutil
import signal
import subprocess
import threading
import time
from collections.abc import Collection
from pathlib import Path

import pytest
from velm_harness.sample import Sample
from velm_sim.access_point import AccessPoint
from velm_sim.daemon import wait_until
from velm_sim.ipc_client import STATUS_NO_PAIRED_DEVICES, IpcClient
from velm_sim.phone import Phone, Profile

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


def pairing_names(
    settings: dict[str, str], limit: int = 10, cut_off: Collection[str] = ()
) -> set[str]:
    """The names of the pairings, each of which must be whole, but those of phones that had no answer."""
    names = set()
    for slot in range(limit):
        if settings.get(f"zelkad_pairing_{slot}_status") == "Valid":
            missing = [one for one in MEMBERS if not settings.get(f"zelkad_pairing_{slot}_{one}")]
            if not missing:
                names.add(settings[f"zelkad_pairing_{slot}_name"])
            elif "dev_id" not in missing:  # without one the slot is free
                assert settings[f"zelkad_pairing_{slot}_dev_id"] in cut_off, (slot, missing)
    return names


MOST_TRIED = 8  # pairings before they are forgotten; those of earlier rounds stay whole too


@pytest.mark.begun_first
def test_a_daemon_killed_at_any_instant_of_a_pairing_leaves_a_finished_commit(
    cold_access_point: AccessPoint, sample: Sample
) -> None:
    rounds = 500 if sample.whole else 40
    chance = random.Random(sample.seed)
    access_point = cold_access_point
    kept: set[str] = set()
    tried: set[str] = set()
    missed: list[str] = []
    cut_off: set[str] = set()  # device ids: of such a pairing, a part may have been set and lives on
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
            target=kill_in_time, args=(access_point, mark, aim, chance.random(), missed)
        )
        killer.start()
        status = 0
        with contextlib.suppress(*CUT_OFF):
            status = phone.send(request).status
        killer.join()
        wait_until(lambda: not daemon.alive(), 5, "not killed")
        if status != 200:
            cut_off.add(phone.profile.device_id)
        names = pairing_names(committed(access_point), cut_off=cut_off)
        # One that was written and not committed comes with a later commit.
        tried.add(name)
        assert kept <= names <= tried, (number, names)
        assert status != 200 or name in names, (number, "answered 200 and is not there")
        kept = names
        if len(tried) == MOST_TRIED:
            kept, tried = set(), set()
            forget_all(access_point)
        if number % 20 == 0:
            print(f"round {number}: {len(cut_off)} cut off")
    assert cut_off
    assert not missed


def kill_in_time(
    access_point: AccessPoint, mark: int, aim: float, part: float, missed: list[str]
) -> None:
    """Half of the times somewhere in the request, else while pairings are written and committed."""
    daemon = access_point.daemon
    if aim < 0.5:
        time.sleep(part * 0.02)
    else:
        written = "velm pairings [" if aim < 0.75 else "nvram_commit - start"
        try:
            daemon.wait_log(written, start=mark, timeout=5)
        except TimeoutError:
            missed.append(written)
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


class SmallStore:
    """A store of its own on a file system of a few KiB, in a mount namespace that lives as long."""

    def __init__(self, access_point: AccessPoint, kib: int) -> None:
        self.nvram = str(access_point.build.program("nvram"))
        place = access_point.directory / "small"
        place.mkdir()
        mount = f"mount -t tmpfs -o size={kib}k none '{place}' && echo && exec cat"
        self.keeper = subprocess.Popen(
            ["unshare", "--mount", "--propagation", "private", "sh", "-c", mount],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
        )
        assert self.keeper.stdout
        self.keeper.stdout.readline()
        self.place = Path(f"/proc/{self.keeper.pid}/root{place}")

    def __enter__(self) -> SmallStore:
        return self

    def __exit__(self, *_: object) -> None:
        self.keeper.communicate()

    def run(self, *arguments: str) -> int:
        environment = {"VELM_NVRAM": str(self.place)}
        done = subprocess.run([self.nvram, *arguments], env=environment, capture_output=True)
        assert done.returncode == 0 or b"No space left on device" in done.stderr, done.stderr
        assert b"unfinished" not in done.stderr
        assert b"damaged" not in done.stderr
        return done.returncode

    def show(self) -> dict[str, str]:
        environment = {"VELM_NVRAM": str(self.place)}
        shown = subprocess.run(
            [self.nvram, "show"], env=environment, capture_output=True, text=True, check=True
        )
        assert shown.stderr == ""
        return dict(line.split("=", 1) for line in shown.stdout.splitlines())

    def after_power_cut(self) -> dict[str, str]:
        """What the next boot would find."""
        live = self.place / "live"
        if not live.exists():  # a commit on a full disk has used it up
            return self.show()
        aside = self.place / "aside"
        live.rename(aside)
        found = self.show()
        aside.rename(live)
        return found

    def fill(self, length: int) -> dict[str, str]:
        """Sets values until no more fit."""
        number = 0
        while self.run("set", f"value{number:03}={chr(97 + number % 26) * length}") == 0:
            number += 1
        assert number > 1
        return self.show()


SIZES = [(64, 4000), (64, 700), (64, 9000), (128, 4000), (32, 3000)]


@pytest.mark.parametrize(("kib", "length"), SIZES)
def test_a_store_that_has_filled_its_disk_can_be_made_smaller_value_by_value(
    kib: int, length: int, cold_access_point: AccessPoint
) -> None:
    with SmallStore(cold_access_point, kib) as store:
        assert store.run("set", "base=1") == store.run("commit") == 0
        held = store.fill(length)
        for name in sorted(held)[:-1]:
            assert store.run("unset", name) == 0
            del held[name]
            assert store.show() == held
        assert store.run("set", f"again={'x' * length}") == 0
        assert store.run("commit") == 0
        assert store.after_power_cut() == {**held, "again": "x" * length}


@pytest.mark.parametrize(("kib", "length"), SIZES)
def test_a_store_that_has_filled_its_disk_goes_back_to_its_commit(
    kib: int, length: int, cold_access_point: AccessPoint
) -> None:
    with SmallStore(cold_access_point, kib) as store:
        assert store.run("set", "base=1") == store.run("commit") == 0
        store.fill(length)
        assert store.run("revert") == 0
        assert store.show() == {"base": "1"}
        assert store.run("set", f"again={'x' * length}") == store.run("commit") == 0
        assert store.after_power_cut() == {"base": "1", "again": "x" * length}


@pytest.mark.parametrize(("kib", "length"), SIZES)
def test_on_a_disk_that_others_have_filled_a_smaller_store_is_committed(
    kib: int, length: int, cold_access_point: AccessPoint
) -> None:
    """Where not a byte is free: a change, a commit, a way back, and all again with room."""
    with SmallStore(cold_access_point, kib) as store:
        length = min(length, kib * 1024 // 10)
        for values in ({"a": "1", "b": "2"}, {"a": "3", "b": "2"}):
            given = [f"{name}={value * length}" for name, value in values.items()]
            assert store.run("set", *given) == store.run("commit") == 0
        ballast = store.place / "ballast"
        with contextlib.suppress(OSError):
            ballast.write_bytes(bytes(kib * 1024))
        assert store.run("unset", "a") == 0
        assert store.show() == {"b": "2" * length}
        assert store.run("revert") == 0
        assert store.show() == {"a": "3" * length, "b": "2" * length}
        assert store.run("unset", "b") == 0
        assert store.run("commit") == 0
        assert store.after_power_cut() == {"a": "3" * length}
        ballast.unlink()
        assert store.run("set", "c=4") == store.run("commit") == 0
        assert store.after_power_cut() == {"a": "3" * length, "c": "4"}


@pytest.mark.parametrize(("kib", "length"), SIZES)
def test_on_a_full_disk_each_smaller_store_is_committed_after_a_single_commit(
    kib: int, length: int, cold_access_point: AccessPoint
) -> None:
    """Of four values one goes at a time: what that frees is no room for a second copy."""
    with SmallStore(cold_access_point, kib) as store:
        length = min(length, kib * 1024 // 16)
        held = {name: name * length for name in "abcd"}
        given = [f"{name}={value}" for name, value in held.items()]
        assert store.run("set", *given) == store.run("commit") == 0
        ballast = store.place / "ballast"
        with contextlib.suppress(OSError):
            ballast.write_bytes(bytes(kib * 1024))
        for name in "abcd":
            del held[name]
            assert store.run("unset", name) == 0
            assert store.run("commit") == 0
            assert store.show() == held
            assert store.after_power_cut() == held
        ballast.unlink()
        assert store.run("set", "e=5") == store.run("commit") == 0
        assert store.after_power_cut() == {"e": "5"}


def fill_around(access_point: AccessPoint, store: Path) -> list[str]:
    """Fills the disk of a running daemon to the last bytes; the names of what it was filled with."""
    with contextlib.suppress(OSError):
        (store / "ballast").write_bytes(bytes(1 << 17))
    names: list[str] = []
    environment = {"VELM_NVRAM": str(store)}
    while True:
        name = f"filler{len(names):014}"
        if access_point.nvram("set", f"{name}=1", environment=environment).returncode != 0:
            return names
        names.append(name)


def test_a_daemon_sees_what_others_made_smaller_on_a_full_disk(
    cold_access_point: AccessPoint, small_disk: Path
) -> None:
    access_point = cold_access_point
    environment = {"VELM_NVRAM": str(small_disk)}
    names = fill_around(access_point, small_disk)
    assert access_point.phone().info().status == 200
    assert access_point.nvram("unset", *names, environment=environment).returncode == 0
    before = settings_of(access_point, small_disk)
    (small_disk / "ballast").unlink()
    assert access_point.phone().pair().status == 200
    after = settings_of(access_point, small_disk)
    assert {k: v for k, v in after.items() if not k.startswith("zelkad_pairing_")} == before


def test_a_pairing_that_the_disk_cuts_off_is_answered_with_500_and_leaves_its_slot_free(
    cold_access_point: AccessPoint, small_disk: Path
) -> None:
    access_point = cold_access_point
    names = fill_around(access_point, small_disk)
    # Room for the status of a slot and for no more.
    environment = {"VELM_NVRAM": str(small_disk)}
    assert access_point.nvram("unset", *names[-3:], environment=environment).returncode == 0
    phone = access_point.phone()
    assert phone.pair().status == 500
    assert "http_method_pair_handle - not stored: " in access_point.log()
    assert settings_of(access_point, small_disk)["zelkad_pairing_0_status"] == "Invalid"
    assert phone.pairings().json() == {"pairings": []}
    (small_disk / "ballast").unlink()
    assert phone.pair().status == 200
    assert phone.location().status == 200


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


def test_a_root_that_may_give_no_file_away_sets_and_commits_all_the_same(
    cold_access_point: AccessPoint,
) -> None:
    store = cold_access_point.directory / "nvram"
    shutil.chown(store, 65534, 65534)
    store.chmod(0o777)
    without = ["setpriv", "--bounding-set=-chown", "--inh-caps=-chown"]
    environment = {
        **os.environ,
        **cold_access_point.environment,
        **cold_access_point.build.environment(cold_access_point.directory),
    }
    program = str(cold_access_point.build.program("nvram"))
    for arguments in (["set", "a=b"], ["commit"]):
        done = subprocess.run([*without, program, *arguments], env=environment, timeout=30)
        assert done.returncode == 0
    assert "a=b" in cold_access_point.nvram_show().splitlines()
