"""Runs clang-tidy on planted_defects.cpp, and fails unless it finds all that is planted there.

usage: tests/lint/check_planted.py [OPTION ...]      options for clang-tidy, as lint.sh gives them
"""

from __future__ import annotations

import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).parents[2]
SOURCE = Path(__file__).with_name("planted_defects.cpp")


def planted() -> set[tuple[int, str]]:
    """The lines and checks that the comments of the file name."""
    found = set()
    for number, line in enumerate(SOURCE.read_text().splitlines(), 1):
        _, mark, checks = line.partition("// finds ")
        found |= {(number, check) for check in checks.split(", ") if mark}
    return found


def reported(output: str) -> set[tuple[int, str]]:
    found = set()
    for match in re.finditer(rf"^{re.escape(str(SOURCE))}:(\d+):\d+: .*\[(.*)\]$", output, re.M):
        found |= {(int(match[1]), check) for check in match[2].split(",")}
    return found


def main() -> int:
    flags = ["-std=c++20", f"-I{ROOT}/src"]
    flags += subprocess.check_output(["pkg-config", "--cflags", "libcjson"], text=True).split()
    run = subprocess.run(
        ["clang-tidy-14", "--quiet", *sys.argv[1:], str(SOURCE), "--", *flags],
        capture_output=True, text=True, check=False,
    )
    wanted = planted()
    missing = sorted(wanted - reported(run.stdout))
    for line, check in missing:
        print(f"{SOURCE.relative_to(ROOT)}:{line}: {check} does not find what is planted there")
    if missing or not wanted:
        print(run.stdout, run.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
