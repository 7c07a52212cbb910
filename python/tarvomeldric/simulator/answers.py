"""What a well-behaved provider answers to each kind of request."""

from __future__ import annotations

import base64
import hashlib
import json
from collections.abc import Mapping
from functools import lru_cache
from struct import pack
from typing import Any

from .replies import Reply, ToolCall

_ECHOED_CHARACTERS = 200
_EMBEDDING_SIZE = 8

_KINDS = {
    "/chat/completions": "chat",
    "/completions": "completions",
    "/embeddings": "embeddings",
    "/images/generations": "images",
    "/audio/transcriptions": "audio",
}

# Worded as providers word them: the diagnoser tells faults apart by such phrases.
_ERROR_MESSAGES = {
    400: "Invalid request: a parameter is not supported.",
    401: "Unauthorized: invalid API key provided.",
    402: "Insufficient balance.",
    403: "Forbidden: this key may not use the model.",
    404: "The model does not exist.",
    408: "Request timeout.",
    429: "Rate limit reached: too many requests.",
    500: "Internal server error.",
    502: "Bad gateway.",
    503: "Service unavailable.",
    504: "Gateway timeout.",
    529: "Overloaded.",
}


def request_kind(path: str, request: Mapping[str, Any]) -> str | None:
    """Return which kind of answer a request expects, or None when its path is not ours.

    Kinds without an endpoint of their own come to the chat endpoint; the members of their body
    tell what the client will look for in the answer.
    """
    path = path.partition("?")[0]
    kind = next((kind for ending, kind in _KINDS.items() if path.endswith(ending)), None)
    if kind == "chat" and "messages" not in request:
        return "images" if "prompt" in request else "audio"
    return kind


def prompt_of(request: Mapping[str, Any]) -> str:
    """Return the text of a request: its last message, its input or its prompt, else ""."""
    messages = request.get("messages")
    if isinstance(messages, list) and messages and isinstance(messages[-1], Mapping):
        return _content_text(messages[-1].get("content"))
    return _content_text(request.get("input", request.get("prompt")))


def answer_body(kind: str, request: Mapping[str, Any], reply: Reply) -> bytes:
    """Return the JSON body of a successful answer; one that the reply leaves out is helpful."""
    calls_tools = kind == "chat" and bool(reply.tool_calls)
    answer = reply.answer
    if answer is None and not calls_tools:
        answer = _helpful_answer(kind, request)
    hashable = answer if isinstance(answer, (str, type(None))) else tuple(answer)
    if not calls_tools and reply.usage is None:
        return _written(kind, request, hashable)
    body = json.loads(_written(kind, request, hashable))
    if calls_tools:
        calls = [tool_call(call, at) for at, call in enumerate(reply.tool_calls)]
        body["choices"][0]["message"]["tool_calls"] = calls
        body["choices"][0]["finish_reason"] = "tool_calls"
    if reply.usage is not None:
        body["usage"] = reply.usage
    return json.dumps(body).encode()


def null_body(kind: str, request: Mapping[str, Any]) -> bytes:
    """Return the JSON body of an answer that is well formed, but has null for its content."""
    return _written(kind, request, None)


def error_body(status: int, message: str | None = None) -> bytes:
    """Return the JSON body of an error, with a message typical of ``status`` unless given."""
    message = message or _ERROR_MESSAGES.get(status, "The request failed.")
    return json.dumps({"error": {"message": message, "code": status}}).encode()


def models_body() -> bytes:
    """Return a list of models: a first look with curl or a browser then shows something."""
    model = {"id": "simulated", "object": "model", "created": 0, "owned_by": "simulator"}
    return json.dumps({"object": "list", "data": [model]}).encode()


def words_of(request: Mapping[str, Any], reply: Reply) -> list[str]:
    """Return a chat answer as the words that it is streamed in."""
    if reply.answer is None and reply.tool_calls:
        return []
    answer = reply.answer if isinstance(reply.answer, str) else _echo(prompt_of(request))
    first, *others = answer.split(" ")
    return [first, *(" " + word for word in others)]


def chunk_event(
    kind: str | None,
    request: Mapping[str, Any],
    delta: Mapping[str, Any],
    finish_reason: str | None = None,
) -> dict[str, Any]:
    """Return the event that adds ``delta`` to a streamed answer."""
    is_text = kind == "completions"
    said = {"text": delta.get("content", "")} if is_text else {"delta": delta}
    choice = {"index": 0, **said, "finish_reason": finish_reason}
    return _completion(kind, request.get("model"), [choice], ".chunk")


