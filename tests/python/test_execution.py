"""One request to one provider: what is sent, what is made of the answer, how a failure reads."""

from __future__ import annotations

import asyncio
import copy
import itertools
import json
import pickle
import traceback
from collections.abc import Callable
from typing import Any

import httpx
import pytest

from support import KEY, engine_on, engine_with, provider
from tarvomeldric import APIError, SelfHealingEngine
from tarvomeldric._engine import __version__
from tarvomeldric.simulator import Fault, ProviderSimulator, Reply

Ask = Callable[..., Any]


@pytest.fixture(params=["_sync", ""], ids=["blocking", "awaited"])
def ask(request: pytest.FixtureRequest) -> Ask:
    """Makes one attempt, or with `call` a whole call; the clients are closed afterwards."""

    def ask(engine: SelfHealingEngine, /, call: bool = False, **options: Any) -> Any:
        form = getattr(engine, ("call" if call else "_execute") + request.param)
        records = [] if call else engine._providers.values()
        with engine:
            result = form(*records, "Hi", "m", **options)
            return result if request.param else asyncio.run(result)

    return ask


CHAT = {"model": "m", "messages": [{"role": "user", "content": "Hi"}]}
KINDS = {
    "chat": ("/chat/completions", CHAT),
    "completions": ("/completions", CHAT),
    "something else": ("/chat/completions", CHAT),
    "embeddings": ("/embeddings", {"model": "m", "input": "Hi"}),
    "images/generations": ("/images/generations", {"model": "m", "prompt": "Hi"}),
    "images/edits": ("/chat/completions", {"model": "m", "prompt": "Hi"}),
    "audio/transcriptions": ("/audio/transcriptions", {"model": "m"}),
    "audio": ("/chat/completions", {"model": "m"}),
}


def test_each_kind_is_sent_to_its_path_and_answered_from_its_place(ask: Ask) -> None:
    with ProviderSimulator() as simulator:
        engine = engine_on(simulator)
        for kind, (path, body) in KINDS.items():
            simulator.clear()
            simulator.script("scripted", Fault.NULL, Reply())
            results = [ask(engine, call=True, api_type=kind, max_tokens=5) for _ in range(3)]
            request = simulator.requests[0]
            assert request.path == "/v1" + path
            assert list(request.body.items()) == [*body.items(), ("max_tokens", 5)]
            # An image without a URL is an empty text; every other null stays null.
            null = "" if kind.startswith("images") else None
            assert [result.text for result in results[:2]] == ["scripted", null]
            assert repr(null) in repr(results[1])
            assert results[2].text
            assert results[2].raw_response is engine._last_raw_response


BEARER = [("authorization", f"Bearer {KEY}")]
ANTHROPIC = [("x-api-key", KEY), ("anthropic-version", "2023-06-01")]


@pytest.mark.parametrize(
    ("name", "path", "credentials"),
    [("mine", "", BEARER), ("anthropic", "", ANTHROPIC), ("mine", "/anthropic", ANTHROPIC)],
)
def test_headers_and_credentials(ask: Ask, name: str, path: str, credentials: Any) -> None:
    with ProviderSimulator() as simulator:
        ask(engine_with(provider(simulator.base_url + path, name=name)))
        sent = [(header.lower(), value) for header, value in simulator.requests[0].headers]
    ours = [("content-type", "application/json"), ("user-agent", f"TarvoMeldric/{__version__}")]
    ours += [("x-tarvomeldric-version", __version__), *credentials]
    names = dict(ours + BEARER + ANTHROPIC)
    assert [header for header in sent if header[0] in names] == ours


def test_a_key_without_a_visible_end_is_sent_without_it(ask: Ask) -> None:
    with ProviderSimulator() as simulator:
        for name, key in itertools.product(["mine", "anthropic"], ["", KEY + "\r\n \t"]):
            ask(engine_with(provider(simulator.base_url, name=name, api_key=key)))
            header = "authorization" if name == "mine" else "x-api-key"
            scheme = "Bearer " if name == "mine" else ""
            assert simulator.requests[-1].header(header) == (scheme + key).rstrip()


