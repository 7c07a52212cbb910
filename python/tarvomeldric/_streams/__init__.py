"""Answers that are handed on while they are being made, healed until their first output."""

from __future__ import annotations

import contextlib
import math
from collections.abc import AsyncGenerator, AsyncIterator, Generator, Iterator, Mapping, Sequence
from time import monotonic
from types import TracebackType
from typing import Any

from tarvomeldric._engine import APIError, CallPolicy, CallResult, EngineView, StreamInterrupted


class _Stream:
    """What both ways of waiting share: the arguments, the events' way out, and the end."""

    _opening: str  # the caller's operation

    def __init__(self, caller: Any, arguments: dict[str, Any], times: dict[str, Any]) -> None:
        from tarvomeldric._streams.opening import Settings

        self._caller = caller
        self._arguments = arguments
        total = times.pop("total_timeout", None)
        self._settings = Settings(**times)
        self._total = total
        self._result: CallResult | None = None
        self._connection: Any = None
        self._lease: Any = None
        self._over = False
        self._busy = False

    @property
    def result(self) -> CallResult:
        """What the answer came to, once it is over: the words as `text`, and all that a call tells.

        Raises:
            RuntimeError: The stream is not over yet, broke off, or was left before its end.
        """
        if self._result is None or not self._over:
            raise RuntimeError("the stream has not come to its end")
        return self._result

    def _begin(self) -> Any:
        """What opens it: the total bounds what comes before the first output, too."""
        if self._settings.begun:
            raise RuntimeError("a stream is entered once")
        self._settings.begun = True
        return getattr(self._bounded_caller(), self._opening)

    def _bounded_caller(self) -> Any:
        if self._total is None:
            return self._caller
        self._settings.end = monotonic() + self._total
        policy = self._caller.policy if isinstance(self._caller, EngineView) else CallPolicy()
        seconds = min(self._total, policy.deadline or math.inf)
        return self._caller.with_policy(policy.replace(deadline=seconds))

    def _opened(self, opened: tuple[Any, Any, Any]) -> None:
        self._result, self._connection, self._lease = opened
        self._settings.newest = None

    def _reading(self) -> None:
        """Before an event is asked for."""
        if self._connection is None:
            raise RuntimeError("a stream is opened by its `with` block")
        if self._busy:
            raise RuntimeError("the stream is being read by another task or thread")
        self._busy = True

    def _ended(self) -> None:
        """There are no more events: because that was the end, or because it was left or broke off."""
        if self._lease is None:
            return
        if not self._connection.reader.is_over:  # a read was cancelled, which spoils the connection
            raise self._interrupted(APIError("a read was broken off"), blame=False)
        self._over = True
        reader = self._connection.reader
        assert self._result is not None
        self._result._complete(reader.text or None, reader.response())
        self._leave("answered")

    def _leave(self, outcome: str = "abandoned") -> None:
        """Nobody wants more of it."""
        if self._lease is not None and self._result is not None:
            lease, self._lease = self._lease, None
            try:
                lease.succeed(self._result.latency_ms)
            finally:  # a listener may interrupt
                lease.tell_end(outcome, self._connection.reader.usage)

    def _broken(self, error: Exception) -> Exception:
        """What reading raises after this failure."""
        if not self._connection.is_failure(error):  # a mistake of the reader's own code
            self._leave()
            return error
        blame = self._lease is not None and self._connection.is_providers_fault()
        return self._interrupted(error, blame)

    def _interrupted(self, error: Exception, blame: bool) -> StreamInterrupted:
        own = isinstance(error, APIError)
        told = str(error) if own else type(error).__name__
        if blame:
            told = self._lease.fail(error)
        self._leave("failed")
        at = self._result
        assert at is not None
        failure = StreamInterrupted(
            f"Stream interrupted: {told}",
            text=self._connection.text,
            provider=at.provider,
            model=at.model,
        )
        failure.attempts = at.attempts
        if isinstance(error, APIError):
            failure.status_code = error.status_code
            failure.__cause__ = error
        return failure


class Stream(_Stream):
    """A streamed answer, awaited: `async with`, then `async for` over its events.

    The events are those of the provider, as it sent them. Until the first output a failure is healed
    like that of any call; after it, the answer is handed on as it comes, and what breaks it off
    raises StreamInterrupted with the words so far. Leaving the block closes the connection.

    Attributes:
        text: The words alone, to be iterated over instead of the events.
        result: The CallResult, once the stream is over.
    """

    _opening = "_open_stream"
    _events: AsyncGenerator[Any, None]

    async def __aenter__(self) -> Stream:
        try:
            self._opened(await self._begin()(self._settings, **self._arguments))
        finally:
            if self._settings.newest is not None:  # an answer that did not count
                await self._settings.newest.aclose()
        self._events = self._connection.events()
        await anext(self._events)
        return self

    async def __aexit__(
        self, _: type[BaseException] | None, __: BaseException | None, ___: TracebackType | None
    ) -> None:
        await self.aclose()

    def __aiter__(self) -> AsyncIterator[Any]:
        return self

    async def __anext__(self) -> Any:
        self._reading()
        try:
            return await anext(self._events)
        except StopAsyncIteration:
            self._ended()
            raise
        except Exception as error:
            failure = self._broken(error)
        finally:
            self._busy = False
        raise failure  # out here, where nothing that must not be shown is its context

    @property
    def text(self) -> AsyncIterator[str]:
        """The words of the answer, as they come."""
        return self._words()

    async def _words(self) -> AsyncGenerator[str, None]:
        async for event in self:
            for word in _words_in(event):
                yield word

    async def aclose(self) -> None:
        """Closes the connection. May be called twice."""
        if self._connection is not None:
            self._leave()
            await self._connection.aclose()
            with contextlib.suppress(RuntimeError):  # another task is reading; it hears of the end
                await self._events.aclose()


