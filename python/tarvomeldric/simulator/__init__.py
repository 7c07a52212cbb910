"""A local provider for rehearsing bad days.

:class:`ProviderSimulator` is an OpenAI-compatible provider on a loopback port that answers,
fails, stalls and talks nonsense as it is told. :func:`rehearsal` gives engines a home directory
of their own meanwhile, so that simulated faults teach nothing to the real one:

>>> with rehearsal(), ProviderSimulator(503, "Hello") as provider:
...     with SelfHealingEngine({}) as engine:
...         engine.add_provider(ProviderConfig("mine", provider.base_url, "any-key"))
...         print(engine.call_sync("Hi"))

A stream is written down in its pieces:

>>> ProviderSimulator(
...     Reply(stream=[Fault.STALL]),                         # silent before the first output
...     Reply(stream=["One ", 0.5, "two ", Fault.RESET]),    # a pause, then cut off
...     Reply(stream=[{"error": {"message": "Overloaded."}}]),
...     Reply(stream=[Reasoning("Hm."), ToolCall("weather", {"place": "Oslo"})]),
...     Reply(stream=["One ", Finish("length")]),
... )

From a shell: ``python -m tarvomeldric.simulator --help``.
"""

from __future__ import annotations

from .home import rehearsal
from .provider import ProviderSimulator
from .received import ReceivedRequest
from .replies import (
    Fault,
    Finish,
    Raw,
    Reasoning,
    Reply,
    ReplyLike,
    StreamItem,
    ToolCall,
)

__all__ = [
    "Fault",
    "Finish",
    "ProviderSimulator",
    "Raw",
    "Reasoning",
    "ReceivedRequest",
    "Reply",
    "ReplyLike",
    "StreamItem",
    "ToolCall",
    "rehearsal",
]
