"""Runs every fuzzer for some time, one after the other, and closes with a table.

The inputs that the fuzzers found worth keeping are in build/fuzz/corpus for the next run; an input on
which a check failed is in build/fuzz/found. Put that one, made small, into fuzz/corpus, and the C++
tests will run it for ever.
"""

from __future__ import annotations

import argparse
import os
import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "fuzz"
LIMITS = ["-timeout=20", "-rss_limit_mb=1500", "-print_final_stats=1"]


def output_of(command: list[str | Path]) -> tuple[int, str]:
    print("+", *command, flush=True)
    environment = {**os.environ, "UBSAN_OPTIONS": "print_stacktrace=1"}
    ended = subprocess.run(
        command, cwd=ROOT, env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT
    )
    return ended.returncode, ended.stdout.decode(errors="replace")


def last_number(pattern: str, log: str) -> str:
    numbers = re.findall(pattern, log)
    return numbers[-1] if numbers else "-"


def words_of_patterns() -> str:
    """A dictionary of what the fault patterns look for, which byte by byte would take for ever."""
    from tarvomeldric._engine import _PATTERNS

    patterns = "|".join(row[0].replace("\\.", ".") for row in _PATTERNS)
    words = {"\n", " ", *re.split(r"[|()?]|\.[*?]|\\s\*", patterns)} - {""}
    escaped = ("".join(f"\\x{byte:02x}" for byte in word.encode()) for word in sorted(words))
    return "".join(f'"{word}"\n' for word in escaped)


def fuzz_core(name: str, seconds: int) -> tuple[int, str, str]:
    seeds, kept, found = ROOT / "fuzz" / "corpus" / name, BUILD / "corpus" / name, BUILD / "found"
    for folder in (kept, found):
        folder.mkdir(parents=True, exist_ok=True)
    words = ROOT / "fuzz" / f"{name}.dict"
    if name == "diagnosis":
        words = BUILD / "diagnosis.dict"
        words.write_text(words_of_patterns())
    options = [f"-max_total_time={seconds}", f"-artifact_prefix={found}/{name}-", *LIMITS]
    if words.exists():
        options.append(f"-dict={words}")
    status, log = output_of([BUILD / f"fuzz_{name}", *options, kept, seeds])
    if status:
        print("\n".join(log.splitlines()[-60:]))
    edges, features = last_number(r"cov: (\d+)", log), last_number(r"ft: (\d+)", log)
    executions = last_number(r"number_of_executed_units: (\d+)", log)
    return status, executions, f"{edges} edges, {features} features"


def fuzz_package(driver: Path, seconds: int) -> tuple[int, str, str]:
    status, log = output_of([sys.executable, driver, "--seconds", str(seconds)])
    if status:
        print(log)
    return status, last_number(r"cases: (\d+)", log), "-"


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=int, default=60, help="for each of the fuzzers")
    parser.add_argument("names", nargs="*", help="some of them only")
    options = parser.parse_args()
    subprocess.run(["cmake", "--preset", "fuzz"], cwd=ROOT, check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", "--preset", "fuzz"], cwd=ROOT, check=True)

    core = sorted(folder.name for folder in (ROOT / "fuzz" / "corpus").iterdir())
    package = [ROOT / "fuzz" / "contracts.py", ROOT / "fuzz" / "rules_file.py"]
    runs = {name: fuzz_core(name, options.seconds) for name in core if wanted(name, options)}
    runs |= {d.name: fuzz_package(d, options.seconds) for d in package if wanted(d.name, options)}

    print(f"\n{'input':16}{'executions':>12}  {'coverage':28}found")
    for name, (status, executions, coverage) in runs.items():
        print(f"{name:16}{executions:>12}  {coverage:28}{'a fault' if status else 'nothing'}")
    return 1 if any(status for status, _, _ in runs.values()) else 0


def wanted(name: str, options: argparse.Namespace) -> bool:
    return not options.names or name in options.names


if __name__ == "__main__":
    sys.exit(main())
