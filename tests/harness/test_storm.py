"""The schedule of a storm comes from its seed alone, and its model sees what is wrong."""

from __future__ import annotations

import itertools
import os
import subprocess
import sys
import time
from pathlib import Path
from types import SimpleNamespace
from typing import cast

import pytest
from velm_harness.storm.log import LogReader
from velm_harness.storm.model import DELETED_KEYS, Model
from velm_harness.storm.run import Outcome, steps_from, write_junit
from velm_harness.storm.schedule import KINDS, PAIRINGS_LIMIT, schedule
from velm_harness.storm.steps import STEPS
from velm_harness.storm.world import World

REPOSITORY = Path(__file__).resolve().parents[2]


def dry_run(seed: int) -> str:
    command = [sys.executable, "-B", "-m", "velm_harness.storm", str(seed), "0", "--dry-run"]
    environment = {**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)}
    done = subprocess.run(
        command, env=environment, capture_output=True, text=True, timeout=60, check=True
    )
    return done.stdout


def test_the_same_seed_gives_the_same_schedule() -> None:
    first = dry_run(7)
    assert first.count("\n") == 200
    assert dry_run(7) == first


def test_another_seed_gives_another_schedule() -> None:
    assert dry_run(7) != dry_run(8)


def test_a_storm_can_begin_in_the_middle_of_a_schedule() -> None:
    whole = list(itertools.islice(schedule(7), 60))
    assert list(itertools.islice(steps_from(7, 51), 10)) == whole[50:]


def test_every_kind_of_step_can_be_performed_and_comes() -> None:
    drawn = {step.kind for step in itertools.islice(schedule(1), 2000)}
    assert drawn == {kind for kind, _, _ in KINDS} == set(STEPS)


@pytest.fixture
def model() -> Model:
    return Model(moment=1_000_000)


def described(number: int) -> dict[str, str]:
    members = ("dev_type", "name", "push_token", "dev_model", "os_version")
    return {"dev_id": f"phone {number}", **dict.fromkeys(members, f"of {number}")}


@pytest.mark.parametrize(("age", "accepted"), [(60, True), (61, False)])
def test_a_challenge_is_taken_for_a_minute_and_once(
    age: int, accepted: bool, model: Model
) -> None:
    model.challenges["c"] = model.moment
    model.moment += age
    assert [model.consume("c"), model.consume("c")] == [accepted, False]


def test_a_pairing_keeps_its_slot_and_date_and_a_deleted_slot_is_used_again(model: Model) -> None:
    for number in range(PAIRINGS_LIMIT):
        model.store(described(number), attested=number == 0)
    assert not model.may_pair("phone 9") and model.may_pair("phone 0")
    first = dict(model.slots[0] or {})
    model.moment += 100
    model.store({**described(0), "name": "other"}, attested=False)
    assert model.slots[0] == {**first, "name": "other"}
    assert model.holds_key_of("phone 0") and not model.holds_key_of("phone 1")
    assert model.delete("phone 0")
    assert model.slots[0] == {"status": "Invalid", **dict.fromkeys(DELETED_KEYS, "")}
    model.store(described(9), attested=False)
    assert model.find("phone 9") == 0


def test_a_key_in_the_slot_leaves_no_other_proof(model: Model) -> None:
    model.store(described(0), attested=False)
    assert not model.proved_by_app_attest("phone 0")
    model.change(0, "attestation_key", "spoilt")
    assert model.proved_by_app_attest("phone 0") and not model.holds_key_of("phone 0")


def test_pushes_are_a_minute_apart_and_a_reload_forgets_the_last(model: Model) -> None:
    assert not model.asks_for_push()  # nobody is paired
    model.store(described(0), attested=True)
    assert model.asks_for_push()
    model.moment += 59
    assert not model.asks_for_push()
    model.moment += 1
    assert model.asks_for_push() and not model.asks_for_push()
    model.moment -= 1  # the last push lies in the future, so it was long ago
    assert model.asks_for_push()
    model.reload()
    assert model.asks_for_push()


PAIRED = [f"of {number}" for number in range(3)]  # by their push tokens


@pytest.fixture
def pushing(model: Model) -> Model:
    for number in range(3):
        model.store(described(number), attested=True)
    model.expect_pushes()
    return model


def test_a_phone_that_is_unpaired_before_its_push_is_due_gets_none(pushing: Model) -> None:
    assert pushing.pushes == PAIRED
    pushing.delete("phone 1")
    assert (pushing.pushes, pushing.perhaps) == ([PAIRED[0], PAIRED[2]], {})


