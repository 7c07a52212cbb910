"""Soaks the failing path of the engine, and ends with a table; status 1 when anything was not right.

The soak and the programs that end are run in processes of their own, which must not hang nor write
to their standard error. No key, no home directory and no fleet of the user is touched.
"""

import argparse
import contextlib
import os
import random
import signal
import subprocess
import sys
import tempfile
from collections.abc import Iterator
from pathlib import Path

_HERE = Path(__file__).resolve().parent
_SUPPORT = _HERE.parent / "tools"
_PATIENCE = 120.0  # seconds, beyond twice what it should take
_SECONDS_AN_EXIT = 5.0
_SECONDS_A_LEAK = 0.1  # for every operation once
_SECONDS_AN_INTERRUPT = 0.05
_SHOWN = 20_000  # characters of what should not have been written


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--seconds", type=float, default=180.0, help="of calls (default: 180)")
    parser.add_argument(
        "--seed", type=int, help="of everything random (default: another each time)"
    )
    parser.add_argument(
        "--exits", type=int, default=50, help="repetitions of the exit tests (default: 50)"
    )
    parser.add_argument(
        "--leaks",
        type=int,
        default=10_000,
        help="repetitions of each operation that must not leak (default: 10000)",
    )
    parser.add_argument(
        "--interrupts", type=int, default=3000, help="exceptions amid calls (default: 3000)"
    )
    options = parser.parse_args()
    seed = random.randrange(1_000_000) if options.seed is None else options.seed
    load = f"{os.cpu_count()} processors, load {os.getloadavg()[0]:.1f}"
    print(f"seed {seed}, {options.seconds:g} seconds, {load}", flush=True)
    complaints: list[str] = []
    if options.seconds:
        complaints += _run("soak.py", options.seconds, options.seconds, seed)
    if options.leaks:
        complaints += _run("leaks.py", _SECONDS_A_LEAK * options.leaks, options.leaks)
    if options.exits:
        complaints += _run("exits.py", _SECONDS_AN_EXIT * options.exits, options.exits)
    if options.interrupts:
        complaints += _run(
            "interrupts.py", _SECONDS_AN_INTERRUPT * options.interrupts, options.interrupts
        )
    for complaint in complaints:
        print(f"FAILED: {complaint}")
    print("soak: failed" if complaints else "soak: all is well")
    return 1 if complaints else 0


def _run(program: str, seconds: float, *arguments: float) -> Iterator[str]:
    """What was not right with a program of this folder that should take so many seconds."""
    command = [sys.executable, "-W", "default", "-X", "faulthandler", str(_HERE / program)]
    with tempfile.TemporaryFile("w+", errors="replace") as written:
        process = subprocess.Popen(
            [*command, *map(str, arguments)],
            stderr=written,
            start_new_session=True,
            env={**os.environ, "PYTHONPATH": str(_SUPPORT)},
        )
        try:
            process.wait(2 * seconds + _PATIENCE)
        except subprocess.TimeoutExpired:
            yield f"{program} hangs"
            process.send_signal(signal.SIGABRT)  # tells where every thread is
            process.wait()
        finally:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)  # it, and what it may have left
        written.seek(0)
        complaints = written.read()
    if process.returncode != 0:
        yield f"{program} ended with status {process.returncode}"
    if complaints:
        yield f"{program} wrote to its standard error:\n{complaints[:_SHOWN]}"


if __name__ == "__main__":
    sys.exit(main())
