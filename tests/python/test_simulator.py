"""The simulated provider over real sockets, and rehearsals."""

from __future__ import annotations

import json
import os
import signal
import socket
import subprocess
import sys
from collections.abc import Iterator
from functools import partial
from pathlib import Path
from typing import Any

import httpx
import pytest

from support import engine_on, start_child
from tarvomeldric.simulator import (
    Finish,
    ProviderSimulator,
    Raw,
    Reasoning,
    Reply,
    ToolCall,
    rehearsal,
)

CHAT = "/chat/completions"
HI = {"model": "m", "messages": [{"role": "user", "content": "Hi"}]}


@pytest.fixture
def client() -> Iterator[httpx.Client]:
    with httpx.Client(trust_env=False, timeout=10) as client:
        yield client


@pytest.fixture(params=[False, True], ids=["thread", "process"])
def provider(request: pytest.FixtureRequest) -> Iterator[ProviderSimulator]:
    with ProviderSimulator(process=request.param) as provider:
        yield provider


def chat_text(response: httpx.Response) -> Any:
    return response.json()["choices"][0]["message"]["content"]


def test_script_rules_and_default_take_turns(
    client: httpx.Client, provider: ProviderSimulator
) -> None:
    def post(model: str = "m", prompt: str = "Hi") -> httpx.Response:
        body = {"model": model, "messages": [{"role": "user", "content": prompt}]}
        return client.post(provider.base_url + CHAT, json=body)

    slow_down = Reply(status=429, body="slow down", headers={"Retry-After": "2"}, delay=0.2)
    rules = {"big": "by model", "weather": "by prompt"}
    provider.script(slow_down, "first", default=503, rules=rules)
    refused = post("big")
    assert refused.elapsed.total_seconds() >= 0.2
    assert refused.status_code == 429
    assert refused.text == "slow down"
    assert refused.headers["Retry-After"] == "2"
    texts = [chat_text(reply) for reply in (post(), post("big"), post("m", "How is the weather?"))]
    assert texts == ["first", "by model", "by prompt"]
    assert [post().status_code, post().status_code] == [503, 503]
    provider.script("never used")
    provider.script("new", default=Reply(body={"any": ["json"]}))
    assert chat_text(post()) == "new"
    assert post().json() == {"any": ["json"]}


def test_a_stream_that_is_asked_for_is_that_of_a_scripted_answer(
    client: httpx.Client, provider: ProviderSimulator
) -> None:
    provider.script(Reply(stream=["two", " words"]), "two words")
    url = provider.base_url + CHAT
    scripted, asked_for = (client.post(url, json={**HI, "stream": True}).text for _ in range(2))
    assert scripted.endswith("data: [DONE]\n\n")
    first, second, ending, *_ = asked_for.split("\n\n")
    assert scripted.split("\n\n")[:2] == [first, second]
    assert json.loads(second[6:])["choices"][0]["delta"] == {"content": " words"}
    assert json.loads(ending[6:])["choices"][0]["finish_reason"] == "stop"


COUNTED = {**HI, "stream": True, "stream_options": {"include_usage": True}}
STREAMS: dict[str, tuple[Reply, list[Any]]] = {
    "an answer": (Reply("It is"), ["It", " is", "stop", (1, 2)]),
    "texts": (Reply(stream=["It ", 0.01, "is"]), ["It ", "is", "stop", (1, 2)]),
    "an end of its own": (Reply(stream=["It", Finish("length")]), ["It", "length", (1, 1)]),
    "events of one's own": (Reply(stream=["It", Raw(": x\n\n")]), ["It", (1, 1)]),
    "no end": (Reply(stream=["It"], done=False), ["It"]),
}


@pytest.mark.parametrize("what", STREAMS)
def test_a_stream_ends_with_a_reason_and_with_usage_where_that_is_asked_for(
    what: str, client: httpx.Client, provider: ProviderSimulator
) -> None:
    def told(event: Any) -> Any:
        if "usage" in event:
            assert event["choices"] == []
            return event["usage"]["prompt_tokens"], event["usage"]["completion_tokens"]
        (choice,) = event["choices"]
        return choice["delta"].get("content") or choice["finish_reason"]

    reply, expected = STREAMS[what]
    provider.script(reply, reply)
    for body in COUNTED, {**HI, "stream": True}:
        text = client.post(provider.base_url + CHAT, json=body).text
        events = [line[6:] for line in text.split("\n\n") if line.startswith("data: ")]
        assert (events[-1] == "[DONE]") is reply.done
        seen = [told(json.loads(event)) for event in events if event != "[DONE]"]
        assert seen == [each for each in expected if body is COUNTED or isinstance(each, str)]


def test_thoughts_tools_and_usage_are_sent_whole_or_in_pieces(provider: ProviderSimulator) -> None:
    calls = [ToolCall("weather", {"place": "Oslo"}), ToolCall("now", "{", id="x")]
    usage = {"prompt_tokens": 7, "completion_tokens": 8}
    whole = Reply(tool_calls=calls, usage=usage)
    provider.script(whole, whole, Reply(stream=[Reasoning("Hm."), *calls], usage=usage))
    engine = engine_on(provider)
    results = [engine.call_sync("Hi")]
    for _ in range(2):
        with engine.stream_sync("Hi", include_usage=True) as stream:
            events = list(stream)
        results.append(stream.result)
    assert events[0]["choices"][0]["delta"] == {"reasoning_content": "Hm."}
    for result in results:
        assert (result.text, result.usage) == (None, usage)
        assert result.finish_reason == "tool_calls"
        made = [(call["id"], *call["function"].values()) for call in result.tool_calls or ()]
        assert made == [("call_0", "weather", '{"place": "Oslo"}'), ("x", "now", "{")]
    engine.close_sync()


