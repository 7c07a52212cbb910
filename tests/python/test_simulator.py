"""The simulated provider over real sockets, and rehearsals."""

from __future__ import annotations

import json
import os
import signal
import socket
import subprocess
import sys
import time
from collections.abc import Callable, Iterator
from functools import partial, reduce
from operator import getitem
from pathlib import Path
from typing import Any

import httpx
import pytest

from tarvomeldric.simulator import Fault, ProviderSimulator, Raw, Reply, rehearsal

CHAT = "/chat/completions"
HI = {"model": "m", "messages": [{"role": "user", "content": "Hi"}]}
INPUT, PROMPT, AUDIO = {"input": "Hi"}, {"prompt": "Hi"}, {"model": "m"}
MESSAGE = ("choices", 0, "message", "content")


@pytest.fixture
def client() -> Iterator[httpx.Client]:
    with httpx.Client(trust_env=False, timeout=10) as client:
        yield client


@pytest.fixture(params=[False, True], ids=["thread", "process"])
def provider(request: pytest.FixtureRequest) -> Iterator[ProviderSimulator]:
    with ProviderSimulator(process=request.param) as provider:
        yield provider


def chat_text(response: httpx.Response) -> Any:
    return reduce(getitem, MESSAGE, response.json())


def until(condition: Callable[[], bool]) -> None:
    deadline = time.monotonic() + 10
    while not condition():
        assert time.monotonic() < deadline
        time.sleep(0.01)


@pytest.mark.parametrize(
    ("path", "body", "place", "kind"),
    [
        (CHAT, HI, MESSAGE, str),
        ("/completions", HI, MESSAGE, str),
        ("/embeddings", INPUT, ("data", 0, "embedding"), list),
        ("/embeddings", {**INPUT, "encoding_format": "base64"}, ("data", 0, "embedding"), str),
        ("/images/generations", PROMPT, ("data", 0, "url"), str),
        (CHAT, {**PROMPT, "response_format": "b64_json"}, ("data", 0, "b64_json"), str),
        ("/audio/transcriptions", AUDIO, ("text",), str),
        (CHAT, AUDIO, ("text",), str),
    ],
)
def test_each_kind_of_request_is_answered_where_its_client_looks(
    client: httpx.Client, path: str, body: Any, place: tuple[Any, ...], kind: type
) -> None:
    with ProviderSimulator(Reply(), "scripted", Fault.NULL) as provider:
        replies = [client.post(provider.base_url + path, json=body).json() for _ in range(3)]
    helpful, scripted, null = (reduce(getitem, place, reply) for reply in replies)
    assert isinstance(helpful, kind)
    assert (bool(helpful), scripted, null) == (True, "scripted", None)


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
    assert (refused.status_code, refused.text) == (429, "slow down")
    assert refused.headers["Retry-After"] == "2"
    texts = [chat_text(reply) for reply in (post(), post("big"), post("m", "How is the weather?"))]
    assert texts == ["first", "by model", "by prompt"]
    assert [post().status_code, post().status_code] == [503, 503]
    provider.script("never used", "never used")
    provider.script("new", default=Reply(body={"any": ["json"]}))
    assert chat_text(post()) == "new"
    assert post().json() == {"any": ["json"]}


def test_faults_reach_the_client_as_such(client: httpx.Client, provider: ProviderSimulator) -> None:
    post = partial(client.post, provider.base_url + CHAT, json=HI)
    provider.script(Fault.GARBAGE, Fault.WRONG_SHAPE, Fault.TRUNCATED, Fault.RESET, Fault.STALL)
    with pytest.raises(json.JSONDecodeError):
        post().json()
    assert "choices" not in post().json()
    with pytest.raises(httpx.RemoteProtocolError):
        post()
    with pytest.raises(httpx.ReadError):
        post()
    with pytest.raises(httpx.ReadTimeout):
        post(timeout=httpx.Timeout(10, read=0.1))
    assert chat_text(post()) == "Simulated answer to: Hi"
    until(lambda: [r.disconnected for r in provider.requests] == [False] * 4 + [True, False])


