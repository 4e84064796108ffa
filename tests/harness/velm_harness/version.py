"""The version that the daemon must say it has."""

from __future__ import annotations

import re
from pathlib import Path

_CMAKE = Path(__file__).resolve().parents[3] / "CMakeLists.txt"


def project_version() -> str:
    """What the project is called in CMakeLists.txt, the one place that has it."""
    found = re.search(r"^project\(velmd VERSION (\d+\.\d+\.\d+) ", _CMAKE.read_text(), re.MULTILINE)
    assert found, f"{_CMAKE} names no version"
    return found.group(1)


VERSION = project_version()
