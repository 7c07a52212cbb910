"""One request to one provider: what is sent, what is made of the answer, how a failure reads."""

from __future__ import annotations

import asyncio
import json
import pickle
import traceback
from typing import Any

import httpx
import pytest
from helpers import KEY, engine_on, engine_with, provider

from tarvomeldric import APIError, SelfHealingEngine
from tarvomeldric._engine import __version__
from tarvomeldric.simulator import Fault, ProviderSimulator, Reply


class Ask:
    """Both ways to ask, blocking and awaited; the clients are closed afterwards."""

    def __init__(self, awaited: bool) -> None:
        self.awaited = awaited

    def call(self, engine: SelfHealingEngine, /, *arguments: Any, **options: Any) -> Any:
        with engine:
            if not self.awaited:
                return engine.call_sync(*arguments, **options)
            return asyncio.run(engine.call(*arguments, **options))

    def execute(self, engine: SelfHealingEngine, **options: Any) -> Any:
        [record] = engine._providers.values()
        with engine:
            if not self.awaited:
                return engine._execute_sync(record, "Hi", "m", **options)
            return asyncio.run(engine._execute(record, "Hi", "m", **options))


@pytest.fixture(params=[False, True], ids=["blocking", "awaited"])
def ask(request: pytest.FixtureRequest) -> Ask:
    return Ask(request.param)


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


@pytest.mark.parametrize("kind", KINDS)
def test_each_kind_is_sent_to_its_path_and_answered_from_its_place(ask: Ask, kind: str) -> None:
    with ProviderSimulator("scripted", Fault.NULL) as simulator:
        engine = engine_on(simulator)
        results = [ask.call(engine, "Hi", "m", api_type=kind, max_tokens=5) for _ in range(2)]
        request = simulator.requests[0]
    path, body = KINDS[kind]
    assert request.path == "/v1" + path
    assert list(request.body.items()) == [*body.items(), ("max_tokens", 5)]
    # An image without a URL is an empty text; every other null stays null.
    null = "" if kind.startswith("images") else None
    assert [result.text for result in results] == ["scripted", null]
    assert repr(null) in repr(results[1])
    assert results[1].raw_response is engine._last_raw_response


OURS = ["content-type", "user-agent", "x-tarvomeldric-version", "authorization", "x-api-key"]


@pytest.mark.parametrize(
    ("name", "path", "anthropic"),
    [("mine", "", False), ("anthropic", "", True), ("mine", "/anthropic", True)],
)
def test_headers_and_credentials(ask: Ask, name: str, path: str, anthropic: bool) -> None:
    with ProviderSimulator() as simulator:
        engine = engine_with(provider(simulator.base_url + path, name=name))
        ask.execute(engine)
        request = simulator.requests[0]
    expected = ["application/json", f"TarvoMeldric/{__version__}", __version__]
    expected += [None, KEY] if anthropic else [f"Bearer {KEY}", None]
    assert [request.header(header) for header in OURS] == expected
    assert request.header("anthropic-version") == ("2023-06-01" if anthropic else None)
    sent = [header.lower() for header, _ in request.headers if header.lower() in OURS]
    assert sent == [header for header in OURS if request.header(header) is not None]


def test_every_option_but_the_request_id_is_sent_and_may_replace_what_was_built(ask: Ask) -> None:
    inner = ("trace", "diag", "call_start", "provider", "options", "extra", "args", "engine", "Io")
    options: dict[str, Any] = {
        "messages": [],
        "timeout": 7,
        "bulkhead_timeout": 0.5,
        "structured_output": False,
        **{name: [None, {"ключ": 1.5}] for name in inner},
    }
    with ProviderSimulator() as simulator:
        ask.call(engine_on(simulator), "Hi", "m", request_id="r-1", **options)
        assert simulator.requests[0].body == {"model": "m", **options}


def extract(kind: str, reply: Any) -> Any:
    if kind == "embeddings":
        return reply["data"][0]["embedding"]
    if kind == "images/generations":
        return reply["data"][0].get("url") or reply["data"][0].get("b64_json", "")
    if kind == "audio/transcriptions":
        return reply.get("text", "")
    return reply["choices"][0]["message"]["content"]


ODD: list[Any] = [None, True, 3, "text", "", [], {}, [1.5, -2], "\ud800 lone", "nul\0"]
BODIES = [
    *ODD,
    *({"choices": x, "data": x, "text": x} for x in ODD),
    *({"choices": [x], "data": [x]} for x in ODD),
    *({"choices": [{"message": x}], "data": [{"url": x, "b64_json": "b64"}]} for x in ODD),
    *({"choices": [{"message": {"content": x}}], "data": [{"embedding": x}]} for x in ODD),
    {"data": [{"url": None, "b64_json": [1]}]},
]