def test_every_option_but_the_request_id_is_sent_and_may_replace_what_was_built(ask: Ask) -> None:
    inner = ("trace", "diag", "call_start", "provider", "options", "extra", "args", "engine", "Io")
    options: dict[str, Any] = {name: [None, {"ключ": 1.5}] for name in inner}
    options |= {"messages": [], "timeout": 7, "bulkhead_timeout": 0.5, "structured_output": False}
    with ProviderSimulator() as simulator:
        ask(engine_on(simulator), call=True, request_id="r-1", **options)
        assert simulator.requests[0].body == {"model": "m", **options}


LATIN = {"Content-Type": "text/plain; charset=latin-1"}
FAILURES: list[tuple[Any, str, int | None]] = [
    (Reply(status=429, body="rate limited"), "HTTP 429: rate limited", 429),
    (Reply(status=500, body="€" * 300), "HTTP 500: " + "€" * 200, 500),
    (Reply(status=401, body=f"Bearer {KEY}"), f"HTTP 401: Bearer {KEY}", 401),
    (Reply(status=201, body="{}"), "HTTP 201: {}", 201),
    (Reply(status=400, body=b"\xe9\xff", headers=LATIN), "HTTP 400: éÿ", 400),
    (Fault.GARBAGE, "JSONDecodeError: ", None),
    (Reply(body="[" * 100_000), "RecursionError: maximum recursion depth", None),
]


def failure_of(ask: Ask, engine: SelfHealingEngine, **options: Any) -> APIError:
    with pytest.raises(APIError) as raised:
        ask(engine, **options)
    assert raised.value.__cause__ is None
    assert raised.value.__context__ is None
    return raised.value


# fmt: off
SHAPES: list[tuple[str, Any, Any]] = [
    ("chat", None, TypeError("'NoneType' object is not subscriptable")),
    ("chat", {}, KeyError("choices")),
    ("chat", {"choices": []}, IndexError("list index out of range")),
    ("chat", {"choices": [{"message": {"content": [1.5, None]}}]}, "[1.5, null]"),
    ("chat", {"choices": [{"message": {"content": "\ud800\0"}}]}, "\ud800\0"),
    ("embeddings", {"data": [{"embedding": [1, -2]}]}, "[1, -2]"),
    ("embeddings", {"data": [{}]}, KeyError("embedding")),
    ("images/generations", {"data": [{"url": "", "b64_json": "x"}]}, "x"),
    ("images/generations", {"data": [{"url": 0}]}, ""),
    ("images/generations", {"data": [""]}, AttributeError("'str' object has no attribute 'get'")),
    ("audio/transcriptions", {}, ""),
    ("audio/transcriptions", {"text": None}, None),
    ("audio/transcriptions", [], AttributeError("'list' object has no attribute 'get'")),
]
# fmt: on


def test_an_answer_of_any_shape_is_text_or_null_or_an_error_of_its_kind(ask: Ask) -> None:
    with ProviderSimulator(*(Reply(body=json.dumps(body)) for _, body, _ in SHAPES)) as simulator:
        engine = engine_on(simulator)
        for kind, body, expected in SHAPES:
            if isinstance(expected, Exception):
                error = failure_of(ask, engine, api_type=kind)
                assert str(error) == f"{type(expected).__name__}: {expected}"
                assert error.status_code is None
            else:
                assert ask(engine, api_type=kind) == expected
            assert engine._last_raw_response == body


def told(error: APIError) -> str:
    """Everything that somebody who holds the error can read."""
    trace = traceback.format_exception(type(error), error, error.__traceback__)
    return "".join([*trace, repr(error.args), repr(vars(error))])


