"""Exceptions of a signal handler, at random moments of blocking calls over real HTTP; then calm ones.

Run by itself with the number of exceptions; status 1 when a later call waits or fails.
"""

import contextlib
import faulthandler
import gc
import random
import signal
import sys
import threading
import time
import warnings
from collections.abc import Iterator
from pathlib import Path

from support import engine_with, tireless
from tarvomeldric import SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator, rehearsal

_LONGEST = 0.006  # seconds to the exception: several calls
_AGAIN = 0.02  # one may be lost where Python cannot raise it
_CALM = 10
_AT_ONCE = 1.0  # seconds, on a slow machine


class Struck(BaseException):
    """What the handler raises."""


def strike(times: int, seed: int | None = None) -> Iterator[str]:
    """Complaints about what the exceptions left behind; another thread makes calls meanwhile."""

    def raise_it(*_: object) -> None:
        raise Struck

    def call_meanwhile() -> None:
        while not over.is_set():
            try:
                engine.call_sync("Hi")
            except Exception as error:
                failed.append(f"a call of another thread failed: {error}")

    chance, over, failed = random.Random(seed), threading.Event(), list[str]()
    faulthandler.dump_traceback_later(60 + times * 0.1, exit=True)
    # Python closes, and tells of, a socket that nobody knew yet when its maker was left.
    warnings.filterwarnings("ignore", "unclosed <socket", ResourceWarning)
    before = signal.signal(signal.SIGALRM, raise_it)
    with ProviderSimulator(process=True) as simulator:
        engine = engine_with(tireless(base_url=simulator.base_url))
        engine.call_sync("Hi")  # loads what is loaded once: Python's own import keeps locks, too
        engine.close_sync()
        descriptors = _descriptors()
        other = threading.Thread(target=call_meanwhile)
        other.start()
        for _ in range(times):
            _until_struck(engine, chance.uniform(0, _LONGEST))
        over.set()
        for _ in range(_CALM):
            start = time.monotonic()
            engine.call_sync("Hi")
            if time.monotonic() - start > _AT_ONCE:
                yield f"a calm call took {time.monotonic() - start:.1f} s"
        other.join()
        engine.close_sync()
        gc.collect()
        if (left := _descriptors() - descriptors) > 0:
            yield f"{left} descriptors left open"
    signal.signal(signal.SIGALRM, before)
    faulthandler.cancel_dump_traceback_later()
    yield from failed


def _descriptors() -> int:
    return len(list(Path("/proc/self/fd").iterdir()))


def _until_struck(engine: SelfHealingEngine, seconds: float) -> None:
    with contextlib.suppress(Struck):
        try:
            signal.setitimer(signal.ITIMER_REAL, seconds, _AGAIN)
            while True:
                engine.call_sync("Hi")
        finally:
            signal.setitimer(signal.ITIMER_REAL, 0)


if __name__ == "__main__":
    with rehearsal():
        complaints = list(strike(int(sys.argv[1])))
    print("\n".join(complaints), file=sys.stderr, end="")
    sys.exit(bool(complaints))
