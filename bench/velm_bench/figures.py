"""What a benchmark run found: figures with a peer's beside them, judged by their targets."""

from __future__ import annotations

import enum
import json
from collections.abc import Iterable
from dataclasses import asdict, dataclass
from pathlib import Path
from typing import Any


class Bound(enum.Enum):
    """On which side of its target a figure must stay."""

    AT_MOST = "at most"
    AT_LEAST = "at least"


class Verdict(enum.Enum):
    HELD = "held"
    MISSED = "missed"
    NO_TARGET = ""
    NOT_MEASURED = "not measured"


@dataclass(frozen=True)
class Target:
    """A bound on the ratio to the peer, or on the figure itself."""

    bound: Bound
    value: float
    of_ratio: bool = True

    def holds(self, figure: Figure) -> bool | None:
        measured = figure.ratio if self.of_ratio else figure.value
        if measured is None:
            return None
        return measured <= self.value if self.bound is Bound.AT_MOST else measured >= self.value

    def text(self, unit: str) -> str:
        return f"{self.bound.value} {number(self.value)} {'x' if self.of_ratio else unit}".rstrip()


def ratio_at_most(value: float) -> Target:
    return Target(Bound.AT_MOST, value)


def ratio_at_least(value: float) -> Target:
    return Target(Bound.AT_LEAST, value)


def at_most(value: float) -> Target:
    return Target(Bound.AT_MOST, value, of_ratio=False)


def at_least(value: float) -> Target:
    return Target(Bound.AT_LEAST, value, of_ratio=False)


@dataclass(frozen=True)
class Figure:
    """`value` is velmd's, `peer_value` that of `peer`, both in `unit`. None was not measured, and
    `note` says why."""

    what: str
    unit: str
    value: float | None
    peer: str = ""
    peer_value: float | None = None
    target: Target | None = None
    note: str = ""

    @property
    def ratio(self) -> float | None:
        if self.value is None or not self.peer_value:
            return None
        return self.value / self.peer_value

    @property
    def verdict(self) -> Verdict:
        if self.value is None:
            return Verdict.NOT_MEASURED
        if self.target is None:
            return Verdict.NO_TARGET
        held = self.target.holds(self)
        if held is None:
            return Verdict.NOT_MEASURED
        return Verdict.HELD if held else Verdict.MISSED

    @property
    def excess(self) -> float:
        """How far on the wrong side of its target: 1.0 is just there, 2.0 twice as bad."""
        if self.verdict not in (Verdict.HELD, Verdict.MISSED) or self.target is None:
            return 0.0
        measured = self.ratio if self.target.of_ratio else self.value
        if self.target.bound is Bound.AT_MOST:
            return (measured or 0.0) / self.target.value if self.target.value else float(
                bool(measured)
            )
        return self.target.value / measured if measured else float("inf")


def number(value: float | None) -> str:
    """Three significant digits, and whole numbers whole."""
    if value is None:
        return "-"
    if value == 0 or abs(value) >= 100:
        return f"{value:,.0f}"
    return f"{value:.3g}"


HEADINGS = ("what", "velmd", "unit", "peer", "peer's", "ratio", "target", "")


def row(figure: Figure) -> tuple[str, ...]:
    target = figure.target.text(figure.unit) if figure.target else ""
    ratio = f"{figure.ratio:.2f}" if figure.ratio is not None else ""
    peer_value = number(figure.peer_value) if figure.peer else ""
    said = figure.verdict.value + (f" ({figure.note})" if figure.note else "")
    return (
        figure.what, number(figure.value), figure.unit, figure.peer, peer_value, ratio, target, said,
    )  # fmt: skip


def table(figures: Iterable[Figure]) -> str:
    rows = [HEADINGS, *(row(figure) for figure in figures)]
    widths = [max(len(one[column]) for one in rows) for column in range(len(HEADINGS))]
    numeric = {1, 4, 5}
    lines = [
        "  ".join(
            cell.rjust(width) if column in numeric else cell.ljust(width)
            for column, (cell, width) in enumerate(zip(one, widths, strict=True))
        ).rstrip()
        for one in rows
    ]
    lines.insert(1, "-" * max(len(line) for line in lines))
    return "\n".join(lines)


def as_json(figures: Iterable[Figure], machine: dict[str, Any]) -> str:
    made = []
    for figure in figures:
        members = asdict(figure)
        members["target"] = figure.target.text(figure.unit) if figure.target else None
        made.append({**members, "ratio": figure.ratio, "verdict": figure.verdict.value})
    return json.dumps({"machine": machine, "figures": made}, indent=2) + "\n"


def write(figures: list[Figure], machine: dict[str, Any], directory: Path, plot: str) -> None:
    directory.mkdir(parents=True, exist_ok=True)
    (directory / "table.txt").write_text(table(figures) + "\n")
    (directory / "figures.json").write_text(as_json(figures, machine))
    (directory / "figures.svg").write_text(plot)