def test_a_push_goes_to_the_token_that_the_slot_holds_when_it_is_due(pushing: Model) -> None:
    pushing.store({**described(2), "push_token": "new"}, attested=True)
    pushing.change(1, "push_token", "newer")
    assert (pushing.pushes, pushing.perhaps) == ([PAIRED[0], "newer", "new"], {})


def test_at_the_moment_when_it_is_due_both_are_possible(pushing: Model) -> None:
    pushing.due[0] = 0.0  # of the real clock: long ago
    pushing.change(0, "push_token", "new")
    assert pushing.pushes == PAIRED[1:]
    assert pushing.perhaps == {PAIRED[0]: 1, "new": 1}


def test_a_push_that_has_come_is_not_changed_any_more(pushing: Model) -> None:
    assert pushing.pushes.pop(0) == PAIRED[0]
    pushing.change(0, "push_token", "new")
    assert (pushing.pushes, pushing.perhaps) == (PAIRED[1:], {})


def test_a_phone_that_takes_the_slot_of_another_before_it_is_due_may_get_the_push(
    pushing: Model,
) -> None:
    pushing.delete("phone 1")
    for number in (0, 2):
        assert pushing.pushes.pop(0) == PAIRED[number]
        pushing.push_came(PAIRED[number])
    assert pushing.may_push() and set(pushing.due) == {1}
    pushing.store(described(9), attested=True)
    assert (pushing.find("phone 9"), pushing.pushes, pushing.perhaps) == (1, [], {"of 9": 1})
    pushing.push_came("of 9")
    assert not pushing.due


@pytest.mark.parametrize("left", [True, False], ids=["a slot is left", "all pushes came"])
def test_the_clock_waits_for_the_push_of_a_slot_that_its_phone_left(
    left: bool, pushing: Model
) -> None:
    if left:
        pushing.delete("phone 1")
    else:
        pushing.push_came(PAIRED[1])
    for number in (0, 2):
        pushing.push_came(PAIRED[number])
    pushing.pushes.clear()
    begin = time.monotonic()
    world = SimpleNamespace(model=pushing, see_pushes=lambda: None, address="192.168.1.1",
                            cloud=SimpleNamespace(open_connections=0))  # fmt: skip
    world.perhaps_until = begin + 0.2
    World.drain(cast(World, world))
    assert (time.monotonic() >= world.perhaps_until) == left
    assert not pushing.may_push()


@pytest.mark.parametrize(("later", "asked"), [(3599, False), (3600, True), (-1, True)])
def test_google_is_left_alone_for_an_hour(later: int, asked: bool, model: Model) -> None:
    assert model.asks_google()
    model.google_exhausted = True
    model.moment += later
    assert model.asks_google() == asked


def test_the_log_is_read_once_and_waited_for_from_the_mark(tmp_path: Path) -> None:
    path = tmp_path / "log"
    path.write_text("one\ntwo\nthr")
    reader = LogReader(path)
    assert reader.read() == ["one", "two"]
    reader.mark()
    with path.open("a") as file:
        file.write("ee\none\n")
    reader.wait("one", 1, timeout=0)
    with pytest.raises(AssertionError, match="2 log lines 'one'"):
        reader.wait("one", 2, timeout=0)
    assert reader.unchecked == ["one", "two", "three", "one"]
    reader.begin_step()
    assert (reader.step, reader.tail) == ([], ["one", "two", "three", "one"])


def test_a_log_that_is_begun_anew_is_read_to_its_end_first(tmp_path: Path) -> None:
    path = tmp_path / "log"
    path.write_text("one\n")
    reader = LogReader(path)
    assert reader.read() == ["one"]
    with path.open("a") as file:
        file.write("two\n")
    path.rename(tmp_path / "log.1")
    assert reader.read() == ["one", "two"]
    path.write_text("three\n")
    assert reader.read() == ["one", "two", "three"]
    reader.close()


@pytest.mark.parametrize(
    ("problem", "summed"), [("", "1 passed, 0 failed"), ("a \x1b[0m\x00", "0 passed, 1 failed")]
)
def test_the_outcome_counts_in_the_sum_of_results(
    problem: str, summed: str, tmp_path: Path
) -> None:
    write_junit(tmp_path / "storm-1.xml", Outcome(1, problem=problem))
    script = REPOSITORY / "scripts" / "sum-results.py"
    done = subprocess.run([sys.executable, script, tmp_path], capture_output=True, text=True)
    assert done.stdout.strip() == summed
