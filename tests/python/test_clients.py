"""Transports: other libraries' clients heal, and every byte comes through."""

from __future__ import annotations

import asyncio
import gc
import json
import time
from collections.abc import Callable, Iterator
from typing import Any

import httpx
import pytest

from support import KEY, Slots, engine_on, engine_with, provider, slots_of, tireless, until
from support.raw_server import CLOSE, RawServer, answer, resets, says, stalls
from tarvomeldric import CallPolicy, Contract
from tarvomeldric.clients import Route, async_transport, transport
from tarvomeldric.simulator import Fault, ProviderSimulator, Reply

CHAT = "https://anywhere.example/v1/chat/completions"
QUICK = CallPolicy(order="failover_first", max_retries=1, initial_backoff=0.01)
ONCE = QUICK.replace(max_attempts=1)
# Nothing in here would survive being read and written again.
ASKED = (
    '{ "n":1.0,"model" : "\\u0066ast" ,"x":1e400, "messages":[{"content":"\\ud800 é",'
    '"role":"user"}],"n":1,"big":123456789012345678901234567890 }\n'
)
ANSWER = b'\n{"x":1.0, "x":2,"choices":[ {"message":{"content":"\\u0041","role":"assistant"} } ]}  '
EVENTS = (
    b': hello\r\n\r\nevent: x\r\ndata: {"choices": [ {"delta":{"content":"\\u00e9"}}]}\r\n\r\n'
    b'id: 7\ndata:{"choices":[{"delta":{"content":" two"},"finish_reason":null}]}\n\n'
    b'data: {"choices":[{"delta":{},"finish_reason":"stop"}]}\r\rdata: {"choices":[],"usage":{"n":1}}'
    b"\n\ndata: [DONE]\n\n: bye\n"
)
HEAD = b"HTTP/1.1 200 X\r\nContent-Type: text/event-stream\r\nX-Request-Id: r1\r\nConnection: close\r\n\r\n"


@pytest.fixture(params=["blocking", "awaited"])
def send(request: pytest.FixtureRequest) -> Iterator[Callable[..., Any]]:
    """Sends one request through a transport; the whole response."""
    loop = asyncio.new_event_loop()

    def blocking(engine: Any, routes: Any, body: Any, url: str = CHAT, **more: Any) -> Any:
        options = {name: more.pop(name) for name in ("passthrough",) if name in more}
        kind = transport(engine, routes, **options)
        with getattr(engine, "engine", engine), httpx.Client(transport=kind) as client:
            return client.request(more.pop("method", "POST"), url, content=_bytes(body), **more)

    async def awaited(engine: Any, routes: Any, body: Any, url: str = CHAT, **more: Any) -> Any:
        options = {name: more.pop(name) for name in ("passthrough",) if name in more}
        try:
            kind = async_transport(engine, routes, **options)
            async with httpx.AsyncClient(transport=kind) as client:
                method = more.pop("method", "POST")
                return await client.request(method, url, content=_bytes(body), **more)
        finally:
            await getattr(engine, "engine", engine).close()

    if request.param == "blocking":
        yield blocking
    else:
        yield lambda *given, **more: loop.run_until_complete(awaited(*given, **more))
    loop.close()


def _bytes(body: Any) -> bytes:
    if isinstance(body, bytes):
        return body
    return (body if isinstance(body, str) else json.dumps(body)).encode()


def asking(model: str = "fast", **more: Any) -> dict[str, Any]:
    return {"model": model, "messages": [{"role": "user", "content": "Hi"}], **more}


def recorded(reply: bytes, taken: list[bytes]) -> Any:
    """An act that answers, and keeps what it was asked."""

    class Recording(RawServer):
        @staticmethod
        def _has_request(connection: Any) -> bool:
            head = b""
            while b"\r\n\r\n" not in head:
                if not (piece := connection.recv(65536)):
                    return False
                head += piece
            taken.append(head)
            return True

    return Recording(lambda connection: connection.sendall(reply) or CLOSE)


def ours(response: Any) -> dict[str, str]:
    start = "x-tarvomeldric-"
    return {n.removeprefix(start): v for n, v in response.headers.items() if n.startswith(start)}


