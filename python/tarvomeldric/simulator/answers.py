"""What a well-behaved provider answers to each kind of request."""

from __future__ import annotations

import base64
import hashlib
import json
from collections.abc import Mapping, Sequence
from functools import lru_cache
from struct import pack
from typing import Any

_ECHOED_CHARACTERS = 200
_EMBEDDING_SIZE = 8

_KINDS = {
    "/chat/completions": "chat",
    "/completions": "completions",
    "/embeddings": "embeddings",
    "/images/generations": "images",
    "/audio/transcriptions": "audio",
}

# Worded as providers word them: whoever reads these texts tells faults apart by such phrases.
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


def answer_body(
    kind: str, request: Mapping[str, Any], answer: str | Sequence[float] | None
) -> bytes:
    """Return the JSON body of a successful answer; an ``answer`` of None writes a helpful one."""
    if answer is None:
        answer = _helpful_answer(kind, request)
    hashable = answer if isinstance(answer, str) else tuple(answer)
    return _body(kind, str(request.get("model")), hashable, _image_member(request))


def null_body(kind: str, request: Mapping[str, Any]) -> bytes:
    """Return the JSON body of an answer that is well formed, but has null for its content."""
    return _body(kind, str(request.get("model")), None, _image_member(request))


def error_body(status: int, message: str | None = None) -> bytes:
    """Return the JSON body of an error, with a message typical of ``status`` unless given."""
    message = message or _ERROR_MESSAGES.get(status, "The request failed.")
    return json.dumps({"error": {"message": message, "code": status}}).encode()


def models_body() -> bytes:
    """Return a list of models: a first look with curl or a browser then shows something."""
    model = {"id": "simulated", "object": "model", "owned_by": "simulator"}
    return json.dumps({"object": "list", "data": [model]}).encode()


def answer_events(request: Mapping[str, Any], answer: str | None) -> list[dict[str, Any]]:
    """Return the events of a streamed answer, a word each; None streams a helpful answer."""
    words = (answer or _echo(prompt_of(request))).split(" ")
    texts = words[:1] + [" " + word for word in words[1:]]
    return [*(chunk_event(request, text) for text in texts), chunk_event(request, None)]


def chunk_event(request: Mapping[str, Any], text: str | None) -> dict[str, Any]:
    """Return the event that adds ``text`` to a streamed answer; None is the one that ends it."""
    choice = {
        "index": 0,
        "delta": {} if text is None else {"content": text},
        "finish_reason": "stop" if text is None else None,
    }
    return _completion("chat.completion.chunk", str(request.get("model")), choice)


# Load tests send one prompt many thousand times; its answer is then written once.
@lru_cache(maxsize=256)
def _body(
    kind: str, model: str, answer: str | tuple[float, ...] | None, image_member: str
) -> bytes:
    body: dict[str, Any]
    if kind == "embeddings":
        item = {"object": "embedding", "index": 0, "embedding": answer}
        body = {"object": "list", "model": model, "data": [item]}
    elif kind == "images":
        body = {"created": 0, "data": [{image_member: answer}]}
    elif kind == "audio":
        body = {"text": answer}
    else:
        message = {"role": "assistant", "content": answer}
        choice = {"index": 0, "message": message, "finish_reason": "stop"}
        if kind == "completions":
            choice["text"] = answer
        body = _completion("chat.completion", model, choice)
    return json.dumps(body).encode()


def _completion(form: str, model: str, choice: dict[str, Any]) -> dict[str, Any]:
    return {
        "id": "chatcmpl-simulated",
        "object": form,
        "created": 0,
        "model": model,
        "choices": [choice],
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
