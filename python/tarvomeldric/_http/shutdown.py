"""How clients end with a loop that is gone already, and with the process."""

from __future__ import annotations

import atexit
import os
import threading
from typing import Any


def open_transports(client: Any) -> list[Any]:
    """The event loop's transports below a client's connections, as deep as they can be found."""
    found = []
    pool = getattr(getattr(client, "_transport", None), "_pool", None)
    for connection in getattr(pool, "connections", ()):
        inner: Any = getattr(connection, "_connection", None)
        stream: Any = getattr(getattr(inner, "_network_stream", None), "_stream", None)
        stream = getattr(stream, "transport_stream", stream)
        transport = getattr(stream, "_transport", None)
        if getattr(transport, "_sock", None) is not None:
            found.append(transport)
    return found


# Held while a TLS context is made, and for good once the process exits: a daemon thread that loads
# certificates while the TLS library is being taken down would take the process with it.
preparing = threading.RLock()


def _hold_at_exit() -> None:
    preparing.acquire(timeout=10.0)


def _renew_after_fork() -> None:
    global preparing
    preparing = threading.RLock()


atexit.register(_hold_at_exit)
os.register_at_fork(after_in_child=_renew_after_fork)
