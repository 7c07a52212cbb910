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

from support import start_child
from tarvomeldric.simulator import ProviderSimulator, Reply, rehearsal

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
