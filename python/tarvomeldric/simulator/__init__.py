"""A local provider for rehearsing bad days.

:class:`ProviderSimulator` is an OpenAI-compatible provider on a loopback port that answers,
fails, stalls and talks nonsense as it is told. :func:`rehearsal` gives engines a home directory
of their own meanwhile, so that simulated faults teach nothing to the real one:

>>> with rehearsal(), ProviderSimulator(503, "Hello") as provider:
...     with SelfHealingEngine({}) as engine:
...         engine.add_provider(ProviderConfig("mine", provider.base_url, "any-key"))
...         print(engine.call_sync("Hi"))

From a shell: ``python -m tarvomeldric.simulator --help``.
"""

from __future__ import annotations

from .home import rehearsal
from .provider import ProviderSimulator
from .received import ReceivedRequest
from .replies import Fault, Raw, Reply, ReplyLike, StreamItem

__all__ = [
    "Fault",
    "ProviderSimulator",
    "Raw",
    "ReceivedRequest",
    "Reply",
    "ReplyLike",
    "StreamItem",
    "rehearsal",
]
