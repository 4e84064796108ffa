"""Whatever strangers send, as fast as they can: the others are served promptly, in bounded memory.

`--every-fault` strikes for half a minute each, else it is a moment.
"""

from __future__ import annotations

import contextlib
import time
from collections.abc import Callable

import pytest
from velm_harness import stranger
from velm_harness.promptness import PROMPT, assert_prompt, latencies
from velm_harness.sample import Sample
from velm_harness.watched_memory import Watched
from velm_sim.access_point import AccessPoint
from velm_sim.lan_http import LanHost

# What the connections of one host may add to the daemon's memory without a login.
ONE_HOST_KIB = 464  # 64 of it at the end of the heap, kept for the next one
PHONE = 8  # the number of a host that does nothing wrong


@pytest.fixture
def duration(sample: Sample) -> float:
    return 30.0 if sample.whole else 1.5


def struck(
    access_point: AccessPoint, deeds: list[tuple[str, LanHost]], seconds: float
) -> tuple[list[float], list[float], int]:
    """How long `/info` took before and meanwhile, and by how much memory grew."""
    with access_point.lan_host(PHONE).session() as session:
        session.connect()
        control = latencies(access_point.daemon, session, 30)
        with Watched(access_point.daemon.resident_kib) as memory:
            with stranger.at_work_together(deeds, seconds + 1):
                end = time.monotonic() + seconds
                taken = []
                while time.monotonic() < end:
                    taken += latencies(access_point.daemon, session, 10)
    return control, sorted(taken), memory.growth


def check(
    access_point: AccessPoint,
    deeds: list[tuple[str, LanHost]],
    seconds: float,
    record_property: Callable[[str, object], None],
) -> None:
    control, taken, growth = struck(access_point, deeds, seconds)
    record_property("control", control[-1])
    record_property("worst", taken[-1])
    record_property("growth", growth)
    assert_prompt(taken, control, access_point.build.time_limit(PROMPT))
    assert growth < access_point.build.memory_limit_kib(ONE_HOST_KIB)


@pytest.mark.parametrize("deed", stranger.DEEDS)
def test_the_others_are_served_promptly_while_a_stranger_sends(
    deed: str,
    access_point: AccessPoint,
    duration: float,
    record_property: Callable[[str, object], None],
) -> None:
    check(access_point, [(deed, access_point.lan_host())], duration, record_property)


def test_the_others_are_served_promptly_while_four_hosts_send_the_dearest_greeting(
    access_point: AccessPoint, duration: float, record_property: Callable[[str, object], None]
) -> None:
    deeds = [("replayed greetings", access_point.lan_host(number)) for number in range(4)]
    check(access_point, deeds, duration, record_property)


def test_the_kernel_holds_at_most_32_kib_each_way_of_a_connection(
    access_point: AccessPoint,
) -> None:
    """Requests that nobody reads the answers of, pipelined for as long as the kernel takes them."""
    connections = [access_point.lan_host().connect_tls() for _ in range(8)]
    for tls in connections:
        tls.setblocking(False)
    most = [0, 0]
    begun = time.monotonic()
    while time.monotonic() < begun + (2.5 if min(most) > 4096 else 20):  # a busy machine begins late
        for tls in connections:
            with contextlib.suppress(OSError):  # it takes no more, or is closed
                tls.send(b"GET /info HTTP/1.1\r\nHost: x\r\n\r\n" * 200)
        for queues in access_point.daemon.https_queues():
            most = [max(pair) for pair in zip(most, queues)]
    for tls in connections:
        tls.close()
    assert 4096 < most[0] <= 32 * 1024, "to be sent"
    assert 4096 < most[1] <= 32 * 1024, "to be read"


def test_who_sends_records_without_data_is_closed_and_the_log_says_so(
    access_point: AccessPoint,
) -> None:
    mark = access_point.daemon.log_mark()
    with stranger.at_work_together([("key updates", access_point.lan_host())], 5):
        access_point.daemon.wait_log(
            "too many TLS records without data: 192.168.1.50", start=mark
        )


def refusals() -> dict[str, tuple[bytes, str]]:
    post = b"POST /pair HTTP/1.1\r\n"
    return {
        "413": (post + b"Content-Length: 8193\r\n\r\n", "body too long"),
        "414": (b"GET /" + b"a" * 9000 + b" HTTP/1.1\r\n\r\n", "uri too long"),
        "431": (b"GET / HTTP/1.1\r\n" + b"A: b\r\n" * 101 + b"\r\n", "too many headers"),
        "400": (post + b"Content-Length: 1\r\nContent-Length: 1\r\n\r\n", "more than one length"),
        "501": (post + b"Transfer-Encoding: gzip\r\n\r\n", "unknown transfer encoding"),
        "": (b"no http at all\r\n\r\n", "the parser takes it for no request"),
    }


def test_each_refusal_before_a_route_is_one_line_with_its_reason_and_address(
    access_point: AccessPoint,
) -> None:
    for status, (request, reason) in refusals().items():
        mark = access_point.daemon.log_mark()
        answer = access_point.lan_host(3).exchange(request)
        assert answer[9:12].decode() == status
        access_point.daemon.wait_log(reason, start=mark)
        lines = [line for line in access_point.daemon.log(mark).splitlines() if " WARN " in line]
        assert len(lines) == 1 and reason in lines[0] and lines[0].endswith("192.168.1.53"), lines
