"""HTTP: the clients of an engine, and the exchange with a provider as far as it is theirs.

Neither the HTTP library nor a TLS context is loaded before the first request needs it; each costs
more than a call does.
"""

from __future__ import annotations

from tarvomeldric._http.attempt import Abort, retry_after
from tarvomeldric._http.clients import HttpClients, is_placed, own_of, ready
from tarvomeldric._http.exchange import is_timeout, post, post_async

__all__ = [
    "Abort",
    "HttpClients",
    "is_placed",
    "is_timeout",
    "own_of",
    "post",
    "post_async",
    "ready",
    "retry_after",
]
