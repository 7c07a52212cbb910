"""The exit tests over and over: what ends badly may do so once in a hundred times."""

import importlib
import random
import signal
import sys
import traceback
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from functools import partial
from pathlib import Path

from tarvomeldric.simulator import ProviderSimulator, Reply, rehearsal

_TESTS = Path(__file__).resolve().parent.parent / "tests" / "python"
_AT_ONCE = 4


def repeat(times: int) -> Iterator[str]:
    """Runs every program so often; what was not right."""
    if not times:
        return
    signal.signal(signal.SIGINT, signal.default_int_handler)  # a background job's is ignored
    with (
        rehearsal(),
        ProviderSimulator(default=Reply(delay=0.01), process=True) as simulator,
        ThreadPoolExecutor(_AT_ONCE) as threads,
    ):
        programs = _programs(simulator.base_url) * times
        failed = [error for error in threads.map(_failure, programs) if error]
    print(f"\n{len(programs)} programs ended, {len(failed)} of them badly", flush=True)
    yield from failed


def _programs(url: str) -> list[Callable[[], object]]:
    sys.path.insert(0, str(_TESTS))
    test_exit = importlib.import_module("test_exit")

    def end_under_daemon_threads() -> None:
        moment = str(random.uniform(0.2, 0.5))
        test_exit.run_child(test_exit.DAEMONS, url, moment, strict=False)

    interrupt = test_exit.test_ctrl_c_ends_the_wait_and_gives_everything_back
    forms = [(stage, form) for stage in ("slot", "answer") for form in ("call_sync", "call")]
    return [end_under_daemon_threads, *(partial(interrupt, *form) for form in forms)]


def _failure(program: Callable[[], object]) -> str:
    try:
        program()
    except Exception:
        return f"a program ended badly:\n{traceback.format_exc()}"
    return ""