def test_every_byte_comes_through(send: Any) -> None:
    taken: list[bytes] = []
    limits = {"X_RateLimit_Remaining": "7", "X_Request_Id": "r1", "Set_Cookie": "a=b"}
    with recorded(answer(ANSWER, **limits), taken) as server:
        engine = engine_with(provider(server.url, "p"))
        response = send(
            engine,
            [Route("fast", {"p": 'its "own"'})],
            ASKED,
            headers={"OpenAI-Organization": "o", "Authorization": "Bearer theirs", "Cookie": "c"},
        )
    assert (response.status_code, response.content) == (200, ANSWER)
    assert response.headers["x-ratelimit-remaining"] == "7"
    assert response.headers["x-request-id"] == "r1"
    assert "set-cookie" not in response.headers
    told = {"provider": "p", "model": "its %22own%22", "attempts": "1"}
    assert ours(response) == {**told, "heal": "none"}
    head, _, body = taken[0].partition(b"\r\n\r\n")
    assert body.decode() == ASKED.replace('"\\u0066ast"', '"its \\"own\\""')
    sent = head.decode().lower()
    assert "openai-organization: o" in sent
    assert "theirs" not in sent
    assert "cookie" not in sent


@pytest.mark.parametrize("piece", [1, 7, len(EVENTS)])
def test_every_byte_of_a_stream_comes_through(send: Any, piece: int) -> None:
    def act(connection: Any) -> Any:
        connection.sendall(HEAD)
        for at in range(0, len(EVENTS), piece):
            connection.sendall(EVENTS[at : at + piece])
        return CLOSE

    with RawServer(act) as server:
        record = provider(server.url, "p")
        response = send(engine_with(record), [Route("fast", {"p": "m"})], asking(stream=True))
    assert (response.content, response.headers["x-request-id"]) == (EVENTS, "r1")
    assert (slots_of(record), record.success_count) == (Slots(free=10), 1)


def test_a_stream_that_is_cut_anywhere_heals_or_says_so(send: Any) -> None:
    whole = b"".join(
        b'data: {"choices":[{"delta":{"content":"%d"}}]}\n\n' % word for word in range(4)
    )
    with ProviderSimulator() as healthy:
        for cut in range(0, len(whole), 11):
            for ending in (lambda connection: CLOSE, resets):
                act = _cut(HEAD + whole[:cut], ending)
                with RawServer(act) as server:
                    records = [
                        tireless(base_url=server.url, name="p"),
                        tireless(base_url=healthy.base_url, name="q"),
                    ]
                    engine = engine_with(*records).with_policy(QUICK)
                    response = send(
                        engine, [Route("fast", {"p": "m", "q": "m"})], asking(stream=True)
                    )
                first_output = whole.index(b"}]}\n") + 4
                if cut < first_output:
                    assert ours(response)["heal"] == "l3_failover"
                    assert response.content.endswith(b"[DONE]\n\n")
                    continue
                told, _, error = response.content.partition(b'\n\ndata: {"error"')
                assert whole[:cut].startswith(told)
                assert len(told) >= whole[:cut].rfind(b"\n", 0, -1) - 1
                assert b"stream_interrupted" in error
                assert b"[DONE]" not in response.content
                assert [slots_of(record) for record in records] == [Slots(free=10)] * 2


def test_no_half_event_comes_through_and_a_finished_answer_is_whole(send: Any) -> None:
    word = b'data: {"choices":[{"delta":{"content":"x"}}]}\n\n'
    finish = b'data: {"choices":[{"delta":{},"finish_reason":"stop"}]}\n\n'
    told = b'event: error\ndata: {"error": {"message": "over", "code": 500}}\n\n'
    for tail in (b"id: 7\n", b"event: message\n", b'event: x\ndata: {"cho', told):
        with RawServer(_cut(HEAD + word, says(tail, then=CLOSE))) as server:
            record = provider(server.url, "p")
            response = send(engine_with(record), [Route("fast", {"p": "m"})], asking(stream=True))
        assert response.content.startswith(word + b'\n\ndata: {"error"'), response.content
        assert (record.success_count, record.fail_count) == (0, 1)
    for ending in (lambda _: CLOSE, resets):
        with RawServer(_cut(HEAD + word + finish + b'data: {"usa', ending)) as server:
            record = provider(server.url, "p")
            response = send(engine_with(record), [Route("fast", {"p": "m"})], asking(stream=True))
        assert response.content == word + finish
        assert (record.success_count, record.fail_count) == (1, 0)