def exchange(port: int, *pieces: bytes) -> bytes:
    with socket.create_connection(("127.0.0.1", port), timeout=10) as connection:
        for piece in pieces:
            connection.sendall(piece)
        return b"".join(iter(partial(connection.recv, 65536), b""))


def test_requests_are_recorded_as_they_arrived(provider: ProviderSimulator) -> None:
    post = (
        b"POST /v1/embeddings?a=b HTTP/1.1\r\nHost: x\r\nX-Odd-CASE: 1\r\n"
        b"authorization:  Bearer k \r\nX-Odd-CASE: 2\r\nContent-Length: 4\r\n\r\n[1]\n"
    )
    get = b"GET /v1/models HTTP/1.1\r\nConnection: close\r\n\r\n"
    dribbled = [bytes([byte]) for byte in post]
    assert exchange(provider.port, *dribbled, post + get).count(b"HTTP/1.1 200 OK") == 3
    for junk in (b"hello\r\n\r\n", b"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"):
        assert exchange(provider.port, junk).startswith(b"HTTP/1.1 400 ")

    first, second, third = provider.requests
    assert first == second
    assert first.method == "POST"
    assert first.path == "/v1/embeddings?a=b"
    assert first.body == [1]
    names = ["Host", "X-Odd-CASE", "authorization", "X-Odd-CASE", "Content-Length"]
    assert [name for name, _ in first.headers] == names
    assert first.header("Authorization") == "Bearer k"
    assert first.header("x-odd-case") == "1"
    assert third.method == "GET"
    assert third.body == ""
    assert third.header("Host") is None
    provider.clear()
    assert provider.requests == []
    assert provider.request_count == 0


def test_a_seed_fixes_the_faults(client: httpx.Client) -> None:
    def statuses(seed: int, process: bool) -> list[int]:
        settings: Any = {"fault_rate": 0.5, "faults": [429, 500], "seed": seed, "process": process}
        with ProviderSimulator(**settings, keep=2) as provider:
            url = provider.base_url + CHAT
            day = [client.post(url, json=HI).status_code for _ in range(60)]
            assert len(provider.requests) == 2
            assert provider.request_count == 60
            return day

    bad_day = statuses(7, False)
    assert set(bad_day) == {200, 429, 500}
    assert bad_day == statuses(7, True) != statuses(8, False)


def test_a_limit_refuses_what_is_above_it(client: httpx.Client) -> None:
    with ProviderSimulator("first", default="then", per_second=0.01, burst=2) as provider:
        replies = [client.post(provider.base_url + CHAT, json=HI) for _ in range(3)]
    assert [chat_text(reply) for reply in replies[:2]] == ["first", "then"]
    assert replies[2].status_code == 429
    assert replies[2].headers["Retry-After"] == "100"


ORPHANED = """
import time
from tarvomeldric.simulator import ProviderSimulator
with ProviderSimulator(process=True) as provider:
    print(provider.port, flush=True)
    time.sleep(60)
"""


def test_a_process_ends_with_its_parent() -> None:
    with start_child(ORPHANED) as parent:
        assert parent.stdout is not None
        address = ("127.0.0.1", int(parent.stdout.readline()))
        with socket.create_connection(address, timeout=10) as connection:
            parent.kill()
            assert connection.recv(1) == b""


def test_from_a_shell(client: httpx.Client) -> None:
    command = [sys.executable, "-m", "tarvomeldric.simulator", "--answer", "Hello", "--port"]
    pipe = subprocess.PIPE
    with subprocess.Popen([*command, "0"], stdout=pipe, stderr=pipe, text=True) as shell:
        assert shell.stdout is not None
        url = httpx.URL(shell.stdout.readline().strip())
        assert chat_text(client.post(f"{url}{CHAT}", json=HI)) == "Hello"
        taken = subprocess.run([*command, str(url.port)], capture_output=True, text=True)
        assert "in use" in taken.stderr
        assert taken.returncode == 1
        shell.send_signal(signal.SIGINT)
        assert shell.communicate(timeout=10) == ("", "")
    assert shell.returncode == 0


def test_a_rehearsal_has_a_home_of_its_own_and_leaves_no_trace(
    monkeypatch: pytest.MonkeyPatch, tmp_path: Path
) -> None:
    monkeypatch.setenv("OPENAI_API_KEY", "real")
    monkeypatch.delenv("USERPROFILE", raising=False)
    before = dict(os.environ)
    with rehearsal() as home:
        assert Path.home() == home != Path(before["HOME"])
        assert "OPENAI_API_KEY" not in os.environ
        (home / "learned").write_text("rules")
        with rehearsal(home=tmp_path / "kept") as inner:
            assert inner == tmp_path / "kept"
            assert Path.home() == inner
        assert Path.home() == home
    assert dict(os.environ) == before
    assert not home.exists()
    assert inner.exists()
