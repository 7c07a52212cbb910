"""From a client's request to its reply, blocking and awaited; nothing here knows how they travel."""

from __future__ import annotations

import math
from collections.abc import AsyncGenerator, Generator, Iterable, Sequence
from typing import Any
from urllib.parse import unquote

from tarvomeldric import SelfHealingEngine
from tarvomeldric._engine import CallPolicy, EngineView, StreamInterrupted
from tarvomeldric._streams import Stream, SyncStream
from tarvomeldric.clients.replies import (
    HEALED_FAILURES,
    Reply,
    document,
    error_body,
    failed,
    headers_of,
    refusal,
    told_of,
)
from tarvomeldric.clients.requests import KINDS, Body, Incoming, RefusedError, options_of, sent_on
from tarvomeldric.clients.routes import Route, Routes


class Streamed:
    """An answer whose pieces come as they are made; close it after the last one, or before.

    Attributes:
        status: 200.
        headers: Those of the answer.
    """

    def __init__(self, stream: Any, headers: dict[str, str], records: Sequence[Any]) -> None:
        self.status = 200
        self.headers = headers
        self._stream = stream
        self._records = records  # of those that may have answered

    def pieces(self) -> Generator[bytes, None, None]:
        """What the provider sent; an error in the same form where it broke off."""
        try:
            yield from self._stream
        except StreamInterrupted as error:
            yield _broken_off(error, self._records)
        finally:
            self._stream.close()

    async def apieces(self) -> AsyncGenerator[bytes, None]:
        """The same, awaited."""
        try:
            async for piece in self._stream:
                yield piece
        except StreamInterrupted as error:
            yield _broken_off(error, self._records)
        finally:
            await self._stream.aclose()

    def close(self) -> None:
        self._stream.close()

    async def aclose(self) -> None:
        await self._stream.aclose()


def _broken_off(error: StreamInterrupted, records: Sequence[Any]) -> bytes:
    told = error_body(told_of(error, records), "stream_interrupted")
    return b"\n\ndata: " + told + b"\n\n"


class _Relayed(SyncStream):
    _opening = "_relay_sync"


class _RelayedAwaited(Stream):
    _opening = "_relay"


class Asked:
    """A request that is to be handed on to whom its route names."""

    def __init__(self, relay: Relay, incoming: Incoming, kind: str, timeout: float | None) -> None:
        options = options_of(incoming.headers)
        body = Body(incoming.content)
        route = relay.route(body.model)
        self._relay = relay
        self._route = route
        self._view = relay.view_until(options.deadline, timeout)
        streamed = body.streamed and kind != "embeddings"
        self._times = relay.times(timeout, body.choices) if streamed else None
        task_type = route.task_type if options.task_type is None else options.task_type
        self._arguments: dict[str, Any] = {
            "encode": body.encode,
            "route": dict(route.providers),
            "headers": sent_on(incoming.headers),
            "model": body.model,
            "prompt_length": body.prompt_length,
            "api_type": kind,
            "task_type": task_type,
            "has_schema": body.has_schema,
            "contract": route.contract,
            "request_id": options.request_id,
        }

    @property
    def route(self) -> str:
        """The name of the route, or the model that providers list."""
        return self._route.name

    def answer(self) -> Reply | Streamed:
        """Waits for the answer, or for its beginning."""
        try:
            if self._times is None:
                return _whole(*self._view._relay_sync(None, **self._arguments))
            stream = _Relayed(self._view, self._arguments, self._times)
            stream.__enter__()
        except HEALED_FAILURES as error:
            return failed(error, self._relay.records(self._route))
        return self._streamed(stream)

    async def answer_awaited(self) -> Reply | Streamed:
        """The same, awaited."""
        try:
            if self._times is None:
                return _whole(*await self._view._relay(None, **self._arguments))
            stream = _RelayedAwaited(self._view, self._arguments, self._times)
            await stream.__aenter__()
        except HEALED_FAILURES as error:
            return failed(error, self._relay.records(self._route))
        return self._streamed(stream)

    def _streamed(self, stream: Any) -> Streamed:
        headers = headers_of(stream._connection.attempt, stream._result)
        return Streamed(stream, headers, self._relay.records(self._route))


