"""What is held against the model after each step of a storm."""

from __future__ import annotations

import re

from velm_sim.ipc_client import REPORT, REQUEST, STATUS_NO_PAIRED_DEVICES, Frame, Report

from .log import ERROR, require
from .model import DELETED_KEYS, GIVEN, Expected
from .schedule import PAIRINGS_LIMIT
from .steps import check_descriptors
from .world import World

MEMBERS = ("status", *DELETED_KEYS)


def check(world: World) -> None:
    require(world.daemon.alive(), "the daemon is alive")
    world.daemon.build.judge(world.daemon.directory)
    check_clients(world)
    check_nvram(world)
    check_cloud(world)
    check_descriptors(world)
    check_log(world)


def check_clients(world: World) -> None:
    """Each client has what it must have, in order, and nothing else."""
    for number, client in world.clients.items():
        queue = world.model.queues[number]
        while any(expected.certain for expected in queue):
            _match(world, number, client.receive(5.0))
        while not client.is_silent(0):
            _match(world, number, client.receive(5.0))


def _match(world: World, number: int, frame: Frame) -> None:
    queue = world.model.queues[number]
    while queue:
        expected = queue.popleft()
        if _is(world, frame, expected):
            return
        require(not expected.certain, f"client {number} receives {expected}, not {frame}")
    require(False, f"client {number} receives nothing, not {frame}")


def _is(world: World, frame: Frame, expected: Expected) -> bool:
    if expected.latitude is None:
        return (frame.type, frame.status) == (REQUEST, STATUS_NO_PAIRED_DEVICES)
    if frame.type != REPORT or frame.status != 0:
        return False
    report, phone = Report.decode(frame.payload), world.phones[expected.phone]
    return (
        report.valid == 1
        and report.latitude == expected.latitude
        and report.rssi == expected.rssi
        and report.phone_ip == phone.host.source
        and report.phone_model == phone.profile.model
        and report.bssid == phone.bssid.lower()
    )


def check_nvram(world: World) -> None:
    """The pairings stand in nvram as they were accepted, field by field."""
    held = dict(line.partition("=")[::2] for line in world.access_point.nvram_show().splitlines())
    for slot in range(PAIRINGS_LIMIT):
        expected = world.model.slots[slot]
        for member in MEMBERS:
            name = f"zelkad_pairing_{slot}_{member}"
            found = held.get(name)
            if expected is None:
                require(found is None, f"{name} is not there, not {found!r}")
                continue
            wanted = expected[member]
            if wanted == GIVEN:
                require(found and len(found) > 60, f"{name} is a key, not {found!r}")
            else:
                shown = wanted.replace("\\", "\\\\")
                require(found == shown, f"{name} is {shown!r}, not {found!r}")


def check_cloud(world: World) -> None:
    """The cloud was asked as often as it had to be, and never wrongly."""
    model, cloud = world.model, world.cloud
    world.see_pushes()
    for what, endpoint, expected in (
        ("access tokens", cloud.token, model.token_requests),
        ("verdicts", cloud.integrity, model.integrity_requests),
        ("nothing known", cloud.unknown, 0),
    ):
        asked = len(endpoint.requests)
        require(asked == expected, f"the cloud is asked {expected} times for {what}, not {asked}")
    require(not cloud.refusals, f"no grant is refused, not {cloud.refusals}")


def check_log(world: World) -> None:
    """No ERROR but what this step or the one before, which may still echo, accounts for."""
    world.log.read()
    lines, world.log.unchecked = world.log.unchecked, []
    for line in lines:
        if ERROR.search(line):
            allowed = (*world.allowed, *world.allowed_before)
            known = any(re.search(pattern, line) for pattern in allowed)
            require(known, f"no such line in the log: {line[:200]} ... {line[-60:]}")