def _cut(reply: bytes, ending: Any) -> Any:
    def act(connection: Any) -> Any:
        connection.sendall(reply)
        time.sleep(0.01)  # a reset may overtake what was sent
        return ending(connection)

    return act


def test_a_route_is_followed_in_order_and_no_model_is_replaced(send: Any) -> None:
    gone = Reply(
        status=404, body={"error": {"code": "model_not_found", "message": "model not found"}}
    )
    with ProviderSimulator(default=gone) as first, ProviderSimulator() as second:
        engine = engine_with(
            provider(second.base_url, "second", models=["listed"]),
            provider(first.base_url, "openai", models=["gpt-4o"]),
        ).with_policy(QUICK)
        routes = [Route("gpt-4o", {"openai": "gpt-4o", "second": "other"})]
        healed = send(engine, routes, asking("gpt-4o"))
        assert {request.body["model"] for request in first.requests} == {"gpt-4o"}
        assert [request.body["model"] for request in second.requests] == ["other"]
        told = {"provider": "second", "model": "other", "attempts": "2", "heal": "l3_failover"}
        assert ours(healed) == {**told, "fault": ours(healed)["fault"]}
        assert "model" in ours(healed)["fault"]
        alone = send(engine, [Route("gpt-4o", {"openai": "gpt-4o"})], asking("gpt-4o"))
        assert (alone.status_code, alone.json()) == (404, gone.body)
        assert {request.body["model"] for request in first.requests} == {"gpt-4o"}
        assert send(engine, [], asking("listed")).status_code == 200
        unknown = send(engine, routes, asking("another"))
        assert (unknown.status_code, unknown.json()["error"]["code"]) == (404, "model_not_found")
        models = send(engine, routes, b"", "http://x/v1/models", method="GET").json()
        assert {model["id"] for model in models["data"]} == {"gpt-4o", "listed"}
        other = "http://x/openai/deployments/d/embeddings"
        embedded = send(engine, [], {"model": "listed", "input": "x"}, other)
        assert embedded.json()["data"][0]["embedding"]
        told = send(engine, [], {"model": "listed", "prompt": "x"}, "http://x/completions").json()
        assert told["choices"][0]["text"]


def test_a_final_failure_is_the_providers_own(send: Any) -> None:
    body = b'{"error": {"message": "slow down", "type": "tokens"} }'
    routes = [Route("fast", {"p": "m"}), Route("strict", {"p": "m"}, "extraction", _contract())]
    with RawServer(
        lambda c: c.sendall(answer(body, 429, Retry_After="7", X_Request_Id="r"))
    ) as server:
        engine = engine_with(provider(server.url, "p")).with_policy(ONCE)
        response = send(engine, routes, asking())
    assert (response.status_code, response.content) == (429, body)
    assert response.headers["x-should-retry"] == "false"
    assert (response.headers["retry-after"], response.headers["x-request-id"]) == ("7", "r")
    assert ours(response)["fault"].startswith("rate_limit")

    with RawServer(lambda c: c.sendall(answer(b"your key is " + KEY.encode(), 401))) as server:
        response = send(engine_with(provider(server.url, "p")), routes, asking())
    assert (response.status_code, KEY in response.text) == (401, False)
    quoted = b'data: {"error": {"message": "your key is %b"}}\n\n' % KEY.encode()
    for events in quoted, b'data: {"choices":[{"delta":{"content":"x"}}]}\n\n' + quoted:
        with RawServer(says(answer(events, Content_Type="text/event-stream"))) as server:
            engine = engine_with(provider(server.url, "p")).with_policy(ONCE)
            response = send(engine, routes, asking(stream=True))
        assert "[REDACTED]" in response.text
        assert KEY not in response.text

    def ends(record: Any, model: str = "fast") -> tuple[int, str, str | None]:
        engine = engine_with(record).with_policy(ONCE.replace(validate="all"))
        response = send(engine, routes, asking(model))
        return (
            response.status_code,
            response.json()["error"]["type"],
            response.headers.get("retry-after"),
        )

    record = provider(name="p")
    assert ends(record) == (502, "provider_error", None)
    for status in 201, 204, 302, 700:  # a client would take the first two for answers
        with RawServer(says(answer(b"", status))) as server:
            assert ends(provider(server.url, "p")) == (502, "provider_error", None)
    record.circuit_breaker._trip()
    assert ends(record) == (503, "no_provider_available", "30")
    assert ends(provider(name="p", slots=0)) == (503, "providers_busy", None)
    with ProviderSimulator() as healthy:
        record = tireless(base_url=healthy.base_url, name="p")
        assert ends(record, "strict") == (422, "contract_violation", None)


