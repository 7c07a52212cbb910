"""The outcomes that a call or a stream can have, and a tally of how often each occurred."""

import math
import threading
import traceback
from collections import Counter
from collections.abc import Iterable

from tarvomeldric import APIError, CallResult, DeadlineExceeded

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
    "Contract validation failed: ": "contract broken by every answer",
}
PROVIDER_ERROR = "provider's error, all failed"
DEADLINE = "deadline exceeded"
CANCELLED, INTERRUPTED, CLOSED = "cancelled", "interrupted", "closed midway"
ANSWERED = list(LEVELS.values())
FAILED = [*ERRORS.values(), PROVIDER_ERROR, DEADLINE]
ABANDONED = [CANCELLED, INTERRUPTED, CLOSED]
CALLS = [*ANSWERED, *FAILED, *ABANDONED]
# What becomes of an answer that began as a stream, beside being read whole.
BROKEN_STREAM = "healed stream interrupted"
LEFT_STREAMS = ["healed stream left early", "healed stream dropped", "healed stream cancelled"]
REFUSED_ANSWER = "answer refused for its contract"
UNCOUNTED = "given up in the pause before it counts"
NEVER_AWAITED, NEVER_STARTED = "closed, never awaited", "cancelled, never started"

KINDS = {
    "calls": CALLS,
    "not counted as calls": [UNCOUNTED, NEVER_AWAITED, NEVER_STARTED],
    "streams": [
        "streamed to the end",
        "stream interrupted",
        "stream failed",
        "stream closed early",
        "stream dropped",
        "stream cancelled",
    ],
    "streams that heal": [
        "healed stream read whole",
        BROKEN_STREAM,
        *LEFT_STREAMS,
    ],
    "besides": [
        REFUSED_ANSWER,
        "contract held",
        "contract broken and tolerated",
        "paused under back-pressure",
        "breaker opened by failures",
    ],
}
TIMES = ["within 0.1 s of the deadline", "later than that"]
_LATE, _TOO_LATE = 0.1, 3.0  # seconds; a busy machine may need more than the first


class Tally:
    """Counts what the callers of an engine saw. Safe to share between threads."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self.counts: Counter[str] = Counter()
        self.unexpected: Counter[str] = Counter()
        self.worst_lateness = -math.inf  # seconds

    def sum(self, outcomes: Iterable[str]) -> int:
        return sum(self.counts[outcome] for outcome in outcomes)

    @property
    def calls(self) -> int:
        """The calls that an engine has to have counted."""
        return self.sum(CALLS)

    def note(self, outcome: str) -> None:
        with self._lock:
            self.counts[outcome] += 1

    def note_unexpected(self, what: str) -> None:
        with self._lock:
            self.unexpected[what] += 1

    def note_lateness(self, seconds: float) -> None:
        """How long after its deadline something was over; mostly it was so before."""
        self.note(TIMES[seconds > _LATE])
        if seconds > _TOO_LATE:
            self.note_unexpected("a call was over more than three seconds after its deadline")
        with self._lock:
            self.worst_lateness = max(self.worst_lateness, seconds)

    def answered(self, result: CallResult) -> None:
        level, passed = result.heal_level, result.validation_passed
        healed = level not in ("", "l4_learned")
        if level not in LEVELS or healed != (result.fault is not None):
            self.note_unexpected(f"an answer that makes no sense: {result!r}, {result.fault}")
            return
        self.note(LEVELS[level])
        if passed is not None:
            self.note("contract held" if passed else "contract broken and tolerated")

    def failed(self, error: BaseException) -> None:
        if isinstance(error, DeadlineExceeded):
            self.note(DEADLINE)
            return
        if isinstance(error, APIError):
            self.note(PROVIDER_ERROR)
            return
        name = next((name for text, name in ERRORS.items() if str(error).startswith(text)), None)
        if name is None:
            lines = traceback.format_exception(type(error), error, error.__traceback__)
            self.note_unexpected(f"an error: {''.join(lines)}")
        else:
            self.note(name)

    def add(self, other: "Tally") -> None:
        with self._lock:
            self.counts += other.counts
            self.unexpected += other.unexpected
            self.worst_lateness = max(self.worst_lateness, other.worst_lateness)

    def missing(self) -> list[str]:
        """The outcomes that did not occur."""
        return [name for names in KINDS.values() for name in names if not self.counts[name]]
