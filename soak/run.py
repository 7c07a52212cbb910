"""Soaks the failing path of the engine, and ends with a table; status 1 when anything was not right.

It runs in a rehearsal: no key, no home directory and no fleet of the user is touched.
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

import exits

_PATIENCE = 120.0  # seconds, beyond what the soak itself takes
_SHIFTS = Path(__file__).with_name("shifts.py")
_SHOWN = 20_000  # characters of what should not have been written


def main() -> int:
    parser = argparse.ArgumentParser(description=str(__doc__))
    parser.add_argument("--seconds", type=float, default=180.0, help="of calls (default: 180)")
    parser.add_argument(
        "--seed", type=int, help="of everything random (default: another each time)"
    )
    parser.add_argument(
        "--exits", type=int, default=50, help="repetitions of the exit tests (default: 50)"
    )
    options = parser.parse_args()
    seed = random.randrange(1_000_000) if options.seed is None else options.seed
    load = f"{os.cpu_count()} processors, load {os.getloadavg()[0]:.1f}"
    print(f"seed {seed}, {options.seconds:g} seconds, {load}", flush=True)
    complaints = [*_soak(options.seconds, seed), *exits.repeat(options.exits)]
    for complaint in complaints:
        print(f"FAILED: {complaint}")
    print("soak: failed" if complaints else "soak: all is well")
    return 1 if complaints else 0


def _soak(seconds: float, seed: int) -> Iterator[str]:
    """What was not right with the shifts, which run in a process of their own."""
    command = [sys.executable, "-W", "default", "-X", "faulthandler", str(_SHIFTS)]
    with tempfile.TemporaryFile("w+", errors="replace") as written:
        process = subprocess.Popen(
            [*command, str(seconds), str(seed)], stderr=written, start_new_session=True
        )
        try:
            process.wait(2 * seconds + _PATIENCE)
        except subprocess.TimeoutExpired:
            yield "it hangs"
            process.send_signal(signal.SIGABRT)  # tells where every thread is
            process.wait()
        finally:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)  # it, and what it may have left
        written.seek(0)
        complaints = written.read()
    if process.returncode != 0:
        yield f"it ended with status {process.returncode}"
    if complaints:
        yield f"it wrote to its standard error:\n{complaints[:_SHOWN]}"


if __name__ == "__main__":
    sys.exit(main())