def _whole(result: Any, reply: Any) -> Reply:
    return Reply(reply.status, headers_of(reply, result), reply.content)


class Relay:
    """Hands the requests of other libraries' clients on to an engine's providers."""

    def __init__(
        self,
        engine: SelfHealingEngine | EngineView,
        routes: Iterable[Route] = (),
        first_token_timeout: float = 8.0,
        idle_timeout: float = 30.0,
    ) -> None:
        if isinstance(engine, EngineView):
            self._view = engine
        elif isinstance(engine, SelfHealingEngine):
            self._view = engine.with_policy(CallPolicy())
        else:
            raise TypeError(
                f"engine must be SelfHealingEngine or EngineView, not {type(engine).__name__}"
            )
        self.engine: Any = self._view.engine
        for seam in ("_execute", "_execute_sync"):
            replaced = getattr(type(self.engine), seam) is not getattr(SelfHealingEngine, seam)
            if replaced or seam in vars(self.engine):
                raise TypeError(f"the engine's {seam} is replaced, which gives no bytes to hand on")
        self.routes = Routes(self.engine, routes)
        self._first_token_timeout = _seconds("first_token_timeout", first_token_timeout)
        self._idle_timeout = _seconds("idle_timeout", idle_timeout)

    def take(self, incoming: Incoming, timeout: float | None = None) -> Asked | Reply | None:
        """What a request comes to: something to ask, an answer already, or None when nothing is known of it.

        `timeout` is what the client waits for anything, in seconds.
        """
        operation = incoming.operation
        try:
            if incoming.method == "POST" and operation in KINDS:
                return Asked(self, incoming, KINDS[operation], timeout)
            if incoming.method == "GET" and operation.split("/")[0] == "models":
                return self._models(unquote(operation.partition("/")[2]))
        except RefusedError as error:
            return refusal(error.status, str(error), error.code)
        return None

    def _models(self, name: str) -> Reply:
        served = [_model(model, owner) for model, owner in self.routes.models().items()]
        if not name:
            return document({"object": "list", "data": served})
        for model in served:
            if model["id"] == name:
                return document(model)
        raise _unknown_model(name)

    def route(self, model: str) -> Route:
        found = self.routes.find(model)
        if found is None:
            raise _unknown_model(model)
        return found

    def view_until(self, *deadlines: float | None) -> EngineView:
        """What keeps the shortest deadline, in seconds: the policy's or one of these."""
        policy = self._view.policy
        given = [seconds for seconds in (policy.deadline, *deadlines) if seconds is not None]
        if not given or min(given) == policy.deadline:
            return self._view
        return self._view.with_policy(policy.replace(deadline=min(given)))

    def times(self, timeout: float | None, choices: int) -> dict[str, Any]:
        most = math.inf if timeout is None else timeout
        return {
            "first_token_timeout": min(self._first_token_timeout, most),
            "idle_timeout": min(self._idle_timeout, most),
            "require_end": True,
            "choices": choices,
            "raw": True,
        }

    def records(self, route: Route) -> list[Any]:
        """Of those that the route names and the policy does not leave out."""
        registered, only = self.engine._providers, self._view.policy.providers
        names = [name for name in route.providers if only is None or name in only]
        return [registered[name] for name in names if name in registered]


def _model(name: str, owner: str) -> dict[str, Any]:
    return {"id": name, "object": "model", "created": 0, "owned_by": owner}


def _unknown_model(name: str) -> RefusedError:
    return RefusedError(404, f"The model {name!r} has no route"[:200], "model_not_found")


def _seconds(name: str, given: float) -> float:
    if isinstance(given, bool) or not isinstance(given, int | float):
        raise TypeError(f"{name} must be float, not {type(given).__name__}")
    if not (given > 0 and math.isfinite(given)):
        raise ValueError(f"{name} must be a positive, finite number of seconds")
    return given
