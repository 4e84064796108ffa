"""How promptly requests are answered, compared with the same requests when nothing else goes on."""

from __future__ import annotations

import time

from .lan_http import Session

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