def test_streams_send_their_items_as_they_come(
    client: httpx.Client, provider: ProviderSimulator
) -> None:
    event = {"choices": [{"delta": {"content": "x"}}]}
    sent = b"data: " + json.dumps(event).encode() + b"\n\n"
    junk = b": comment\n\ndata: {oops\r\n\xff\n"
    provider.script(
        Reply(stream=[Raw(junk), Raw(""), event, 0.05, Raw("data: [DO")], done=False),
        Reply(stream=[event, Fault.TRUNCATED]),
        Reply(stream=[event, Fault.STALL]),
        Reply(stream=["two", " words"]),
        "two words",
    )
    url = provider.base_url + CHAT
    assert client.post(url, json=HI).content == junk + sent + b"data: [DO"
    with client.stream("POST", url, json=HI) as cut:
        chunks = cut.iter_raw()
        assert next(chunks) == sent
        with pytest.raises(httpx.RemoteProtocolError):
            next(chunks)
    with client.stream("POST", url, json=HI) as silent:
        assert next(silent.iter_raw()) == sent
    until(lambda: [r.disconnected for r in provider.requests] == [False, False, True])
    scripted, asked_for = (client.post(url, json={**HI, "stream": True}).text for _ in range(2))
    assert scripted.endswith("data: [DONE]\n\n")
    first, second, ending, *_ = asked_for.split("\n\n")
    assert scripted.split("\n\n")[:2] == [first, second]
    assert json.loads(second[6:])["choices"][0]["delta"] == {"content": " words"}
    assert json.loads(ending[6:])["choices"][0]["finish_reason"] == "stop"


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
    assert (first.method, first.path, first.body) == ("POST", "/v1/embeddings?a=b", [1])
    names = ["Host", "X-Odd-CASE", "authorization", "X-Odd-CASE", "Content-Length"]
    assert [name for name, _ in first.headers] == names
    assert (first.header("Authorization"), first.header("x-odd-case")) == ("Bearer k", "1")
    assert (third.method, third.body, third.header("Host")) == ("GET", "", None)
    provider.clear()
    assert (provider.requests, provider.request_count) == ([], 0)


def test_a_seed_fixes_the_faults(client: httpx.Client) -> None:
    def statuses(seed: int, process: bool) -> list[int]:
        settings: Any = {"fault_rate": 0.5, "faults": [429, 500], "seed": seed, "process": process}
        with ProviderSimulator(**settings, keep=2) as provider:
            url = provider.base_url + CHAT
            day = [client.post(url, json=HI).status_code for _ in range(60)]
            assert (len(provider.requests), provider.request_count) == (2, 60)
            return day

    bad_day = statuses(7, False)
    assert set(bad_day) == {200, 429, 500}
    assert bad_day == statuses(7, True) != statuses(8, False)


def test_a_process_ends_with_its_parent() -> None:
    program = (
        "from tarvomeldric.simulator import ProviderSimulator\n"
        "with ProviderSimulator(process=True) as provider: input(f'{provider.port}\\n')"
    )
    pipe = subprocess.PIPE
    command = [sys.executable, "-u", "-c", program]
    with subprocess.Popen(command, stdin=pipe, stdout=pipe, text=True) as parent:
        assert parent.stdout is not None
        port = int(parent.stdout.readline())
        connection = socket.create_connection(("127.0.0.1", port), timeout=10)
        parent.kill()
    with connection:
        assert connection.recv(1) == b""


def test_from_a_shell(client: httpx.Client, provider: ProviderSimulator) -> None:
    command = [sys.executable, "-m", "tarvomeldric.simulator", "--answer", "Hello", "--port"]
    taken = subprocess.run([*command, str(provider.port)], capture_output=True, text=True)
    assert (taken.returncode, "in use" in taken.stderr) == (1, True)
    pipe = subprocess.PIPE
    with subprocess.Popen([*command, "0"], stdout=pipe, stderr=pipe, text=True) as shell:
        assert shell.stdout is not None
        url = shell.stdout.readline().strip()
        assert chat_text(client.post(url + CHAT, json=HI)) == "Hello"
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
            assert Path.home() == inner == tmp_path / "kept"
        assert Path.home() == home
    assert dict(os.environ) == before
    assert (home.exists(), inner.exists()) == (False, True)
