"""The one place that looks at what other libraries keep to themselves.

Seen to work with the versions listed. With any other, httpx and httpcore are left as they are: a
client then has the library's own pool, and the library's own bounds for each step of an exchange.
"""

from __future__ import annotations

import threading
from http.cookiejar import CookieJar
from typing import Any

import httpcore
import httpx
from httpcore._backends.sync import SyncStream

from tarvomeldric._http import backend
from tarvomeldric._http.pool import assign

TRIED = {
    "httpx": {"0.27.0", "0.27.2", "0.28.0", "0.28.1"},
    "httpcore": {"1.0.6", "1.0.7", "1.0.8", "1.0.9"},
}


class _CountingIdle:
    """A pool of the library's that gives its connections away as `assign` does."""

    def _assign_requests_to_connections(self: Any) -> list[Any]:
        self._connections, closing = assign(
            self._requests,
            self._connections,
            self.create_connection,
            self._max_connections,
            self._max_keepalive_connections,
        )
        return closing


class NoCookies(CookieJar):
    """Keeps no cookie, and takes no lock to look for one."""

    def extract_cookies(self, *_: Any) -> None:
        pass


class _CookieStore(httpx.Cookies):
    """The same for a client, whose library takes requests and answers apart before it asks."""

    def extract_cookies(self, response: httpx.Response) -> None:
        pass


_BLOCKING = (httpcore.ConnectionPool, httpcore.HTTPProxy, httpcore.SOCKSProxy)
_AWAITED = (httpcore.AsyncConnectionPool, httpcore.AsyncHTTPProxy, httpcore.AsyncSOCKSProxy)
_OURS: dict[type, Any] = {
    pool: type(pool.__name__, (_CountingIdle, pool), {}) for pool in (*_BLOCKING, *_AWAITED)
}


def _pools(client: Any) -> list[Any]:
    """The pools below a client's transport and its proxies."""
    transports = [client._transport, *client._mounts.values()]
    return [transport._pool for transport in transports if hasattr(transport, "_pool")]


def fit(client: httpx.Client | httpx.AsyncClient) -> None:
    """Puts our choice of connections and our sockets below a client that was just made."""
    if httpx.__version__ not in TRIED["httpx"] or httpcore.__version__ not in TRIED["httpcore"]:
        return
    client._cookies = _CookieStore()
    for pool in _pools(client):
        if type(pool) in _BLOCKING:
            # The library's lock stays held when an interrupt meets it half-way, and a signal handler
            # that closes the client may find it held by its own thread.
            pool._optional_thread_lock = threading.RLock()
            pool._network_backend = backend.Backend(SyncStream)
        elif type(pool) in _AWAITED:
            pool._network_backend = backend.AsyncBackend()
        pool.__class__ = _OURS.get(type(pool), type(pool))


def retire(client: Any) -> None:
    """Lets every connection of a client end with the exchange that is under way on it."""
    for pool in _pools(client):
        pool._max_keepalive_connections = 0


def close_idle(client: httpx.Client) -> bool:
    """Closes those connections of a retired client that serve nobody; whether it could."""
    pools = list(_pools(client))
    if not all(type(pool) in _OURS.values() for pool in pools):
        return False
    for pool in pools:
        with pool._optional_thread_lock:
            closing = pool._assign_requests_to_connections()
        pool._close_connections(closing)
    return True


def open_transports(client: Any) -> list[Any]:
    """The event loop's transports below a client's connections, as deep as they can be found."""
    found = []
    for pool in _pools(client):
        for connection in pool.connections:
            inner: Any = getattr(connection, "_connection", None)
            stream: Any = getattr(inner, "_network_stream", None)
            transport = getattr(getattr(stream, "inner", None), "plain", None)
            if getattr(transport, "_sock", None) is not None:
                found.append(transport)
    return found


def drop(transport: Any) -> None:
    """Closes the socket of a transport whose loop is gone, without a word from the transport."""
    sock, transport._sock = transport._sock, None
    if sock is not None:
        sock.close()


def drop_task(task: Any) -> None:
    """Ends a task whose loop is gone, without a word about its end."""
    task._log_destroy_pending = False
    task.get_coro().close()