class SyncStream(_Stream):
    """The same, blocking: `with`, then `for` over its events."""

    _opening = "_open_stream_sync"
    _events: Generator[Any, None, None]

    def __enter__(self) -> SyncStream:
        try:
            self._opened(self._begin()(self._settings, **self._arguments))
        finally:
            if self._settings.newest is not None:
                self._settings.newest.close()
        self._events = self._connection.events()
        next(self._events)
        return self

    def __exit__(
        self, _: type[BaseException] | None, __: BaseException | None, ___: TracebackType | None
    ) -> None:
        self.close()

    def __iter__(self) -> Iterator[Any]:
        return self

    def __next__(self) -> Any:
        self._reading()
        try:
            return next(self._events)
        except StopIteration:
            self._ended()
            raise
        except Exception as error:
            failure = self._broken(error)
        finally:
            self._busy = False
        raise failure  # out here, where nothing that must not be shown is its context

    @property
    def text(self) -> Iterator[str]:
        """The words of the answer, as they come."""
        for event in self:
            yield from _words_in(event)

    def close(self) -> None:
        """Closes the connection. May be called twice."""
        if self._connection is not None:
            self._leave()
            self._connection.close()
            with contextlib.suppress(ValueError):  # another thread is reading
                self._events.close()


def _words_in(event: Any) -> Iterator[str]:
    choices = event.get("choices") if isinstance(event, dict) else None
    for choice in choices if isinstance(choices, list) else ():
        if isinstance(choice, dict) and choice.get("index", 0) == 0:
            delta = choice.get("delta")
            word = delta.get("content") if isinstance(delta, dict) else choice.get("text")
            if isinstance(word, str) and word:
                yield word


def _made(
    kind: type[Any],
    caller: Any,
    /,
    prompt: str | None = None,
    model: str | None = None,
    task_type: str = "",
    has_schema: bool = False,
    semantic_domain: Any = None,
    contract: Any = None,
    api_type: str = "chat",
    *,
    messages: Sequence[Mapping[str, Any]] | None = None,
    first_token_timeout: float = 8.0,
    idle_timeout: float = 30.0,
    total_timeout: float | None = None,
    include_usage: bool = False,
    require_end: bool = True,
    **options: Any,
) -> Any:
    if (prompt is None) if messages is None else prompt:
        raise TypeError("a stream takes either a prompt or messages")
    if messages is not None:
        options["messages"] = list(messages)
        if isinstance(messages, str) or not all(isinstance(it, Mapping) for it in messages):
            raise TypeError("messages must be a sequence of mappings")
        prompt = "\n".join(_text_of(message) for message in options["messages"])
    if include_usage:
        given = options.get("stream_options")
        options["stream_options"] = {**(given or {}), "include_usage": True}
    times: dict[str, Any] = {
        "first_token_timeout": first_token_timeout,
        "idle_timeout": idle_timeout,
        "total_timeout": total_timeout,
    }
    for name, seconds in times.items():
        if seconds is None and name == "total_timeout":
            continue
        if isinstance(seconds, bool) or not isinstance(seconds, int | float):
            raise TypeError(f"{name} must be float, not {type(seconds).__name__}")
        if not (seconds > 0 and math.isfinite(seconds)):
            raise ValueError(f"{name} must be a positive, finite number of seconds")
    given_timeout = options.get("timeout")
    if isinstance(given_timeout, int | float):
        times["first_token_timeout"] = min(first_token_timeout, given_timeout)
    arguments = {
        "prompt": prompt,
        "model": model,
        "task_type": task_type,
        "has_schema": has_schema,
        "semantic_domain": semantic_domain,
        "contract": contract,
        "api_type": api_type,
        **options,
    }
    wanted = options.get("n")
    choices = wanted if isinstance(wanted, int) else 1
    return kind(caller, arguments, {**times, "require_end": require_end, "choices": choices})


def _text_of(message: Mapping[str, Any]) -> str:
    content = message.get("content")
    if isinstance(content, str):
        return content
    parts = content if isinstance(content, list) else ()
    return "\n".join(str(part.get("text") or "") for part in parts if isinstance(part, dict))


def stream(caller: Any, /, *arguments: Any, **options: Any) -> Stream:
    """What `stream` of an engine and of its views makes."""
    made: Stream = _made(Stream, caller, *arguments, **options)
    return made


def stream_sync(caller: Any, /, *arguments: Any, **options: Any) -> SyncStream:
    """What `stream_sync` makes."""
    made: SyncStream = _made(SyncStream, caller, *arguments, **options)
    return made
