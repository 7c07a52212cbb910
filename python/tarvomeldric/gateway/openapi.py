"""What is served, in the form that tools read."""

from __future__ import annotations

from typing import Any

from tarvomeldric import __version__

_MESSAGE = {
    "type": "object",
    "required": ["role"],
    "properties": {
        "role": {"type": "string"},
        "content": {"type": ["string", "array", "null"], "items": {"type": "object"}},
    },
}
_ERROR = {
    "type": "object",
    "required": ["error"],
    "properties": {
        "error": {
            "type": "object",
            "required": ["message"],
            "properties": {"message": {"type": "string"}, "type": {"type": "string"}},
        }
    },
}
_MODEL = {"type": "object", "required": ["id"], "properties": {"id": {"type": "string"}}}
_OPTIONS = (
    ("task-type", "What the call is for.", {"type": "string"}),
    ("deadline", "Seconds for the whole call.", {"type": "number", "exclusiveMinimum": 0}),
    ("request-id", "The call's name in logs and events.", {"type": "string"}),
)
_HEADERS = [
    {"name": f"x-tarvomeldric-{name}", "in": "header", "description": told, "schema": schema}
    for name, told, schema in _OPTIONS
]


def _content(schema: dict[str, Any], kind: str = "application/json") -> dict[str, Any]:
    return {kind: {"schema": schema}}


def _answers(*contents: dict[str, Any]) -> dict[str, Any]:
    answered: dict[str, Any] = {}
    for content in contents:
        answered |= content
    refused = {"description": "Refused, or failed in the end.", "content": _content(_ERROR)}
    return {"200": {"description": "The answer.", "content": answered}, "default": refused}


def _asking(summary: str, models: list[str], streams: bool, **member: dict[str, Any]) -> Any:
    properties = {"model": {"type": "string", "enum": models}, **member}
    body = {"type": "object", "required": list(properties), "properties": properties}
    if streams:
        body["properties"] = {**properties, "stream": {"type": "boolean"}}
    events = _content({}, "text/event-stream") if streams else {}
    return {
        "post": {
            "summary": summary,
            "parameters": _HEADERS,
            "requestBody": {"required": True, "content": _content(body)},
            "responses": _answers(_content({"type": "object"}), events),
        }
    }


def _looking(summary: str, schema: dict[str, Any], kind: str = "application/json") -> Any:
    return {"get": {"summary": summary, "responses": _answers(_content(schema, kind))}}


def description(models: list[str], guarded: bool) -> dict[str, Any]:
    """The OpenAPI document, with these models; `guarded` where a token is needed."""
    text = {"type": ["string", "array"], "items": {"type": "string"}}
    messages = {"type": "array", "items": _MESSAGE}
    listed = {"type": "object", "properties": {"data": {"type": "array", "items": _MODEL}}}
    model = _looking("One model", _MODEL)
    named = {"name": "model", "in": "path", "required": True, "schema": {"type": "string"}}
    model["get"]["parameters"] = [named]
    health = _looking("Whether it serves", {"type": "object", "required": ["status"]})
    health["get"]["security"] = []
    told: dict[str, Any] = {
        "openapi": "3.1.0",
        "info": {"title": "TarvoMeldric gateway", "version": __version__},
        "paths": {
            "/v1/chat/completions": _asking("Chat", models, True, messages=messages),
            "/v1/completions": _asking("Completions", models, True, prompt=text),
            "/v1/embeddings": _asking("Embeddings", models, False, input=text),
            "/v1/models": _looking("The models that can be asked for", listed),
            "/v1/models/{model}": model,
            "/health": health,
            "/live": _looking("The live page", {"type": "string"}, "text/html"),
            "/metrics": _looking("Figures for Prometheus", {"type": "string"}, "text/plain"),
        },
    }
    if guarded:
        told["components"] = {"securitySchemes": {"token": {"type": "http", "scheme": "bearer"}}}
        told["security"] = [{"token": []}]
    return told
