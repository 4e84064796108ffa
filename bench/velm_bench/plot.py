"""The figures as a picture: one bar a ratio, with its target as a mark."""

from __future__ import annotations

import math
from collections.abc import Iterable
from xml.sax.saxutils import escape

from .figures import Figure, Verdict, number

ROW_HEIGHT = 20
NAME_WIDTH = 430
BAR_WIDTH = 420
VALUE_WIDTH = 330
TOP = 56
SMALLEST, LARGEST = 1 / 16, 16.0
COLOURS = {
    Verdict.HELD: "#2e7d32",
    Verdict.MISSED: "#c62828",
    Verdict.NO_TARGET: "#607d8b",
    Verdict.NOT_MEASURED: "#607d8b",
}


def position(ratio: float) -> float:
    """From the left end of the bars; logarithmic, so that twice and half are equally far."""
    bounded = min(max(ratio, SMALLEST), LARGEST)
    share = math.log(bounded / SMALLEST) / math.log(LARGEST / SMALLEST)
    return NAME_WIDTH + BAR_WIDTH * share


def _text(x: float, y: float, text: str, anchor: str = "start") -> str:
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}">{escape(text)}</text>'


def _line(x: float, top: float, bottom: float, colour: str, width: float = 1) -> str:
    return (
        f'<line x1="{x:.1f}" x2="{x:.1f}" y1="{top:.1f}" y2="{bottom:.1f}" '
        f'stroke="{colour}" stroke-width="{width}"/>'
    )


def _row(figure: Figure, top: float) -> list[str]:
    ratio = figure.ratio
    assert ratio is not None
    middle, base = position(1.0), top + ROW_HEIGHT - 6
    left, right = sorted((middle, position(ratio)))
    drawn = [
        _text(NAME_WIDTH - 8, base, f"{figure.what}, {figure.unit}", "end"),
        f'<rect x="{left:.1f}" y="{top + 3:.1f}" width="{max(right - left, 1):.1f}" '
        f'height="{ROW_HEIGHT - 7}" fill="{COLOURS[figure.verdict]}"/>',
        _text(
            NAME_WIDTH + BAR_WIDTH + 8,
            base,
            f"{ratio:.2f}: {number(figure.value)} / {number(figure.peer_value)} {figure.peer}",
        ),
    ]
    if figure.target and figure.target.of_ratio:
        drawn.append(_line(position(figure.target.value), top + 1, top + ROW_HEIGHT - 2, "#000", 2))
    return drawn


def svg(figures: Iterable[Figure]) -> str:
    """Every figure that has a peer."""
    drawn = [figure for figure in figures if figure.ratio is not None]
    width = NAME_WIDTH + BAR_WIDTH + VALUE_WIDTH
    height = TOP + ROW_HEIGHT * len(drawn) + 12
    bottom = height - 10
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
        f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="11">',
        f'<rect width="{width}" height="{height}" fill="#fff"/>',
        _text(NAME_WIDTH, 18, "velmd over its peer (logarithmic); black marks are the targets"),
    ]
    for tick in (SMALLEST, 0.25, 0.5, 1.0, 2.0, 4.0, LARGEST):
        colour = "#000" if tick == 1.0 else "#ddd"
        parts.append(_line(position(tick), TOP - 6, bottom, colour))
        parts.append(_text(position(tick), TOP - 10, number(tick), "middle"))
    for index, figure in enumerate(drawn):
        parts += _row(figure, TOP + ROW_HEIGHT * index)
    return "\n".join([*parts, "</svg>"]) + "\n"
