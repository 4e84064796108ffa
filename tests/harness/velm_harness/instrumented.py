"""A build that may be instrumented: sanitizers watch its programs, or its lines are counted."""

from __future__ import annotations

import os
import signal
from pathlib import Path

from velm_sim.build import Build, is_foreign
from velm_sim.daemon import Daemon, wait_until

from .preloads import library

QUARANTINE_KIB = 320 * 1024


class SanitizerError(AssertionError):
    """A sanitizer reported something, or the daemon leaked."""


class InstrumentedBuild(Build):
    """The name of the directory says how it is instrumented: asan, coverage, or not at all."""

    def __init__(self, directory: Path | str) -> None:
        super().__init__(directory)
        self.is_asan = "asan" in self.directory.name
        self.is_coverage = "coverage" in self.directory.name
        self.is_emulated = is_foreign(self.program("velmd"))
        self._judged: set[Path] = set()

    def preload(self) -> tuple[Path, ...]:
        if self.is_asan:
            return (library(self, "leak_probe"),)
        if self.is_coverage:
            return (library(self, "coverage_probe"),)
        return ()

    def environment(self, directory: Path) -> dict[str, str]:
        """Reports go to sanitizer.PID; leaks are looked for on request only."""
        if not self.is_asan:
            return {}
        common = f"log_path={directory}/sanitizer:halt_on_error=1:abort_on_error=0:exitcode=99"
        return {
            # A preloaded clock or probe may stand before the runtime: nothing they define matters.
            "ASAN_OPTIONS": f"{common}:verify_asan_link_order=0:detect_leaks=1"
            ":leak_check_at_exit=0:detect_stack_use_after_return=1:strict_string_checks=1",
            "UBSAN_OPTIONS": f"{common}:print_stacktrace=1",
            "VELM_LEAK_PROBE_DONE": str(_leak_verdict(directory)),
        }

    def memory_limit_kib(self, limit: int) -> int:
        """Instrumented, freed memory is held back in a quarantine."""
        return limit + (QUARANTINE_KIB if self.is_asan else 0)

    def time_limit(self, seconds: float) -> float:
        """Instrumented or emulated, the daemon computes several times as long."""
        return seconds * (5 if self.is_asan or self.is_emulated else 1)

    def before_end(self, daemon: Daemon) -> None:
        """Makes an instrumented daemon look for leaks now."""
        if not self.is_asan:
            return
        verdict = _leak_verdict(daemon.directory)
        verdict.unlink(missing_ok=True)
        os.kill(daemon.pid, signal.SIGUSR2)
        wait_until(lambda: not daemon.alive() or verdict.exists(), 20, "no leak check")

    def judge(self, directory: Path) -> None:
        fresh = set(directory.glob("sanitizer.*")) - self._judged
        self._judged |= fresh
        if fresh:
            reports = [path.read_text(errors="replace") for path in sorted(fresh)]
            raise SanitizerError("\n".join(reports))


def _leak_verdict(directory: Path) -> Path:
    return directory / "leak-verdict"
