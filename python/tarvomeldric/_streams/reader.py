"""What the events of a streamed answer say, however they arrive."""

from __future__ import annotations

import contextlib
import json
import re
from collections import deque
from typing import Any

from tarvomeldric._engine import APIError, _EventStream

_HELD_EVENTS = 64
_HELD_BYTES = 256 * 1024
WHOLE_BYTES = 10 * 1024 * 1024

_OUTPUT = ("content", "refusal", "reasoning", "reasoning_content", "tool_calls", "function_call")

_COMPLETE = ("data", ":", "\r", "\n")  # how a line begins behind which no event is half told
_LINE = re.compile(r"[^\r\n]*(?:\r\n|\n|\r)")  # events know these ends and no others

_scan = json.JSONDecoder().raw_decode


class EarlyEndError(Exception):
    """The connection ended before the answer did."""


class Reader:
    """Takes the pieces of one reply; gives its events, and what they come to.

    Attributes:
        events: Those that nobody has had yet.
        is_open: Whether the answer has begun: its first output is here, or so much before it that
            nothing better is to be expected, or its proper end.
        is_over: Whether nothing more comes that is wanted.
        is_whole: Whether every choice has its finish reason; what breaks after that breaks no answer.
        is_done: Whether the provider said so.
        size: The characters of the data events so far.
    """

    def __init__(self, require_end: bool, choices: int = 1) -> None:
        self.events: deque[Any] = deque()
        self.is_open = self.is_over = self.is_whole = self.is_done = False
        self.size = self._count = 0
        self._require_end = require_end
        self._choices = choices  # that were asked for
        self._lines = _EventStream(lenient=True)
        self._cut: Exception | None = None  # what was wrong with a line without its end
        self._strange = ""  # the beginning of a reply that has no event so far
        self._begun: set[int] = set()  # the choices, and those with a finish reason
        self._finished: set[int] = set()
        self._parts: list[str] = []
        self._tool_calls: dict[int, dict[str, Any]] = {}
        self._finish_reason: Any = None
        self._about: dict[str, Any] = {}

    def feed(self, piece: str) -> bool:
        """Takes a piece; whether it completed a data event. Pings are none.

        Raises:
            APIError: The provider tells of a failure in the middle.
            ValueError: A data line that is no JSON, or one without an end.
        """
        whole = self._judge(piece)
        if self._lines.unfinished > WHOLE_BYTES:
            raise ValueError("a line of more than 10 MiB")
        return whole

    def _judge(self, piece: str) -> bool:
        if self.size == 0 and len(self._strange) < _HELD_BYTES:
            piece = piece if self._strange else piece.removeprefix("\ufeff")
            self._strange += piece
        before = self.size
        for payload in self._lines.feed(piece):
            event = _decoded(payload)
            if isinstance(event, dict) and event.get("type") == "ping":
                if self.is_open:
                    self._hand_out(event)
                continue
            self.size += len(payload)
            self._take(event)
        if self._lines.done and not self.is_done:
            self.is_open = self.is_done = True
            self._hear_the_end()
        return self.size > before

    def _hear_the_end(self) -> None:
        self.is_over = True

    def _hand_out(self, event: Any) -> None:
        self.events.append(event)

    def end(self) -> None:
        """The connection came to its end. EarlyEndError when the answer did not."""
        try:
            self._judge("\n")
        except ValueError as error:  # the connection ended within a line
            self._cut = error
        if self.size == 0 and not self.is_done:
            self._refuse_what_is_no_stream()
        if not (self.is_done or self.is_whole) and (self._cut or self._require_end):
            raise EarlyEndError("the connection ended before the answer did") from self._cut
        self.is_open = self.is_over = True

    def _refuse_what_is_no_stream(self) -> None:
        """A page, or a failure told in the body of a 200."""
        with contextlib.suppress(ValueError):
            told = json.loads(self._strange)
            if isinstance(told, dict) and told.get("error"):
                raise _told_by_provider(told["error"])
        if self._strange.strip():
            raise EarlyEndError("the answer holds no events")

    @property
    def text(self) -> str:
        """The words of the answer so far."""
        return "".join(self._parts)

    @property
    def usage(self) -> Any:
        """What the provider counted, as it said so; None where it has not."""
        return self._about.get("usage")

    def response(self) -> dict[str, Any]:
        """The answer in the form of one that is not streamed, as far as it has come."""
        message: dict[str, Any] = {"role": "assistant", "content": self.text or None}
        if self._tool_calls:
            message["tool_calls"] = [self._tool_calls[at] for at in sorted(self._tool_calls)]
        choice = {"index": 0, "message": message, "finish_reason": self._finish_reason}
        return {**self._about, "choices": [choice]}

    def _take(self, event: Any) -> None:
        if isinstance(event, dict):
            if event.get("error"):
                raise _told_by_provider(event["error"])
            self._note(event)
        self._hand_out(event)
        self._count += 1
        if self._count > _HELD_EVENTS or self.size > _HELD_BYTES:
            self.is_open = True

    def _note(self, event: dict[str, Any]) -> None:
        if not self._about or event.get("usage") is not None:  # the others stay as they were
            for name in ("id", "model", "created", "usage"):
                if event.get(name) is not None:
                    self._about[name] = event[name]
        choices = event.get("choices")
        for choice in choices if isinstance(choices, list) else ():
            if isinstance(choice, dict):
                self._note_choice(choice)

    def _note_choice(self, choice: dict[str, Any]) -> None:
        said = choice.get("delta")
        if not isinstance(said, dict):
            said = {"content": choice.get("text")}
        index = choice.get("index") or 0
        reason = choice.get("finish_reason")
        if reason or index not in self._begun:
            self._begun.add(index)
            if reason:
                self._finished.add(index)
                self.is_open = True
            self.is_whole = self._begun == self._finished and len(self._begun) >= self._choices
        if not self.is_open and any(map(said.get, _OUTPUT)):
            self.is_open = True
        if index != 0:
            return
        self._finish_reason = reason or self._finish_reason
        if isinstance(content := said.get("content"), str):
            self._parts.append(content)
        calls = said.get("tool_calls")
        for call in calls if isinstance(calls, list) else ():
            if isinstance(call, dict):
                self._join_call(call)

    def _join_call(self, piece: dict[str, Any]) -> None:
        """Each tool's call comes in pieces; its arguments are a text that grows."""
        at = piece.get("index")
        call = self._tool_calls.setdefault(at if isinstance(at, int) else len(self._tool_calls), {})
        for name, value in piece.items():
            if name == "function" and isinstance(value, dict):
                function = call.setdefault("function", {"name": "", "arguments": ""})
                for part, said in value.items():
                    known = function.get(part)
                    joined = isinstance(known, str) and isinstance(said, str)
                    function[part] = known + said if joined else (said or known)
            elif name != "index" and value is not None:
                call[name] = value