def _contract() -> Contract:
    return Contract(output_schema={"required": ["x"]})


def test_what_a_client_may_say_about_healing(send: Any) -> None:
    with ProviderSimulator(default=Reply(delay=20)) as slow:
        record = tireless(base_url=slow.base_url, name="p")
        engine = engine_with(record).with_policy(QUICK)
        routes = [Route("fast", {"p": "m"})]

        def ends(**more: Any) -> tuple[int, float]:
            started = time.monotonic()
            response = send(engine, routes, asking(), **more)
            return response.status_code, time.monotonic() - started

        status, took = ends(headers={"x-tarvomeldric-deadline": "0.3"})
        assert status == 504
        assert took < 1.3
        status, took = ends(timeout=0.2)  # a client's own, for each of the two attempts
        assert status == 504
        assert took < 2.0
        engine = engine_with(record).with_policy(QUICK.replace(deadline=0.3))
        assert ends(headers={"x-tarvomeldric-deadline": "9"})[1] < 1.3
        for name, value in {"deadline": "-1", "deadlines": "1", "x": ""}.items():
            assert ends(headers={f"x-tarvomeldric-{name}": value})[0] == 400
        assert ends(headers={"idempotency-key": "café".encode()})[0] == 400
        assert record.fail_count == 0  # nobody was patient enough to blame anybody
        assert slots_of(record) == Slots(free=10)


@pytest.mark.parametrize(
    "body",
    [
        *("", "{", "[]", "null", '{"model": "fast"} x', '{"model": 1}', '{"model": ""}', "{}"),
        *('{"model": "fast", "model": "fast"}', '{"model": "fast", "x": NaN}', '{"model" "fast"}'),
        *(
            b'{"model": "\xff"}',
            '{"model":"fast","x":' + "[" * 100_000,
            '{"model":"fast","stream":1}',
        ),
        *(
            '{"model":"fast",' + '"a":1,' * 2000 + '"b":1}',
            '{1: "fast"}',
            '{"model": "fast",}',
            '﻿{"model": "fast"}',
        ),
    ],
)
def test_a_body_that_is_none_is_refused_with_reasons(body: Any) -> None:
    engine = engine_with(provider(name="p"))
    with httpx.Client(transport=transport(engine, [Route("fast", {"p": "m"})])) as client:
        response = client.post(CHAT, content=_bytes(body))
    assert response.status_code == 400
    assert response.json()["error"]["message"]
    assert engine._providers["p"].fail_count == 0


def test_other_requests_pass_through_untouched(send: Any) -> None:
    echoed = Reply(
        status=307,
        body={"id": "resp"},
        headers={
            "X-Other": "caf\xe9",
            "Location": "/there",
            "Content-Type": "application/json",
            "Connection": "x-hop",
            "X-Hop": "1",
        },
    )
    with ProviderSimulator(default=echoed) as simulator:
        record = provider(simulator.base_url, "p")
        record.extra_query = {"version": "2"}
        engine = engine_with(record)
        url = "http://x/openai/v1/responses//abc/?include=a&x=%20"
        theirs = {"cookie": "a", "x-api-key": "k", "api-key": "k", "authorization": "Bearer k"}
        theirs |= {"connection": "close, X-Hop", "x-hop": "1"}
        response = send(engine, [], b'{"x": 1}', url, passthrough="p", headers=theirs)
        assert (response.status_code, response.json()) == (307, {"id": "resp"})
        assert (response.headers["x-other"], response.headers["location"]) == ("café", "/there")
        assert "x-hop" not in response.headers
        request = simulator.requests[0]
        assert request.path == "/v1/responses//abc/?include=a&x=%20&version=2"
        assert request.header("authorization") == f"Bearer {record.api_key}"
        for name in "cookie", "x-api-key", "api-key", "x-hop":
            assert request.header(name) is None
        assert send(engine, [], b"", "http://x/v1/a%2F..%2Fb", passthrough="p").status_code == 404
        assert send(engine, [], b"", url).status_code == 404
    assert send(engine, [], b"", url, passthrough="p").status_code == 502
    assert record.fail_count == record.success_count == 0


