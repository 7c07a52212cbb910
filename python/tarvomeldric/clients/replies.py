"""What a client gets back: the provider's own answer or refusal, or an error in the same form."""

from __future__ import annotations

import json
import math
import time
from collections.abc import Iterable, Mapping, Sequence
from dataclasses import dataclass
from typing import Any
from urllib.parse import quote

from tarvomeldric._engine import (
    APIError,
    CallRefused,
    CircuitState,
    ContractViolationError,
    DeadlineExceeded,
    NoProviderAvailable,
    ProviderConfig,
    ProvidersBusy,
    SemanticBoundaryViolationError,
)
from tarvomeldric._http import retry_after

_HANDED_BACK = ("content-type", "x-request-id", "retry-after")
_LIMITS = "x-ratelimit-"
_SHORTEST_SECRET = 8  # a shorter one would be found in ordinary words
_BEGINNING = 12  # characters of one that no cut text may have
_JSON = {"content-type": "application/json"}

# Errors that a call ends with, as a client sees them.
_KINDS: tuple[tuple[type[Exception], int, str], ...] = (
    (DeadlineExceeded, 504, "deadline_exceeded"),
    (ContractViolationError, 422, "contract_violation"),
    (SemanticBoundaryViolationError, 422, "semantic_boundary_violation"),
    (NoProviderAvailable, 503, "no_provider_available"),
    (ProvidersBusy, 503, "providers_busy"),
)
HEALED_FAILURES = (APIError, CallRefused, ContractViolationError, SemanticBoundaryViolationError)


@dataclass(frozen=True)
class Reply:
    """A whole answer."""

    status: int
    headers: dict[str, str]
    content: bytes


def error_body(message: str, kind: str, code: str | None = None) -> bytes:
    error = {"message": message, "type": kind, "param": None, "code": code}
    return json.dumps({"error": error}).encode()


def refusal(status: int, message: str, code: str | None = None) -> Reply:
    """A request that nobody was asked about."""
    return Reply(status, dict(_JSON), error_body(message, "invalid_request_error", code))


def document(value: Any) -> Reply:
    return Reply(200, dict(_JSON), json.dumps(value).encode())


def headers_of(reply: Any, result: Any) -> dict[str, str]:
    """Of an answer: the provider's that say something about it, and how it came about."""
    told = {
        **_attempts_in(result.attempts),
        "provider": result.provider,
        "model": result.model,
        "heal": result.heal_level or "none",
    }
    return {**_handed_back(reply.headers), **_ours(told)}


def failed(error: Exception, records: Sequence[ProviderConfig]) -> Reply:
    """The end of a call that nobody answered: the last provider's own words, where it had any."""
    end = _refused(error) or _failed_by_provider(_last_failure(error), records)
    end.headers.update(_ours(_attempts_in(getattr(error, "attempts", ()))))
    end.headers["x-should-retry"] = "false"
    back_s = max(min(map(_back_in_s, records), default=0.0), retry_after(end.headers) or 0.0)
    if back_s > 0:
        end.headers["retry-after"] = str(math.ceil(back_s))
    return end


def _refused(error: Exception) -> Reply | None:
    for kind, status, name in _KINDS:
        if isinstance(error, kind):
            return Reply(status, dict(_JSON), error_body(str(error), name))
    return None


def _failed_by_provider(error: BaseException, records: Iterable[ProviderConfig]) -> Reply:
    reply = getattr(error, "_reply", None)
    if reply is not None and 400 <= reply.status <= 599:
        content = reply.content
        if any(_holds_secret(content, record) for record in records):
            content = error_body(f"HTTP {reply.status}: [REDACTED]", "provider_error")
        return Reply(reply.status, _handed_back(reply.headers), content)
    told = told_of(error, records)
    status = getattr(error, "status_code", None) or 502
    if status == 408:
        return Reply(504, dict(_JSON), error_body(told, "timeout"))
    if not 400 <= status <= 599:  # a failure must not look like a success, or a redirection
        status = 502
    return Reply(status, dict(_JSON), error_body(told, "provider_error"))


def told_of(error: BaseException, records: Iterable[ProviderConfig]) -> str:
    """What an error says, unless it quotes a provider that quotes its key."""
    told = str(error)
    content = told.encode(errors="replace")  # cut after 200 characters, maybe in a key
    secret = any(_holds_secret(content, record, _BEGINNING) for record in records)
    return "[REDACTED]" if secret else told


def _holds_secret(content: bytes, record: ProviderConfig, most: int | None = None) -> bool:
    """Whether a provider's words quote what it was sent to let us in, or so much of it."""
    secrets = [record.api_key, *record.extra_headers.values(), *record.extra_query.values()]
    return any(len(it) >= _SHORTEST_SECRET and it[:most].encode() in content for it in secrets)


def _last_failure(error: BaseException) -> BaseException:
    """Of an error that says that nobody is left, the failure before it."""
    return error.__cause__ or error if isinstance(error, CallRefused) else error


def _attempts_in(attempts: Sequence[Any]) -> dict[str, str]:
    """How many there were, who made the last one, and what went wrong last."""
    told = {"attempts": str(len(attempts))}
    for attempt in attempts:
        told |= {"provider": attempt.provider, "model": attempt.model}
        if attempt.fault and attempt.fault != "hedge_lost":
            told["fault"] = attempt.fault
    return told


def _back_in_s(record: ProviderConfig) -> float:
    """The seconds until a provider may be asked again."""
    breaker = record.circuit_breaker
    shut = breaker._state is CircuitState.OPEN
    shut_s = breaker._opened_at + breaker.cooldown_seconds - time.time() if shut else 0.0
    alone_s: float = record._left_alone_s()
    return max(shut_s, alone_s)


def _handed_back(headers: Any) -> dict[str, str]:
    return {
        name: value
        for name, value in pairs_of(headers)
        if name in _HANDED_BACK or name.startswith(_LIMITS)
    }


def pairs_of(headers: Any) -> list[tuple[str, str]]:
    """Names, in lower case, and values; their bytes are those of Latin-1."""
    raw = getattr(headers, "raw", None) or []
    return [(name.decode("latin-1").lower(), value.decode("latin-1")) for name, value in raw]


def raw_of(headers: Mapping[str, str] | Sequence[tuple[str, str]]) -> list[tuple[bytes, bytes]]:
    """The same as they are sent."""
    pairs = headers.items() if isinstance(headers, Mapping) else headers
    return [(name.encode("latin-1"), value.encode("latin-1")) for name, value in pairs]


def _ours(told: Mapping[str, str]) -> dict[str, str]:
    """Names may hold anything; a header may not."""
    return {
        f"x-tarvomeldric-{name}": quote(value, safe=" /:.,;@+=~()") for name, value in told.items()
    }
