"""How promptly requests are answered, compared with the same requests when nothing else goes on."""

from __future__ import annotations

import contextlib
import threading
import time
from collections.abc import Iterator

from velm_sim.daemon import Daemon
from velm_sim.lan_http import LanHost, Session

PROMPT = 0.05
SAMPLES = 60


def seconds_without_a_core(task: str) -> float:
    """How long that task of /proc has been ready to run while others had the cores, since its start."""
    with open(f"/proc/{task}/schedstat", encoding="ascii") as file:
        return int(file.read().split()[1]) / 1e9


def latencies(
    daemon: Daemon, session: Session, count: int = SAMPLES, pause: float = 0.02
) -> list[float]:
    """Seconds that `/info` took, that many times, the shortest first. When the daemon or the one who
    asks has to wait for a core of a busy machine, that time does not count."""

    def waited() -> float:
        return seconds_without_a_core(str(daemon.pid)) + seconds_without_a_core("thread-self")

    taken = []
    for _ in range(count):
        waited_before, start = waited(), time.monotonic()
        if session.request("/info").status != 200:
            raise AssertionError("/info was not answered with 200")
        took = time.monotonic() - start
        taken.append(max(0.0, took - (waited() - waited_before)))
        time.sleep(pause)
    return sorted(taken)


def assert_prompt(taken: list[float], control: list[float], prompt: float = PROMPT) -> None:
    """Within 50 ms, or `prompt`, but for what the machine takes away from any request: `control`, the same
    requests a moment ago with nothing going on, tells how much that is. A loop that waits for
    somebody would wait for as long in each request, or once for seconds."""
    assert taken[len(taken) // 2] < prompt + control[len(control) // 2], (control, taken)
    assert taken[-1 - len(taken) // 20] < prompt + control[-1], (control[-5:], taken[-5:])
    assert taken[-1] < 1 + control[-1], (control[-5:], taken[-5:])


@contextlib.contextmanager
def prompt_meanwhile(daemon: Daemon, host: LanHost) -> Iterator[None]:
    """`/info` is answered promptly all the time that the block takes."""
    taken: list[float] = []
    over = threading.Event()
    failures: list[Exception] = []

    def ask() -> None:
        try:
            while not over.is_set():
                taken.extend(latencies(daemon, session, 5))
        except Exception as failure:  # told by the thread that waits for this one
            failures.append(failure)

    with host.session() as session:
        session.connect()
        control = latencies(daemon, session)
        asking = threading.Thread(target=ask)
        asking.start()
        try:
            yield
        finally:
            over.set()
            asking.join()
    if failures:
        raise failures[0]
    assert_prompt(sorted(taken), control)