def usage_event(
    kind: str | None, request: Mapping[str, Any], usage: Mapping[str, Any]
) -> dict[str, Any]:
    """Return the event after a streamed answer that tells what it took."""
    return {**_completion(kind, request.get("model"), [], ".chunk"), "usage": usage}


def tool_call(call: ToolCall, at: int) -> dict[str, Any]:
    """Return the call that stands at ``at`` as it is sent whole."""
    given = call.arguments
    arguments = given if isinstance(given, str) else json.dumps(given)
    function = {"name": call.name, "arguments": arguments}
    return {"id": call.id or f"call_{at}", "type": "function", "function": function}


def usage_of(prompt: str, answer: str) -> dict[str, int]:
    """Return the usage of an exchange in which every word is a token."""
    return _usage(_tokens(prompt), _tokens(answer))


def _tokens(text: str) -> int:
    return text.count(" ") + 1 if text else 0


def _usage(asked: int, said: int) -> dict[str, int]:
    return {"prompt_tokens": asked, "completion_tokens": said, "total_tokens": asked + said}


def _written(
    kind: str, request: Mapping[str, Any], answer: str | tuple[float, ...] | None
) -> bytes:
    asked = _tokens(prompt_of(request))
    return _body(kind, str(request.get("model")), answer, _image_member(request), asked)


# Load tests send one prompt many thousand times; its answer is then written once.
@lru_cache(maxsize=256)
def _body(
    kind: str,
    model: str,
    answer: str | tuple[float, ...] | None,
    image_member: str,
    asked: int,
) -> bytes:
    body: dict[str, Any]
    if kind == "embeddings":
        item = {"object": "embedding", "index": 0, "embedding": answer}
        usage = {"prompt_tokens": asked, "total_tokens": asked}
        body = {"object": "list", "model": model, "data": [item], "usage": usage}
    elif kind == "images":
        body = {"created": 0, "data": [{image_member: answer}]}
    elif kind == "audio":
        body = {"text": answer}
    else:
        message = {"role": "assistant", "content": answer}
        choice = {"index": 0, "message": message, "finish_reason": "stop"}
        if kind == "completions":
            choice["text"] = answer
        said = _tokens(answer) if isinstance(answer, str) else 0
        body = _completion(kind, model, [choice])
        body["usage"] = _usage(asked, said)
    return json.dumps(body).encode()


def _completion(
    kind: str | None, model: Any, choices: list[dict[str, Any]], chunk: str = ""
) -> dict[str, Any]:
    is_text = kind == "completions"  # its events have the same name as the whole
    return {
        "id": "cmpl-simulated" if is_text else "chatcmpl-simulated",
        "object": "text_completion" if is_text else f"chat.completion{chunk}",
        "created": 0,
        "model": str(model),
        "choices": choices,
    }


def _helpful_answer(kind: str, request: Mapping[str, Any]) -> str | list[float]:
    prompt = prompt_of(request)
    if kind == "embeddings":
        return _embedding(request, prompt)
    if kind == "audio":
        return "Hello, this is a simulated transcription."
    if kind == "images":
        name = _digest(prompt).hex()[:16]
        if _image_member(request) == "b64_json":
            return base64.b64encode(name.encode()).decode()
        return f"https://images.invalid/{name}.png"
    return _echo(prompt)


def _embedding(request: Mapping[str, Any], prompt: str) -> str | list[float]:
    """Return numbers that depend on the prompt alone, as base64 text when asked for."""
    size = request.get("dimensions")
    if not isinstance(size, int) or not 0 < size <= 4096:
        size = _EMBEDDING_SIZE
    seed = _digest(prompt)
    numbers = [seed[i % len(seed)] / 256 for i in range(size)]
    if request.get("encoding_format") == "base64":
        return base64.b64encode(pack(f"<{size}f", *numbers)).decode()
    return numbers


def _echo(prompt: str) -> str:
    return f"Simulated answer to: {prompt[:_ECHOED_CHARACTERS]}"


def _image_member(request: Mapping[str, Any]) -> str:
    return "b64_json" if request.get("response_format") == "b64_json" else "url"


def _content_text(content: Any) -> str:
    """Return the text of a message's content, which may also be a list of parts."""
    if isinstance(content, str):
        return content
    parts = content if isinstance(content, list) else []
    texts = [part.get("text") if isinstance(part, Mapping) else part for part in parts]
    return " ".join(text for text in texts if isinstance(text, str))


def _digest(text: str) -> bytes:
    return hashlib.sha256(text.encode("utf-8", "surrogatepass")).digest()
