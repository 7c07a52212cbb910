"""Plain types shared by the engine and its callers."""

from __future__ import annotations

from enum import Enum


class RecoveryLevel(str, Enum):
    """The step of the healing cascade that a recovery belongs to.

    A member equals its text value, and ``str()`` and ``format()`` give that value:

    >>> f"healed by {RecoveryLevel.L1_RETRY}"
    'healed by l1_retry'
    """

    L1_RETRY = "l1_retry"
    L2_DOWNGRADE = "l2_downgrade"
    L3_FAILOVER = "l3_failover"
    L4_LEARNED = "l4_learned"

    # Python versions disagree on the text form of mixed-in enumerations; a log line must not.
    def __str__(self) -> str:
        return str.__str__(self)

    def __format__(self, format_spec: str) -> str:
        return str.__format__(self, format_spec)
