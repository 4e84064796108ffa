"""How promptly requests are answered, compared with the same requests when nothing else goes on."""

from __future__ import annotations

import contextlib
import threading
import time
from collections.abc import Iterator

from velm_sim.lan_http import LanHost, Session

PROMPT = 0.05
SAMPLES = 60


def latencies(session: Session, count: int = SAMPLES) -> list[float]:
    """Seconds that `/info` took, that many times, the shortest first."""
    taken = []
    for _ in range(count):
        start = time.monotonic()
        if session.request("/info").status != 200:
            raise AssertionError("/info was not answered with 200")
        taken.append(time.monotonic() - start)
        time.sleep(0.02)
    return sorted(taken)


def assert_prompt(taken: list[float], control: list[float]) -> None:
    """Within 50 ms, but for what the machine takes away from any request: `control`, the same
    requests a moment ago with nothing going on, tells how much that is. A loop that waits for
    somebody would wait for as long in each request, or once for seconds."""
    assert taken[len(taken) // 2] < PROMPT + control[len(control) // 2], (control, taken)
    assert taken[-1 - len(taken) // 20] < PROMPT + control[-1], (control[-5:], taken[-5:])
    assert taken[-1] < 1 + control[-1], (control[-5:], taken[-5:])


@contextlib.contextmanager
def prompt_meanwhile(host: LanHost) -> Iterator[None]:
    """`/info` is answered promptly all the time that the block takes."""
    taken: list[float] = []
    over = threading.Event()
    failures: list[Exception] = []

    def ask() -> None:
        try:
            while not over.is_set():
                taken.extend(latencies(session, 5))
        except Exception as failure:  # told by the thread that waits for this one
            failures.append(failure)

    with host.session() as session:
        session.connect()
        control = latencies(session)
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
