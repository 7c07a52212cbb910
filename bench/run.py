"""Measures the engine and prints what it found beside the numbers that it should hold.

It runs in a rehearsal: no key, no home directory and no fleet of the user is touched. The home that
it uses instead is made in the build directory, so that the rules file is on a real disk where there
is one.
"""

import argparse
import importlib
import json
import os
import platform
import sys
from pathlib import Path
from tempfile import TemporaryDirectory
from typing import Any

from table import print_heading, print_row

from tarvomeldric.simulator import rehearsal

SECTIONS = [
    *("diagnosis", "calls", "loopback", "wire", "streaming"),
    *("parts", "footprint", "healing", "fleet", "live"),
]
ROOT = Path(__file__).resolve().parent.parent
RESULTS = ROOT / "build" / "bench.json"


def main() -> None:
    parser = argparse.ArgumentParser(description="Measure the engine; some minutes for everything.")
    parser.add_argument("sections", nargs="*", help=f"any of: {', '.join(SECTIONS)}")
    parser.add_argument("--quick", action="store_true", help="fewer rounds, rougher figures")
    options = parser.parse_args()
    if unknown := set(options.sections) - set(SECTIONS):
        parser.error(f"no section {', '.join(sorted(unknown))}; there are {', '.join(SECTIONS)}")
    RESULTS.parent.mkdir(exist_ok=True)
    machine = f"Python {platform.python_version()}, {os.cpu_count()} processors"
    machine += f", rules file on {file_system(RESULTS.parent)}"
    print(f"{machine}, load {os.getloadavg()[0]:.1f}; a range is that of the rounds")
    results: dict[str, Any] = {"machine": machine, "quick": options.quick}
    sys.path.append(str(ROOT / "tools"))  # the support package
    with TemporaryDirectory(prefix="home-", dir=RESULTS.parent) as home, rehearsal(home):
        for name in options.sections or SECTIONS:
            section = importlib.import_module(name)
            print_heading(str(section.__doc__))
            results[name] = [print_row(row) for row in section.measure(options.quick)]
    RESULTS.write_text(json.dumps(results, indent=1) + "\n")
    print(f"\nwritten to {os.path.relpath(RESULTS)}")


def file_system(folder: Path) -> str:
    """The kind of the file system that a folder is on."""
    lines = Path("/proc/self/mounts").read_text().splitlines()
    kinds = {at: kind for _, at, kind, *_ in (line.split() for line in lines)}
    return kinds[max((at for at in kinds if folder.is_relative_to(at)), key=len)]


if __name__ == "__main__":
    main()
