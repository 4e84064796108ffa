#!/usr/bin/python3
"""Adds up the JUnit files of a folder: prints "N passed, N failed" and exits 1 when anything failed.

usage: sum-results.py FOLDER [FAILED_STEP ...]

A step that failed without a failed test case of its own (a build that broke, a test program that
crashed before it wrote its file) counts as one failure, so that a broken run never looks whole.
"""
import pathlib
import sys
import xml.etree.ElementTree as ElementTree


def count(path: pathlib.Path) -> tuple[int, int, int]:
    """Passed, failed and skipped test cases of one file."""
    passed = failed = skipped = 0
    for case in ElementTree.parse(path).getroot().iter("testcase"):
        if case.find("failure") is not None or case.find("error") is not None:
            failed += 1
        elif case.find("skipped") is not None or case.get("status") == "notrun":
            skipped += 1
        else:
            passed += 1
    return passed, failed, skipped


def main() -> int:
    totals = [0, 0, 0]
    for path in sorted(pathlib.Path(sys.argv[1]).glob("*.xml")):
        totals = [total + more for total, more in zip(totals, count(path))]
    passed, failed, skipped = totals
    failed = max(failed, len(sys.argv) - 2)
    print(f"{passed} passed, {failed} failed" + (f", {skipped} skipped" if skipped else ""))
    return 1 if failed or not passed else 0


if __name__ == "__main__":
    sys.exit(main())
