"""Runs the Python tests on an extension module built with the sanitizers; any finding fails the run.

The interpreter itself is not instrumented, so the sanitizers' run-time libraries are loaded before
it. Interpreters that the tests start inherit all of this. Findings go into files, because a test
may swallow the output, and the end, of the process that made one.

usage: tools/sanitize.py [PYTEST_OPTION...]
"""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
from pathlib import Path

from stages import (
    ROOT,
    Counts,
    pytest_counts,
    run,
    run_stages,
    settled,
    without_address_randomisation,
)

REPORTS = ROOT / "build" / "reports" / "sanitizers"
SUPPRESSIONS = ROOT / "tools" / "sanitizers"
FINDING = 99  # the exit status of a process that made one

# The C++ library is in the lists so that the sanitizers find what throws. The run-time library for
# undefined behaviour is inside the module: two shared ones would report in each other's place.
LIBRARIES = {
    "asan": ["libasan.so", "libstdc++.so"],
    "tsan": ["libtsan.so", "libstdc++.so"],
}


def library(name: str) -> str:
    command = [os.environ.get("CXX", "c++"), f"-print-file-name={name}"]
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


def environment(flavour: str, package: Path) -> dict[str, str]:
    common = f"log_path={REPORTS / flavour}:exitcode={FINDING}:halt_on_error=1"
    return {
        "LD_PRELOAD": " ".join(map(library, LIBRARIES[flavour])),
        "PYTHONPATH": str(package.parent),
        "PYTHONMALLOC": "malloc",  # the interpreter's own pools would hide wrong uses of memory
        # What the interpreter keeps to its end would all be reported as leaked.
        "ASAN_OPTIONS": f"{common}:detect_leaks=0:detect_stack_use_after_return=1",
        "UBSAN_OPTIONS": f"{common}:print_stacktrace=1",
        "TSAN_OPTIONS": f"{common}:suppressions={SUPPRESSIONS / 'tsan.txt'}:die_after_fork=0",
    }


def findings(flavour: str) -> list[Path]:
    return sorted(REPORTS.glob(f"{flavour}.*"))


def sanitized(flavour: str, options: list[str]) -> Counts:
    preset = f"module-{flavour}"
    package = ROOT / "build" / preset / "package" / "tarvomeldric"
    if not (run("cmake", "--preset", preset) and run("cmake", "--build", "--preset", preset)):
        return Counts(failed=1)
    shutil.copytree(ROOT / "python" / "tarvomeldric", package, dirs_exist_ok=True)
    report = REPORTS / f"{preset}.xml"
    succeeded = run(
        *(without_address_randomisation() if flavour == "tsan" else []),
        ROOT / ".venv" / "bin" / "python",
        "-m",
        "pytest",
        f"--junit-xml={report}",
        "-m",
        "not uninstrumented",
        *options,
        **environment(flavour, package),
    )
    counts = settled(pytest_counts(report) if report.exists() else Counts(), succeeded)
    for finding in findings(flavour):
        print(f"== {finding}\n{finding.read_text(errors='replace')}")
    return counts + Counts(failed=len(findings(flavour)))


def main(options: list[str]) -> int:
    shutil.rmtree(REPORTS, ignore_errors=True)
    REPORTS.mkdir(parents=True)
    return run_stages(
        {
            "address and undefined-behaviour sanitizers": lambda: sanitized("asan", options),
            "thread sanitizer": lambda: sanitized("tsan", options),
        }
    )


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
