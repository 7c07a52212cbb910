"""What an engine's own exchange and a call tell each other past a replaced `_execute`."""

from __future__ import annotations

from contextvars import ContextVar
from typing import Any

# Stands while a replacement of an engine's execution runs: "engine" is whose, "end" when the attempt
# must be over on the engine's clock, where it is bounded. What an exchange of that engine received
# comes back in "status", "headers" and "body".
report: ContextVar[dict[str, Any] | None] = ContextVar("tarvomeldric_seam", default=None)
