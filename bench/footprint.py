"""What `import tarvomeldric` adds to a bare start, and how memory grows with stubbed calls"""

import asyncio
import multiprocessing
import subprocess
import sys
from collections.abc import Iterator
from time import perf_counter

from calls import PROVIDER, REQUEST, StubbedEngine
from measuring import rounds_of
from table import Row

from support import provider, resident

IMPORT = "import tarvomeldric"
DEAREST = 6  # modules
BEFORE = 20_000  # calls


def measure(quick: bool) -> Iterator[Row]:
    run(IMPORT)  # the byte code is on disk from now on
    extra = [(-run("pass")[0] + run(IMPORT)[0]) * 1e3 for _ in [*rounds_of(quick)] * 3]
    yield Row(IMPORT, extra, "ms", target=15.0)
    reports = [module_times(IMPORT) for _ in rounds_of(quick)]
    own = {name: [one[name] for one in reports] for name in {*reports[0]} - {*module_times("pass")}}
    for name in sorted(own, key=lambda name: -min(own[name]))[:DEAREST]:
        yield Row(f"of it {name} itself", own[name], "ms")
    after = 60_000 if quick else 200_000
    for name in ("call_sync", "call"):
        with multiprocessing.get_context("spawn").Pool(1) as fresh_process:
            grown = fresh_process.apply(growth, (name, after)) / 2**20
        yield Row(f"{name}, {after:,} calls against {BEFORE:,}", [grown], "MiB", target=1.0)


def module_times(program: str) -> dict[str, float]:
    """The milliseconds that each module takes, without those that it imports."""
    lines = run(program, "-X", "importtime")[1].splitlines()[1:]
    columns = [line.removeprefix("import time:").split("|") for line in lines]
    return {name.strip(): int(own) / 1e3 for own, _, name in columns}


def run(program: str, *options: str) -> tuple[float, str]:
    """The seconds it took, and what it wrote to its standard error."""
    start, command = perf_counter(), [sys.executable, *options, "-c", program]
    done = subprocess.run(command, check=True, capture_output=True, text=True)
    return perf_counter() - start, done.stderr


def growth(name: str, after: int) -> int:
    """The bytes that became resident after the first calls."""
    call = getattr(StubbedEngine({PROVIDER: provider(name=PROVIDER)}), name)

    async def grow(calls: int) -> int:
        for _ in range(calls):
            answer = call(**REQUEST)
            if name == "call":
                await answer
        return resident()

    return -asyncio.run(grow(BEFORE)) + asyncio.run(grow(after - BEFORE))
