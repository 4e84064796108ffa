"""A soak sees growth, and nothing but growth."""

from __future__ import annotations

import pytest
from velm_harness.soak import Measure, compare


@pytest.mark.parametrize(
    ("last", "problems"),
    [
        (Measure(1000, 500, 16, 6), 0),
        (Measure(1512, 1012, 16, 6), 0),
        (Measure(1513, 1013, 16, 6), 2),
        (Measure(900, 400, 17, 6), 1),
        (Measure(900, 400, 15, 7), 2),
    ],
)
def test_a_soak_finds_what_has_grown(last: Measure, problems: int) -> None:
    assert len(compare(Measure(1000, 500, 16, 6), last)) == problems