def test_a_stream_that_is_left_gives_everything_back() -> None:
    forever = stalls(HEAD + b'data: {"choices":[{"delta":{"content":"x"}}]}\n\n')

    async def leave(engine: Any, routes: Any, how: str) -> None:
        async with httpx.AsyncClient(transport=async_transport(engine, routes)) as client:
            stream = client.stream("POST", CHAT, json=asking(stream=True))
            response = await stream.__aenter__()
            reading = asyncio.ensure_future(anext(response.aiter_raw()))
            await reading
            if how == "cancelled":
                waiting = asyncio.ensure_future(response.aread())
                await asyncio.sleep(0.05)
                waiting.cancel()
                await asyncio.wait([waiting])
            await stream.__aexit__(None, None, None)
        await engine.close()

    with RawServer(forever) as server:
        record = provider(server.url, "p", slots=2)
        engine, routes = engine_with(record), [Route("fast", {"p": "m"})]
        for how in ("closed", "cancelled"):
            asyncio.run(leave(engine, routes, how))
            assert slots_of(record) == Slots(free=2)
        with httpx.Client(transport=transport(engine, routes)) as client:
            with client.stream("POST", CHAT, json=asking(stream=True)) as response:
                pieces = response.iter_raw()
                next(pieces)
                assert slots_of(record) == Slots(free=1, taken=1)
            assert slots_of(record) == Slots(free=2)
            request = client.build_request("POST", CHAT, json=asking(stream=True))
            del response
            client.send(request, stream=True)  # and dropped
            gc.collect()
            until(lambda: slots_of(record) == Slots(free=2))
        with httpx.Client(transport=transport(engine, passthrough="p")) as client:
            client.send(client.build_request("GET", "http://x/v1/files"), stream=True)
            gc.collect()
            pool = engine._sync_client_pool["p"]._transport._pool
            until(lambda: not pool.connections)


def test_a_client_finds_what_a_network_gives() -> None:
    quiet = Reply(stream=["One", Fault.STALL])
    with (
        ProviderSimulator("Short", quiet) as simulator,
        engine_on(simulator, models=["m"]) as engine,
    ):
        client = httpx.Client(transport=transport(engine), timeout=0.5)
        with client.stream("POST", CHAT, json=asking("m")) as response:
            assert not response.is_closed
            assert len(response.read()) == int(response.headers["content-length"])
        began = time.monotonic()
        assert "stream_interrupted" in client.post(CHAT, json=asking("m", stream=True)).text
        assert time.monotonic() - began < 5


def test_what_no_transport_is_made_of() -> None:
    engine = engine_with(provider(name="p"))
    engine._execute = lambda *_: "x"  # type: ignore[method-assign]
    with pytest.raises(TypeError, match="_execute is replaced"):
        transport(engine)
    engine = engine_with(provider(name="p"))
    with pytest.raises(ValueError, match="no provider 'q'"):
        transport(engine, [Route("a", {"p": "m", "q": "m"})])
    with pytest.raises(ValueError, match="there twice"):
        transport(engine, [Route("a", {"p": "m"}), Route("a", {"p": "m"})])
    with pytest.raises(ValueError, match="passthrough"):
        transport(engine, passthrough="q")
    with pytest.raises(TypeError, match="engine must be"):
        transport("engine")  # type: ignore[arg-type]
    for wrong in (
        {"providers": {}},
        {"providers": {"p": ""}},
        {"name": "", "providers": {"p": "m"}},
    ):
        with pytest.raises(ValueError, match="must not be empty"):
            Route(**{"name": "a", **wrong})
