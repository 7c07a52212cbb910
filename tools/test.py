"""Runs every test there is and closes with one line of counts.

A stage that fails does not keep the next from running. A stage that ran nothing has failed too:
a build that broke, a test binary that died, a suite that was not found.
"""

from __future__ import annotations

import dataclasses
import json
import os
import shutil
import subprocess
import sys
import xml.etree.ElementTree as ET
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
REPORTS = ROOT / "build" / "reports"


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


def core_tests(preset: str) -> Counts:
    report = REPORTS / f"{preset}.json"
    succeeded = (
        run("cmake", "--preset", preset)
        and run("cmake", "--build", "--preset", preset)
        and run(
            *(without_address_randomisation() if preset == "tsan" else []),
            ROOT / "build" / preset / "core_tests",
            "--gtest_brief=1",
            f"--gtest_output=json:{report}",
            UBSAN_OPTIONS="print_stacktrace=1",
            ASAN_OPTIONS="detect_stack_use_after_return=1",
        )
    )
    return settled(gtest_counts(report) if report.exists() else Counts(), succeeded)


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


def python_tests(venv: str, interpreter: str | None, *options: str) -> Counts:
    report = REPORTS / f"{venv}.xml"
    choice = [f"interpreter={interpreter}"] if interpreter else []
    succeeded = run("make", "--no-print-directory", "build", f"venv={venv}", *choice) and run(
        ROOT / venv / "bin" / "python", "-m", "pytest", f"--junit-xml={report}", *options
    )
    return settled(pytest_counts(report) if report.exists() else Counts(), succeeded)


def wheel_check() -> Counts:
    return Counts(passed=1) if run("tools/check_wheel.sh") else Counts(failed=1)


def other_python() -> tuple[str, str] | None:
    """The newest Python that is not the main one: its version and where it is."""
    version = f"{sys.version_info.major}.{sys.version_info.minor}"
    found = subprocess.run(
        ["tools/find_python.sh", "--other", version], cwd=ROOT, capture_output=True, text=True
    ).stdout.strip()
    return (found.rpartition("python")[2], found) if found else None


def main() -> int:
    shutil.rmtree(REPORTS, ignore_errors=True)
    REPORTS.mkdir(parents=True)
    this = f"{sys.version_info.major}.{sys.version_info.minor}"
    stages = {
        "core, address and undefined-behaviour sanitizers": lambda: core_tests("asan"),
        "core, thread sanitizer": lambda: core_tests("tsan"),
        f"Python {this}": lambda: python_tests(".venv", None),
        "wheel in a fresh environment": wheel_check,
    }
    if other := other_python():
        version, interpreter = other
        stages[f"Python {version}"] = lambda: python_tests(
            f".venv-{version}", interpreter, "-m", "not once"
        )

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


if __name__ == "__main__":
    sys.exit(main())
