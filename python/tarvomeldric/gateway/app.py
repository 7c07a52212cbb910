"""The application: what each path comes to."""

from __future__ import annotations

import asyncio
from collections.abc import Callable
from time import perf_counter
from typing import Any

from httpx import HTTPError
from starlette.datastructures import Headers
from starlette.requests import ClientDisconnect
from starlette.types import Receive, Scope, Send

from tarvomeldric import SelfHealingEngine, __version__
from tarvomeldric._live import Live, live_page
from tarvomeldric.clients.passing import Passing
from tarvomeldric.clients.relay import Asked, Relay
from tarvomeldric.clients.replies import Reply, document, refusal
from tarvomeldric.clients.requests import KINDS, Incoming
from tarvomeldric.gateway.config import Config
from tarvomeldric.gateway.entrance import Entrance
from tarvomeldric.gateway.metrics import Metrics
from tarvomeldric.gateway.openapi import description
from tarvomeldric.gateway.visits import Visit


class Gateway:
    """Serves an engine's providers by the rules of a configuration."""

    def __init__(self, config: Config, engine: SelfHealingEngine) -> None:
        view = engine.with_policy(config.policy.calls)
        routes = [table.route for table in config.routes]
        times = config.streams
        self._relay = Relay(view, routes, times.first_token_timeout, times.idle_timeout)
        self._passing = None if config.passthrough is None else Passing(engine, config.passthrough)
        self._entrance = Entrance(config.server)
        self._server = config.server
        self._engine = engine
        self._metrics = Metrics(engine)
        models = list(self._relay.routes.models())
        self._description = document(description(models, bool(config.server.tokens)))
        live = Live(engine)
        self._waiting = 0
        self._pages: dict[str, Callable[[], Reply]] = {
            "health": self._health,
            "metrics": self._metrics.page,
            "openapi.json": lambda: self._description,
            "live": lambda: Reply(200, *live_page()),
            "live.json": lambda: Reply(200, *live.figures()),
        }

    async def __call__(self, scope: Scope, receive: Receive, send: Send) -> None:
        visit = Visit(scope, receive, send)
        began = perf_counter()
        try:
            await self._serve(visit)
        except (ClientDisconnect, HTTPError):
            pass  # an answer that was passed on broke off: the server closes what has no end
        except asyncio.CancelledError:
            await visit.cut_off()
        finally:
            self._metrics.count(visit.route, visit.status, perf_counter() - began)

    async def _serve(self, visit: Visit) -> None:
        incoming = visit.incoming()
        page = self._pages.get(incoming.operation) if incoming.method in ("GET", "HEAD") else None
        is_open = page is not None and incoming.operation == "health"
        refused = self._entrance.refused(visit.headers, is_open)
        if refused is not None:
            await visit.answer(refused)
        elif page is not None:
            await visit.answer(page())
        elif self._waiting >= self._server.max_waiting:
            reply = refusal(429, "too many requests are under way", "too_many_requests")
            reply.headers["retry-after"] = "1"
            await visit.answer(reply)
        else:
            self._waiting += 1
            try:
                await self._ask(visit, incoming)
            finally:
                self._waiting -= 1

    async def _ask(self, visit: Visit, incoming: Incoming) -> None:
        healed = incoming.method == "POST" and incoming.operation in KINDS
        if healed and not _is_json(visit.headers):
            told = "the body must be application/json, and not be compressed"
            return await visit.answer(refusal(415, told, "unsupported_media_type"))
        if healed or self._passing is not None:
            content = await visit.body(self._server.max_body, self._server.body_timeout)
            if isinstance(content, Reply):
                return await visit.answer(content)
            incoming = incoming._replace(content=content)
        taken = self._relay.take(incoming)
        if taken is None and self._passing is None:
            told = f"not served here: {incoming.method} {incoming.path}"[:200]
            taken = refusal(404, told, "not_found")
        if isinstance(taken, Reply):
            return await visit.answer(taken)
        with visit.presence():
            answer = await self._answered(visit, incoming, taken)
            if not isinstance(answer, Reply):
                await self._hand_on(visit, answer)
        if isinstance(answer, Reply):
            return await visit.answer(answer)
        return await visit.end()

    async def _answered(self, visit: Visit, incoming: Incoming, asked: Asked | None) -> Any:
        if asked is None:
            assert self._passing is not None
            return await self._passing.answer_awaited(incoming)
        visit.route = asked.route
        return await asked.answer_awaited()

    async def _hand_on(self, visit: Visit, answer: Any) -> None:
        self._metrics.streams.inc()
        try:
            await visit.hand_on(answer)
        finally:
            self._metrics.streams.dec()
            await answer.aclose()

    def _health(self) -> Reply:
        """It is about this server: a provider that is away is healed, and no reason to restart it."""
        available = self._engine.get_available_providers()
        told = {"status": "ok", "version": __version__, "providers_available": len(available)}
        return document(told)


def _is_json(headers: Headers) -> bool:
    kind = headers.get("content-type", "").partition(";")[0].strip().lower()
    return kind == "application/json" and headers.get("content-encoding", "identity") == "identity"
