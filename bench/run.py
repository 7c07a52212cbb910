"""Measures the engine and prints what it found beside the numbers that it should hold.

It runs in a rehearsal: no key, no home directory and no fleet of the user is touched.
"""

import argparse
import importlib
import json
import os
import platform
from pathlib import Path
from typing import Any

from table import print_heading, print_row

from tarvomeldric.simulator import rehearsal

SECTIONS = ["diagnosis", "calls", "loopback", "streaming", "parts", "footprint", "healing", "fleet"]
RESULTS = Path(__file__).resolve().parent.parent / "build" / "bench.json"


def main() -> None:
    parser = argparse.ArgumentParser(description="Measure the engine; some minutes for everything.")
    parser.add_argument("sections", nargs="*", help=f"any of: {', '.join(SECTIONS)}")
    parser.add_argument("--quick", action="store_true", help="fewer rounds, rougher figures")
    options = parser.parse_args()
    if unknown := set(options.sections) - set(SECTIONS):
        parser.error(f"no section {', '.join(sorted(unknown))}; there are {', '.join(SECTIONS)}")
    machine = f"Python {platform.python_version()}, {os.cpu_count()} processors"
    print(f"{machine}, load {os.getloadavg()[0]:.1f}; a range is that of the rounds")
    results: dict[str, Any] = {"machine": machine, "quick": options.quick}
    with rehearsal():
        for name in options.sections or SECTIONS:
            section = importlib.import_module(name)
            print_heading(str(section.__doc__))
            results[name] = [print_row(row) for row in section.measure(options.quick)]
    RESULTS.parent.mkdir(exist_ok=True)
    RESULTS.write_text(json.dumps(results, indent=1) + "\n")
    print(f"\nwritten to {os.path.relpath(RESULTS)}")


if __name__ == "__main__":
    main()
