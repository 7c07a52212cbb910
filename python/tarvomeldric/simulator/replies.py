"""The words in which a simulator's behaviour is written down."""

from __future__ import annotations

import json
from collections.abc import Mapping, Sequence
from dataclasses import KW_ONLY, dataclass, field
from enum import Enum
from typing import Any


class Fault(str, Enum):
    """A way in which a provider misbehaves.

    As the reply to a request:

    - ``NULL``: a well-formed answer whose content is null;
    - ``WRONG_SHAPE``: JSON, but without any of the expected members;
    - ``GARBAGE``: status 200 with a body that is not JSON;
    - ``TRUNCATED``: half of the body, then the connection is closed;
    - ``RESET``: the connection is reset (RST) before anything is sent;
    - ``STALL``: nothing is ever sent; the client's time-out decides.

    As the last item of a stream: ``TRUNCATED`` closes the connection, ``RESET`` resets it and
    ``STALL`` falls silent. The other three have no meaning there.
    """

    NULL = "null"
    WRONG_SHAPE = "wrong_shape"
    GARBAGE = "garbage"
    TRUNCATED = "truncated"
    RESET = "reset"
    STALL = "stall"


@dataclass(frozen=True)
class Raw:
    """A piece of a stream: its ``content`` is sent exactly as given, line ends included.

    Comment lines, junk, half an event or bytes that are not UTF-8 are written this way:
    ``Raw(": keep-alive\\n\\n")``, ``Raw("data: {oops\\n\\n")``, ``Raw(b"\\xff\\n")``.
    """

    content: str | bytes


@dataclass(frozen=True)
class Reasoning:
    """A piece of a stream: the text that the model thinks, which is no part of its answer."""

    text: str


@dataclass(frozen=True)
class ToolCall:
    """A tool that the model wants to be called: in an answer or, in several events, in a stream.

    Args:
        name: The function.
        arguments: What to call it with; a text is sent as it is, JSON or not.
        id: What the caller's reply to it names; by default ``call_0``, ``call_1``, ...
    """

    name: str
    arguments: str | Mapping[str, Any] = field(default_factory=dict)
    id: str | None = None


@dataclass(frozen=True)
class Finish:
    """A piece of a stream: the event that ends the answer, with its finish reason."""

    reason: str = "stop"


StreamItem = str | float | Reasoning | ToolCall | Finish | Mapping[str, Any] | Raw | Fault
"""One piece of a stream: a text (sent as a chunk of the answer), a number (a pause in seconds),
:class:`Reasoning`, a :class:`ToolCall`, a :class:`Finish`, a mapping (sent as the event it is), a
:class:`Raw` piece, or a :class:`Fault` that ends it. An error inside a 200 is a mapping, too:
``{"error": {"message": "Overloaded.", "code": 503}}``."""


@dataclass(frozen=True)
class Reply:
    """One reply of the simulator; ``Reply()`` is the helpful default answer.

    Args:
        answer: The answer, put where this kind of request expects it: chat text, embedding
            (numbers, or text for base64), image, transcription. None writes one that fits the
            prompt. With a status other than 200 it is the message of the error.
        status: HTTP status, 200 to 599.
        body: Replaces the whole body: text or bytes are sent as they are, anything else as JSON.
        headers: Response headers besides (or instead of) our own, such as ``{"Retry-After": "2"}``.
            ``{"Connection": "close"}`` also closes the connection after the reply.
        delay: Seconds to wait before the reply begins.
        fault: Misbehave instead of replying properly.
        tool_calls: Tools that the model wants to be called. ``answer`` may then be left out.
        usage: The tokens that were used; None counts words. It stands in chat answers and
            embeddings, and at the end of a stream whose request has ``include_usage``.
        stream: Send server-sent events, whatever the request asked for. See :data:`StreamItem`.
        done: Whether a stream comes to a proper end: ``data: [DONE]`` and, before it, a
            :class:`Finish`, unless ``stream`` has one or holds events or pieces of your own.

    Raises:
        ValueError: The status or a time is out of range, or a fault cannot end a stream.
        TypeError: The body or an event cannot be written as JSON, or a stream item is unknown.
    """

    answer: str | Sequence[float] | None = None
    _: KW_ONLY
    status: int = 200
    body: Any = None
    headers: Mapping[str, str] = field(default_factory=dict)
    delay: float = 0.0
    fault: Fault | None = None
    tool_calls: Sequence[ToolCall] = ()
    usage: Mapping[str, Any] | None = None
    stream: Sequence[StreamItem] | None = None
    done: bool = True

    def __post_init__(self) -> None:
        # A script is checked where it is written, not when a request arrives in another process.
        if not 200 <= self.status <= 599:
            raise ValueError(f"status must be within 200 and 599, not {self.status}")
        if self.delay < 0:
            raise ValueError(f"delay must not be negative, not {self.delay}")
        if not isinstance(self.body, bytes):
            json.dumps(self.body)
        json.dumps(self.usage)
        for call in self.tool_calls:
            json.dumps(call.arguments)
        for item in self.stream or ():
            _check_stream_item(item)


ReplyLike = Reply | Fault | str | int
"""A :class:`Reply`, or short for one: a text (the answer), a number (the status), a fault."""


def as_reply(value: ReplyLike) -> Reply:
    """Return the reply that ``value`` is short for.

    Raises:
        TypeError: ``value`` is none of the forms of :data:`ReplyLike`.
    """
    if isinstance(value, Reply):
        return value
    if isinstance(value, Fault):  # before text: a fault is one, too
        return Reply(fault=value)
    if isinstance(value, str):
        return Reply(value)
    if isinstance(value, int):
        return Reply(status=value)
    raise TypeError(f"a reply is a Reply, a Fault, a text or a status, not {type(value).__name__}")


def _check_stream_item(item: StreamItem) -> None:
    if isinstance(item, Fault):
        if item not in (Fault.TRUNCATED, Fault.RESET, Fault.STALL):
            raise ValueError(f"a stream cannot end in Fault.{item.name}")
    elif isinstance(item, Mapping):
        json.dumps(item)
    elif isinstance(item, ToolCall):
        json.dumps(item.arguments)
    elif isinstance(item, (int, float)):
        if item < 0:
            raise ValueError(f"a pause must not be negative, not {item}")
    elif not isinstance(item, (str, Reasoning, Finish, Raw)):
        raise TypeError(f"a stream cannot hold a {type(item).__name__}")
