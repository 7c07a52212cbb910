"""A streamed answer in its pieces, but for its mark of the end."""

from __future__ import annotations

import json
from collections.abc import Iterator, Mapping, Sequence
from typing import Any

from .answers import chunk_event, prompt_of, tool_call, usage_event, usage_of, words_of
from .replies import Fault, Finish, Raw, Reasoning, Reply, StreamItem, ToolCall

Piece = bytes | float | Fault
"""What a server does next: send bytes, pause, or break off."""

_ARGUMENTS = 8  # characters of a tool call's arguments in one event


def stream_of(kind: str | None, reply: Reply, request: Mapping[str, Any]) -> Iterator[Piece] | None:
    """Return what to stream: the reply's own items, or an answer whose client asked for events."""
    if reply.stream is not None:
        return _pieces(kind, reply.stream, reply, request)
    plain = reply.status == 200 and reply.body is None and reply.fault is None
    if plain and request.get("stream") is True and isinstance(reply.answer, (str, type(None))):
        return _pieces(kind, [*words_of(request, reply), *reply.tool_calls], reply, request)
    return None


def _pieces(
    kind: str | None, items: Sequence[StreamItem], reply: Reply, request: Mapping[str, Any]
) -> Iterator[Piece]:
    calls = 0
    for item in items:
        if isinstance(item, Raw):
            yield item.content if isinstance(item.content, bytes) else item.content.encode()
        elif isinstance(item, (Fault, int, float)):
            yield item
        else:
            yield from map(_written, _events(kind, item, calls, request))
            calls += isinstance(item, ToolCall)
    if reply.done:
        yield from map(_written, _ending(kind, items, reply, request))


def _events(
    kind: str | None,
    item: str | Reasoning | ToolCall | Finish | Mapping[str, Any],
    calls: int,
    request: Mapping[str, Any],
) -> Iterator[Mapping[str, Any]]:
    if isinstance(item, str):
        yield chunk_event(kind, request, {"content": item})
    elif isinstance(item, Reasoning):
        yield chunk_event(kind, request, {"reasoning_content": item.text})
    elif isinstance(item, ToolCall):
        for delta in _growing(item, calls):
            yield chunk_event(kind, request, {"tool_calls": [delta]})
    elif isinstance(item, Finish):
        yield chunk_event(kind, request, {}, item.reason)
    else:
        yield item


def _growing(call: ToolCall, at: int) -> Iterator[dict[str, Any]]:
    """The name comes first, then the arguments, a few characters at a time."""
    whole = tool_call(call, at)
    name, arguments = whole["function"]["name"], whole["function"]["arguments"]
    yield {"index": at, **whole, "function": {"name": name, "arguments": ""}}
    for start in range(0, len(arguments), _ARGUMENTS):
        yield {"index": at, "function": {"arguments": arguments[start : start + _ARGUMENTS]}}


def _ending(
    kind: str | None, items: Sequence[StreamItem], reply: Reply, request: Mapping[str, Any]
) -> Iterator[Mapping[str, Any]]:
    said = [item for item in items if not isinstance(item, (int, float))]
    if said and all(isinstance(item, (str, Reasoning, ToolCall)) for item in said):
        reason = "tool_calls" if any(isinstance(item, ToolCall) for item in said) else "stop"
        yield chunk_event(kind, request, {}, reason)
    options = request.get("stream_options")
    if isinstance(options, dict) and options.get("include_usage") is True:
        text = "".join(item for item in said if isinstance(item, str))
        yield usage_event(kind, request, reply.usage or usage_of(prompt_of(request), text))


def _written(event: Mapping[str, Any]) -> bytes:
    return f"data: {json.dumps(event)}\n\n".encode()