@pytest.mark.parametrize(
    "kind", ["chat", "embeddings", "images/generations", "audio/transcriptions"]
)
def test_an_answer_of_any_shape_is_text_or_null_or_an_error_of_its_kind(
    ask: Ask, kind: str
) -> None:
    seen: list[Any] = []
    expected: list[Any] = []
    for body in BODIES:
        try:
            answer = extract(kind, body)
            text = answer if answer is None or isinstance(answer, str) else json.dumps(answer)
            expected.append((text, body))
        except (TypeError, KeyError, IndexError, AttributeError) as error:
            expected.append((f"{type(error).__name__}: {error}", None, body))
    with ProviderSimulator(*(Reply(body=json.dumps(body)) for body in BODIES)) as simulator:
        engine = engine_on(simulator)
        for _ in BODIES:
            try:
                text = ask.execute(engine, api_type=kind)
                seen.append((text, engine._last_raw_response))
            except APIError as error:
                seen.append((str(error), error.status_code, engine._last_raw_response))
    assert seen == expected


FAILURES = {
    429: (Reply(status=429, body="rate limited"), "HTTP 429: rate limited", 429),
    "long": (Reply(status=500, body="€" * 300), "HTTP 500: " + "€" * 200, 500),
    "secret": (Reply(status=401, body=f"Bearer {KEY}"), f"HTTP 401: Bearer {KEY}", 401),
    "created": (Reply(status=201, body="{}"), "HTTP 201: {}", 201),
    "moved": (Reply(status=302, body="", headers={"Location": "/"}), "HTTP 302: ", 302),
    "latin": (
        Reply(
            status=400, body=b"\xe9\xff", headers={"Content-Type": "text/plain; charset=latin-1"}
        ),
        "HTTP 400: éÿ",
        400,
    ),
    "stall": (Fault.STALL, "Timeout after 0.25s calling mine", 408),
    "reset": (Fault.RESET, "ReadError: ", None),
    "cut": (Fault.TRUNCATED, "RemoteProtocolError: peer closed connection", None),
    "garbage": (Fault.GARBAGE, "JSONDecodeError: ", None),
    "deep": (Reply(body="[" * 100_000), "RecursionError: maximum recursion depth", None),
}


@pytest.mark.parametrize("name", FAILURES)
def test_a_failed_exchange_reads(ask: Ask, name: str) -> None:
    reply, message, status = FAILURES[name]
    with ProviderSimulator("warm", reply) as simulator:
        engine = engine_on(simulator)
        ask.execute(engine)
        before = engine._last_raw_response
        with pytest.raises(APIError) as raised:
            ask.execute(engine, timeout=0.25)
        assert engine._last_raw_response is before
    error = raised.value
    assert str(error).startswith(message)
    assert len(str(error)) == len(message) or status is None
    assert error.status_code == status
    assert error.args == (str(error),)
    assert (error.__cause__, error.__context__) == (None, None)
    copy = pickle.loads(pickle.dumps(error))
    assert (str(copy), copy.status_code) == (str(error), status)


def reachable(error: BaseException, depth: int = 4) -> str:
    """Everything that somebody who holds the error can read."""
    told = [str(error), repr(error), repr(error.args), repr(vars(error))]
    told.append("".join(traceback.format_exception(type(error), error, error.__traceback__)))
    for chained in (error.__cause__, error.__context__):
        if chained is not None and depth:
            told.append(reachable(chained, depth - 1))
    return "\n".join(told)


@pytest.mark.parametrize("name", ["mine", "anthropic"])
@pytest.mark.parametrize("tail", ["\n", "\r\nX-Evil: 1", "\0", "'\"\n", "é", "\udc80", "\\\n"])
def test_a_key_that_cannot_be_sent_is_not_told_either(ask: Ask, name: str, tail: str) -> None:
    with ProviderSimulator() as simulator:
        engine = engine_on(simulator, name=name, api_key=KEY + tail)
        with pytest.raises(APIError) as raised:
            ask.execute(engine)
        assert simulator.request_count == 0
    assert KEY not in reachable(raised.value)
    assert KEY not in repr(engine.get_stats()) + repr(engine._providers)


@pytest.mark.parametrize(
    ("text", "shown"),
    [
        ("sent AuThOrIzAtIoN: xyzzy", "[REDACTED]"),
        (f"xyzzy {KEY} xyzzy", "[REDACTED]"),
        ("x" * 145 + KEY, "[REDACTED]"),
        ("x" * 145 + "token=xyzzy", "x" * 145 + "token"),
        ("é" * 149 + "ß…", "é" * 149 + "ß"),
        ("\ud800 lone", "\ud800 lone"),
    ],
)
def test_what_may_not_be_shown_is_nowhere_in_the_error(ask: Ask, text: str, shown: str) -> None:
    def fail(_: httpx.Request) -> httpx.Response:
        raise httpx.ConnectError(text)

    engine = engine_with()
    engine._sync_client_pool["mine"] = httpx.Client(transport=httpx.MockTransport(fail))
    engine._http_pool["mine"] = httpx.AsyncClient(transport=httpx.MockTransport(fail))
    with pytest.raises(APIError) as raised:
        ask.execute(engine)
    assert str(raised.value) == f"ConnectError: {shown}"
    assert raised.value.__context__ is None
    assert not any(secret in reachable(raised.value) for secret in (KEY, "xyzzy"))
