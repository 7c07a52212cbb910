"""What the scripts behind the test verbs share: running commands, and counting what tests came to."""

from __future__ import annotations

import dataclasses
import json
import os
import shutil
import subprocess
import xml.etree.ElementTree as ET
from collections.abc import Callable
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent


@dataclasses.dataclass
class Counts:
    passed: int = 0
    failed: int = 0
    skipped: int = 0

    def __add__(self, other: Counts) -> Counts:
        return Counts(
            self.passed + other.passed, self.failed + other.failed, self.skipped + other.skipped
        )

    def __str__(self) -> str:
        skipped = f", {self.skipped} skipped" if self.skipped else ""
        return f"{self.passed} passed, {self.failed} failed{skipped}"


def run(*command: str | Path, **environment: str) -> bool:
    print("+", *command, flush=True)
    return subprocess.run(command, cwd=ROOT, env={**os.environ, **environment}).returncode == 0


def settled(counts: Counts, succeeded: bool) -> Counts:
    """What a run amounts to: a bad end, or nothing passed, shows as a failure."""
    if counts.failed == 0 and (not succeeded or counts.passed == 0):
        return counts + Counts(failed=1)
    return counts


def without_address_randomisation() -> list[str]:
    """The thread sanitizer's fixed memory map collides with what some kernels pick at random."""
    if shutil.which("setarch") and subprocess.run(["setarch", "-R", "true"]).returncode == 0:
        return ["setarch", "-R"]
    return []


def gtest_counts(report: Path) -> Counts:
    counts = Counts()
    for suite in json.loads(report.read_text())["testsuites"]:
        for test in suite["testsuite"]:
            if "failures" in test:
                counts.failed += 1
            elif test["result"] == "COMPLETED":
                counts.passed += 1
            else:
                counts.skipped += 1
    return counts


def pytest_counts(report: Path) -> Counts:
    counts = Counts()
    for test in ET.parse(report).getroot().iter("testcase"):
        outcomes = {child.tag for child in test}
        if outcomes & {"failure", "error"}:
            counts.failed += 1
        elif "skipped" in outcomes:
            counts.skipped += 1
        else:
            counts.passed += 1
    return counts


def run_stages(stages: dict[str, Callable[[], Counts]]) -> int:
    """Runs every stage, whatever becomes of the others, and prints the counts; the exit status."""
    results = {}
    for name, stage in stages.items():
        print(f"\n== {name}", flush=True)
        results[name] = stage()

    print("\n== summary")
    for name, counts in results.items():
        print(f"{name}: {counts}")
    total = sum(results.values(), Counts())
    print(total, flush=True)
    return 1 if total.failed else 0
