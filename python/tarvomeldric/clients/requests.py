"""What a client asks for: its path, its body and the few headers that mean something here."""

from __future__ import annotations

import json
import math
import re
from collections.abc import Callable, Mapping
from dataclasses import dataclass
from typing import Any, NamedTuple

# The operations that are healed, by the end of their path.
KINDS = {"chat/completions": "chat", "completions": "completions", "embeddings": "embeddings"}

SENT_ON = ("idempotency-key", "openai-organization", "openai-project")
_OURS = "x-tarvomeldric-"
_ACCEPTED = ("task-type", "deadline", "request-id")

_KNOWN = re.compile(rf"(?:^|/)({'|'.join(KINDS)})/*$")
_BASE = re.compile(r"^/(?:.*?/)?v\d+(?=/)")
SENDABLE = re.compile(r"[\x20-\x7e]*")
_MOST_MEMBERS = 1000  # of a body; the API has some dozens
_MOST_CHOICES = 9999
_SPACE = re.compile(r"[ \t\r\n]*")


class RefusedError(Exception):
    """A request that is refused here. The status, and the error's type and code in the answer."""

    def __init__(self, status: int, message: str, code: str | None = None) -> None:
        super().__init__(message)
        self.status = status
        self.code = code


class Incoming(NamedTuple):
    """One request of a client, whatever it came by.

    The names of headers are in lower case, and the bytes of their values those of Latin-1.
    """

    method: str
    path: str
    query: bytes
    headers: Mapping[str, str]
    content: bytes

    @property
    def operation(self) -> str:
        """One of those that are healed, below any base; else the path below `/v1`, or the whole."""
        known = _KNOWN.search(self.path)
        return known[1] if known else self.rest.strip("/")

    @property
    def rest(self) -> str:
        """The path below `/v1`, or the whole, as it is."""
        return _BASE.sub("", self.path)


@dataclass(frozen=True)
class Options:
    """What a client may say about healing."""

    task_type: str | None = None
    deadline: float | None = None  # seconds
    request_id: str | None = None


def sent_on(headers: Mapping[str, str]) -> dict[str, str]:
    """The headers that providers get to see. Raises RefusedError for one that nobody could send."""
    kept = {name: value for name in SENT_ON if (value := headers.get(name))}
    for name, value in kept.items():
        if not SENDABLE.fullmatch(value):
            raise RefusedError(400, f"{name} must be printable ASCII")
    return kept


def options_of(headers: Mapping[str, str]) -> Options:
    """Raises RefusedError for what is not understood."""
    given = {name[len(_OURS) :]: headers[name] for name in headers if name.startswith(_OURS)}
    for name in given:
        if name not in _ACCEPTED:
            raise RefusedError(400, f"unknown header: {_OURS}{name}")
    deadline = given.get("deadline")
    return Options(
        given.get("task-type"),
        None if deadline is None else _seconds(deadline),
        given.get("request-id"),
    )


def _seconds(given: str) -> float:
    try:
        seconds = float(given)
    except ValueError:
        seconds = math.nan
    if not 0 < seconds < math.inf:
        raise RefusedError(400, f"{_OURS}deadline must be a positive number of seconds")
    return seconds


class Body:
    """A request's body, which goes out as it is but for the model.

    Attributes:
        fields: What it says.
        model: The model that the client names.
    """

    def __init__(self, content: bytes) -> None:
        try:
            text = content.decode()
            self.fields, spans = _members(text)
        except (ValueError, RecursionError) as error:
            raise RefusedError(400, f"the body is not a JSON object: {error}"[:200]) from None
        self.model: str = self.fields.get("model")  # type: ignore[assignment]
        if not isinstance(self.model, str) or not self.model:
            raise RefusedError(400, "model must be a text that is not empty")
        if not isinstance(self.fields.get("stream") or False, bool):
            raise RefusedError(400, "stream must be true or false")
        (start, end), *others = spans["model"]
        if others:
            raise RefusedError(400, "model is there twice")
        self._before, self._after = text[:start].encode(), text[end:].encode()

    def encode(self, model: str) -> bytes:
        """The body as it is, asking for this model."""
        return self._before + json.dumps(model).encode() + self._after

    @property
    def streamed(self) -> bool:
        return bool(self.fields.get("stream"))

    @property
    def choices(self) -> int:
        """How many answers are asked for."""
        wanted = self.fields.get("n")
        if isinstance(wanted, float) and wanted.is_integer() and 1 <= wanted <= _MOST_CHOICES:
            return int(wanted)
        return 1

    @property
    def has_schema(self) -> bool:
        wanted = self.fields.get("response_format")
        return isinstance(wanted, dict) and wanted.get("type") == "json_schema"

    @property
    def prompt_length(self) -> int:
        """The characters of what is asked, over all messages."""
        messages = self.fields.get("messages")
        if isinstance(messages, list):
            contents = [it.get("content") for it in messages if isinstance(it, dict)]
        else:
            contents = [self.fields.get("prompt"), self.fields.get("input")]
        return sum(map(_length, contents))


def _length(content: Any) -> int:
    """Of a text, or of those in a list; a part of a message has its own as a member."""
    if isinstance(content, str):
        return len(content)
    if not isinstance(content, list):
        return 0
    texts = (part.get("text") if isinstance(part, dict) else part for part in content)
    return sum(len(text) for text in texts if isinstance(text, str))


def _refuse_constant(name: str) -> Any:
    raise ValueError(f"{name} is not JSON")


# A body may hold millions of numbers, and only one of them is looked at: floats are made at once,
# and of any number of digits.
_decoder = json.JSONDecoder(parse_int=float, parse_constant=_refuse_constant)


def _members(text: str) -> tuple[dict[str, Any], dict[str, list[tuple[int, int]]]]:
    """The members of a JSON object, and where in the text each value stands."""
    fields: dict[str, Any] = {}
    spans: dict[str, list[tuple[int, int]]] = {}
    members, at = 0, _expect("{", text, 0)
    if text[at : at + 1] == "}":
        at += 1
    else:
        while True:
            name, at = _value(text, at)
            if not isinstance(name, str):
                raise ValueError("a name must be a text")
            start = _expect(":", text, at)
            fields[name], end = _value(text, start)
            spans.setdefault(name, []).append((start, end))
            members += 1
            at = _skip(text, end)
            if text[at : at + 1] == "}":
                at += 1
                break
            at = _expect(",", text, at)
            if members > _MOST_MEMBERS:
                raise ValueError(f"it has more than {_MOST_MEMBERS} members")
    if _skip(text, at) != len(text):
        raise ValueError("there is more after its end")
    return fields, spans


def _skip(text: str, at: int) -> int:
    space = _SPACE.match(text, at)
    assert space is not None
    return space.end()


def _expect(sign: str, text: str, at: int) -> int:
    at = _skip(text, at)
    if text[at : at + 1] != sign:
        raise ValueError(f"{sign!r} expected at {at}")
    return _skip(text, at + 1)


_value: Callable[[str, int], tuple[Any, int]] = _decoder.raw_decode
