"""Costs against counts as a picture: a panel for each axis, a line for each thing that costs."""

from __future__ import annotations

import math
from collections.abc import Mapping, Sequence
from xml.sax.saxutils import escape

from .figures import number

PANEL_WIDTH, PANEL_HEIGHT, MARGIN, TOP = 260, 260, 50, 40
COLOURS = ("#1565c0", "#2e7d32", "#ef6c00", "#6a1b9a")

Lines = Mapping[tuple[str, str], Sequence[tuple[int, float]]]


def scale(value: float, least: float, most: float) -> float:
    """From 0 to 1, logarithmic."""
    if most <= least:
        return 0.5
    return math.log(value / least) / math.log(most / least)


def _text(x: float, y: float, text: str, anchor: str = "start", colour: str = "#000") -> str:
    return (
        f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" fill="{colour}">{escape(text)}</text>'
    )


def _polyline(places: Sequence[tuple[float, float]], colour: str, dashes: str = "") -> str:
    points = " ".join(f"{x:.1f},{y:.1f}" for x, y in places)
    return (
        f'<polyline points="{points}" fill="none" stroke="{colour}" '
        f'stroke-width="{1 if dashes else 2}" stroke-dasharray="{dashes}"/>'
    )


def _panel(left: float, axis: str, lines: Lines, cheapest: float, dearest: float) -> list[str]:
    counts = [count for line in lines.values() for count, _ in line]
    least, most = min(counts), max(counts)

    def place(count: float, cost: float) -> tuple[float, float]:
        across = scale(count, least, most)
        up = scale(cost, cheapest, dearest)
        return left + across * PANEL_WIDTH, TOP + (1 - up) * PANEL_HEIGHT

    parts = [
        f'<rect x="{left}" y="{TOP}" width="{PANEL_WIDTH}" height="{PANEL_HEIGHT}" '
        'fill="none" stroke="#bbb"/>',
        _text(left + PANEL_WIDTH / 2, TOP + PANEL_HEIGHT + 30, axis, "middle"),
    ]
    for count in sorted(set(counts)):
        x, _ = place(count, cheapest)
        parts.append(_text(x, TOP + PANEL_HEIGHT + 14, str(count), "middle"))
    for index, ((_, what), line) in enumerate(lines.items()):
        colour = COLOURS[index % len(COLOURS)]
        parts.append(_polyline([place(count, cost) for count, cost in line], colour))
        x, y = place(*line[0])
        parts.append(_text(x + 4, y - 4, f"{what}: {number(line[0][1])} us", colour=colour))
    # What is proportional to the count runs like this one.
    end = min(most, least * dearest / cheapest)
    slope = [place(least, cheapest), place(end, cheapest * end / least)]
    parts.append(_polyline(slope, "#999", "4 4"))
    return parts


def svg(lines: Lines) -> str:
    axes = list(dict.fromkeys(axis for axis, _ in lines))
    costs = [cost for line in lines.values() for _, cost in line]
    cheapest, dearest = min(costs) / 1.5, max(costs) * 1.5
    width = MARGIN + len(axes) * (PANEL_WIDTH + MARGIN)
    height = TOP + PANEL_HEIGHT + 50
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
        f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="11">',
        f'<rect width="{width}" height="{height}" fill="#fff"/>',
        _text(MARGIN, 20, "CPU of velmd, both axes logarithmic; dashes: proportional to the count"),
    ]
    for index, axis in enumerate(axes):
        own = {key: line for key, line in lines.items() if key[0] == axis}
        parts += _panel(MARGIN + index * (PANEL_WIDTH + MARGIN), axis, own, cheapest, dearest)
    return "\n".join([*parts, "</svg>"]) + "\n"
