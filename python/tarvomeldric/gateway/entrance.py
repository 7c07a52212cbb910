"""Who is let in: requests that name this server, come from no web page, and show a token where one is needed."""

from __future__ import annotations

import hmac
from collections.abc import Sequence
from hashlib import sha256

from starlette.datastructures import Headers

from tarvomeldric._host_names import HostNames, is_loopback
from tarvomeldric.clients.replies import Reply, refusal
from tarvomeldric.gateway.config import Server


class Entrance:
    """Looks at the heads of requests."""

    def __init__(self, server: Server) -> None:
        checked = server.allowed_hosts or server.host == "localhost" or is_loopback(server.host)
        self._names = HostNames(server.host, server.allowed_hosts) if checked else None
        self._tokens = _Tokens(server.tokens)

    def refused(self, headers: Headers, is_open: bool) -> Reply | None:
        """The answer to a request that is not let in; everybody is where it is open."""
        hosts = headers.getlist("host")
        if self._names is not None and not (len(hosts) == 1 and hosts[0] in self._names):
            return refusal(421, "not a name of this server: see allowed_hosts of its configuration")
        if "origin" in headers:
            return refusal(403, "a web page may not ask here", "origin_not_allowed")
        if is_open or self._tokens.admit(headers.get("authorization", "")):
            return None
        reply = refusal(401, "a token of this gateway is needed as the key", "invalid_api_key")
        reply.headers["www-authenticate"] = "Bearer"
        return reply


class _Tokens:
    """Kept and compared as digests, which are of one length; all of them each time."""

    def __init__(self, tokens: Sequence[str]) -> None:
        self._digests = [sha256(token.encode()).digest() for token in tokens]

    def admit(self, authorization: str) -> bool:
        if not self._digests:
            return True
        scheme, _, token = authorization.partition(" ")
        shown = sha256(token.strip().encode("latin-1")).digest()
        same = [hmac.compare_digest(shown, each) for each in self._digests]
        return any(same) and scheme.lower() == "bearer"
