"""Runs programs that end at an awkward moment over and over: what goes wrong may do so seldom.

`run.py` starts this, for so many times; status 1 when any of them did not end as it should.
"""

import signal
import sys
import traceback
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from functools import partial

from support.exits import end_under_daemon_threads, interrupt
from tarvomeldric.simulator import rehearsal

_AT_ONCE = 4
_PROGRAMS: list[Callable[[], None]] = [
    partial(end_under_daemon_threads, 1),
    *(
        partial(interrupt, stage, form)
        for stage in ("slot", "answer")
        for form in ("call_sync", "call")
    ),
]


def main() -> int:
    programs = _PROGRAMS * int(sys.argv[1])
    signal.signal(signal.SIGINT, signal.default_int_handler)  # a background job's is ignored
    with rehearsal(), ThreadPoolExecutor(_AT_ONCE) as threads:
        failures = [failure for failure in threads.map(_failure, programs) if failure]
    print(f"\n{len(programs)} programs ended, {len(failures)} of them badly")
    for failure in failures:
        print(f"not right: a program ended badly:\n{failure}")
    return 1 if failures else 0


def _failure(program: Callable[[], None]) -> str:
    try:
        program()
    except Exception:
        return traceback.format_exc()
    return ""


if __name__ == "__main__":
    sys.exit(main())
