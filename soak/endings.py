"""The ways in which a call can end, and a tally of how often each of them came about."""

import threading
import traceback
from collections import Counter

from tarvomeldric import APIError, CallResult

LEVELS = {
    "": "answered at once",
    "l4_learned": "answered at once, by a learned rule (L4)",
    "l1_retry": "healed by a retry (L1)",
    "l2_downgrade": "healed by a downgrade (L2)",
    "l3_failover": "healed by failover (L3)",
}
ERRORS = {
    "No healthy providers available.": "no provider available",
    "Primary rate-limited, no fallback available.": "refused, no fallback",
    "All providers rate-limited or at capacity.": "refused, and by the fallback",
    "All providers failed": "failed, no candidate left",
    "Cannot self-heal in OUT_OF_BOUNDS domain": "out of bounds",
    "Contract validation failed after L1": "contract broken after L1",
    "Contract validation failed after L2": "contract broken after L2",
    "Contract validation failed after L3": "contract broken after L3",
    "Response drift detected": "structure drifted",
}
PROVIDER_ERROR = "provider's error, all failed"
CANCELLED, INTERRUPTED, CLOSED = "cancelled", "interrupted", "closed midway"
CALLS = [*LEVELS.values(), *ERRORS.values(), PROVIDER_ERROR, CANCELLED, INTERRUPTED, CLOSED]

UNCOUNTED = "given up in the pause before it counts"
NEVER_AWAITED, NEVER_STARTED = "closed, never awaited", "cancelled, never started"
NO_CALLS = [UNCOUNTED, NEVER_AWAITED, NEVER_STARTED]

STREAMS = [
    "streamed to the end",
    "stream interrupted",
    "stream failed",
    "stream closed early",
    "stream dropped",
    "stream cancelled",
]


class Tally:
    """Counts what the callers of an engine saw. Safe to share between threads."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self.counts: Counter[str] = Counter()
        self.surprises: Counter[str] = Counter()

    def __getitem__(self, name: str) -> int:
        with self._lock:
            return self.counts[name]

    @property
    def calls(self) -> int:
        """The calls that an engine has to have counted."""
        with self._lock:
            return sum(self.counts[name] for name in CALLS)

    def note(self, name: str) -> None:
        with self._lock:
            self.counts[name] += 1

    def surprise(self, what: str) -> None:
        with self._lock:
            self.surprises[what] += 1

    def answered(self, result: CallResult) -> None:
        level, passed = result.heal_level, result.validation_passed
        healed = level not in ("", "l4_learned")
        if level not in LEVELS or healed != (result.fault is not None):
            self.surprise(f"an answer that makes no sense: {result!r}, fault {result.fault}")
            return
        self.note(LEVELS[level])
        if passed is not None:
            self.note("contract held" if passed else "contract broken and tolerated")

    def failed(self, error: BaseException) -> None:
        if isinstance(error, APIError):
            self.note(PROVIDER_ERROR)
            return
        name = next((name for text, name in ERRORS.items() if str(error).startswith(text)), None)
        if name is None:
            lines = traceback.format_exception(type(error), error, error.__traceback__)
            self.surprise(f"an unexpected error: {''.join(lines)}")
        else:
            self.note(name)

    def add(self, other: "Tally") -> None:
        with self._lock:
            self.counts += other.counts
            self.surprises += other.surprises

    def missing(self) -> list[str]:
        """The endings that did not occur."""
        with self._lock:
            return [name for name in [*CALLS, *NO_CALLS, *STREAMS] if not self.counts[name]]
