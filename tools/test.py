"""Runs every test there is and closes with one line of counts.

A stage that fails does not keep the next from running. A stage that ran nothing has failed too:
a build that broke, a test binary that died, a suite that was not found.
"""

from __future__ import annotations

import shutil
import subprocess
import sys

from stages import (
    ROOT,
    Counts,
    gtest_counts,
    pytest_counts,
    run,
    run_stages,
    settled,
    without_address_randomisation,
)

REPORTS = ROOT / "build" / "reports"


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


def python_tests(venv: str, interpreter: str | None, *options: str) -> Counts:
    report = REPORTS / f"{venv}.xml"
    choice = [f"interpreter={interpreter}"] if interpreter else []
    succeeded = run("make", "--no-print-directory", "build", f"venv={venv}", *choice) and run(
        ROOT / venv / "bin" / "python", "-m", "pytest", f"--junit-xml={report}", *options
    )
    return settled(pytest_counts(report) if report.exists() else Counts(), succeeded)


def wheel_check() -> Counts:
    made = run("tools/wheel.sh", ".", ".venv/bin/python", "build/wheel", "--no-build-isolation")
    return Counts(passed=1) if made else Counts(failed=1)


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

    return run_stages(stages)


if __name__ == "__main__":
    sys.exit(main())