def test_a_failed_exchange_reads(ask: Ask) -> None:
    with ProviderSimulator("warm", *(reply for reply, _, _ in FAILURES)) as simulator:
        engine = engine_on(simulator)
        ask(engine)
        before = engine._last_raw_response
        for _, message, status in FAILURES:
            error = failure_of(ask, engine, timeout=0.25)
            shown = str(error) if status else str(error)[: len(message)]
            assert shown == message
            assert error.status_code == status
            assert engine._last_raw_response is before


def test_a_key_that_cannot_be_sent_is_not_told_either(ask: Ask) -> None:
    tails = ["\nx", "\r\nX-Evil: 1", "\0", "'\"\nx", "é", "\udc80", "\\\nx"]
    with ProviderSimulator() as simulator:
        for name, tail in itertools.product(["mine", "anthropic"], tails):
            engine = engine_on(simulator, name=name, api_key=KEY + tail)
            assert KEY not in told(failure_of(ask, engine))
        assert simulator.request_count == 0


@pytest.mark.parametrize(
    ("text", "shown"),
    [
        (f"xyzzy {KEY} xyzzy", "[REDACTED]"),
        ("x" * 145 + "token=xyzzy", "x" * 145 + "token"),
        ("\ud800 lone", "\ud800 lone"),
    ],
)
def test_what_may_not_be_shown_is_nowhere_in_the_error(ask: Ask, text: str, shown: str) -> None:
    def fail(request: httpx.Request) -> httpx.Response:
        assert request.extensions["timeout"]["read"] == 7
        raise httpx.ConnectError(text)

    engine = engine_with()
    engine._sync_client_pool["mine"] = httpx.Client(transport=httpx.MockTransport(fail))
    engine._http_pool["mine"] = httpx.AsyncClient(transport=httpx.MockTransport(fail))
    error = failure_of(ask, engine, timeout=7)
    assert str(error) == f"ConnectError: {shown}"
    assert not any(secret in told(error) for secret in (KEY, "xyzzy"))


def test_headers_and_query_of_a_providers_own_go_with_every_request(ask: Ask) -> None:
    with ProviderSimulator() as simulator:
        azure = provider(simulator.base_url + "/deployments/gpt", name="azure", api_key="")
        azure.extra_headers = {"api-key": KEY + "\n", "authorization": "none"}
        azure.extra_query = {"api-version": "2024-06-01", "to be": "quoted & sent"}
        router = provider(simulator.base_url)
        router.extra_headers["HTTP-Referer"] = "https://mine.example"
        for record, path, headers in [
            (
                azure,
                "/v1/deployments/gpt/chat/completions?api-version=2024-06-01&to+be=quoted+%26+sent",
                {"api-key": KEY, "authorization": "none"},
            ),
            (
                router,
                "/v1/chat/completions",
                {"http-referer": "https://mine.example", "authorization": f"Bearer {KEY}"},
            ),
        ]:
            simulator.clear()
            ask(engine_with(record))
            assert simulator.requests[0].path == path
            for name, value in headers.items():
                assert simulator.requests[0].header(name) == value


def test_what_a_provider_sends_of_its_own_is_kept_by_copies_and_shown_by_nothing(ask: Ask) -> None:
    record = provider()
    record.extra_headers = {"x-gate": "a-secret-value"}
    record.extra_query = {"code": "another-secret"}
    for kept in (copy.copy(record), pickle.loads(pickle.dumps(record))):
        assert dict(kept.extra_headers) == {"x-gate": "a-secret-value"}
        assert dict(kept.extra_query) == {"code": "another-secret"}
    assert "secret" not in f"{record!r} {record.to_dict()}"
    with pytest.raises(TypeError, match="extra_headers must be"):
        record.extra_headers = {"x-gate": 7}
    record.extra_headers = {"x-gate": "a-secret-value\r\nX: y"}  # what no library sends
    with pytest.raises(APIError) as raised:
        ask(engine_with(record))
    assert "secret" not in str(raised.value)