class RawReader(Reader):
    """Takes the pieces of one reply; gives them back as they came, as far as they are in order.

    What stands before the data of an event waits for them: half an event must not be handed out. The
    bytes that follow `[DONE]` are part of the reply, too.
    """

    def __init__(self, require_end: bool, choices: int = 1) -> None:
        super().__init__(require_end, choices)
        self._line: list[str] = []  # the pieces of one that is not complete
        self._unfinished = 0
        self._good: list[str] = []  # lines that wait for others
        self._handed = 0  # the bytes that were handed out

    def feed(self, piece: str) -> bool:
        end = max(piece.rfind("\n"), piece.rfind("\r")) + 1
        if end:
            lines = _LINE.findall("".join([*self._line, piece[:end]]))
            self._line, self._unfinished = [], 0
        self._line.append(piece[end:])
        self._unfinished += len(piece) - end
        if self._unfinished > WHOLE_BYTES:
            raise ValueError("a line of more than 10 MiB")
        return self._take_lines(lines) if end else False

    def _take_lines(self, lines: list[str]) -> bool:
        before, count = self.size, len(self._good)
        try:
            for line in lines:
                self._judge(line)
                self._good.append(line)
                if line.startswith(_COMPLETE):
                    count = len(self._good)
        finally:
            if count:
                self._hand_over("".join(self._good[:count]).encode())
                del self._good[:count]
        return self.size > before

    def _hand_over(self, content: bytes) -> None:
        self.events.append(content)
        self._handed += len(content)
        if self._handed > _HELD_BYTES:  # of comments, for instance
            self.is_open = True

    def end(self) -> None:
        rest = "".join(self._line)
        self._judge(rest)
        super().end()
        if rest := "".join(self._good) + ("" if self._cut else rest):
            self.events.append(rest.encode())

    def _hear_the_end(self) -> None:
        self.is_whole = True

    def _hand_out(self, event: Any) -> None:
        pass


def _decoded(payload: str) -> Any:
    """What `json.loads` gives, without its search for white space, which is half of its time."""
    try:
        event, end = _scan(payload)
    except ValueError:
        end = -1
    return event if end == len(payload) else json.loads(payload)


def _told_by_provider(error: Any) -> APIError:
    told = error if isinstance(error, str) else json.dumps(error, ensure_ascii=False)
    code = error.get("code") if isinstance(error, dict) else None
    status = code if isinstance(code, int) and 400 <= code <= 599 else None
    return APIError(f"The stream holds an error: {told[:200]}", status)
