"""The gateway as clients, operators and strangers meet it: a program of its own before simulated providers."""

from __future__ import annotations

import contextlib
import json
import random
import re
import shlex
import signal
import socket
import subprocess
import sys
import time
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any

import httpx
import pytest
from helpers import complaints_of_promtool

from support import run_child, until
from support.raw_server import CHUNKED, RawServer, answer, says
from tarvomeldric.simulator import ProviderSimulator, Reply

COMMAND = [sys.executable, "-W", "error", "-m", "tarvomeldric"]
CHAT = "/v1/chat/completions"
ASKED = {"model": "fast", "messages": [{"role": "user", "content": "Hi"}]}
WORDS = b'{"choices": [{"index": 0, "delta": {"content": "Hi"}, "finish_reason": null}]}'
HELD = b"data: " + WORDS + b"\n\n"


class Running:
    """A gateway and a client of it."""

    def __init__(self, *arguments: str, program: list[str] = COMMAND) -> None:
        command = [*program, "gateway", *arguments, "--port", "0"]
        pipes = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        self.program = subprocess.Popen(command, text=True, **pipes)  # type: ignore[call-overload]
        self.url = self.program.stdout.readline().split()[-1].removesuffix("/v1")
        self.client = httpx.Client(base_url=self.url, timeout=20, trust_env=False)
        self.port = self.client.base_url.port

    def ask(self, headers: Any = None, path: str = CHAT, **more: Any) -> httpx.Response:
        return self.client.post(path, json={**ASKED, **more}, headers=headers)

    def say(self, *pieces: bytes, patience: float = 20) -> bytes:
        """What it answers to bytes on a connection, until it closes that or stays silent."""
        with socket.create_connection(("127.0.0.1", self.port), timeout=patience) as connection:
            said = b""
            with contextlib.suppress(OSError):
                for piece in pieces:
                    connection.sendall(piece)
                while piece := connection.recv(65536):
                    said += piece
        return said

    def figure(self, line: str) -> float:
        found = re.search(rf"(?m)^{re.escape(line)} (\S+)$", self.client.get("/metrics").text)
        return float(found[1]) if found else 0.0

    def end(self) -> tuple[int, str]:
        """The status and the complaints of its end."""
        self.program.terminate()
        _, err = self.program.communicate(timeout=20)
        return self.program.returncode, err


@contextlib.contextmanager
def gateway(*arguments: str, program: list[str] = COMMAND) -> Iterator[Running]:
    running = Running(*arguments, program=program)
    try:
        yield running
        if running.program.poll() is None:
            assert running.end() == (0, "")
    finally:
        running.client.close()
        running.program.kill()
        running.program.communicate()


def written(path: Path, *urls: str, head: str = "", rest: str = "") -> str:
    """A configuration with one route to these providers, in their order."""
    providers = [f'[providers.p{at}]\nbase_url = "{url}"\n' for at, url in enumerate(urls)]
    served = ", ".join(f'p{at} = "model-{at}"' for at in range(len(urls)))
    route = f'[[routes]]\nname = "fast"\nproviders = {{ {served} }}\n'
    path = path / "gateway.toml"
    path.write_text("\n".join([head, *providers, route, rest]))
    return str(path)


def test_answers_are_the_providers_own_and_healed(tmp_path: Path) -> None:
    odd = b'{ "choices":[ {"index":0, "message":{"content":"\\u00e9 \xc3\xa9"}} ],\n"x": 1e2 }'
    events = (
        b": ping\r\n\r\n"
        + HELD
        + b'data: {"choices": [{"finish_reason": "stop"}]}\n\ndata: [DONE]\n\n'
    )
    refused = b'{"error": {"message": "slow down", "odd": 1}}'
    with (
        RawServer(
            says(answer(odd, Content_Type="application/json; charset=utf-8", X_Request_Id="r1")),
            says(answer(events, Content_Type="text/event-stream")),
            says(answer(b"", 503)),
            says(answer(HELD, Content_Type="text/event-stream")),
            says(answer(refused, 429, X_RateLimit_Reset="1s", Server="hidden")),
        ) as first,
        ProviderSimulator("Healed.", 404) as second,
        gateway("--config", written(tmp_path, first.url, second.base_url)) as running,
    ):
        whole = running.ask()
        assert (whole.status_code, whole.content) == (200, odd)
        assert whole.headers["x-request-id"] == "r1"
        assert whole.headers["content-type"] == "application/json; charset=utf-8"
        assert running.ask(stream=True).content == events

        offer = {
            "connection": "Upgrade, HTTP2-Settings",
            "upgrade": "h2c",
            "http2-settings": "AAMA",
        }
        healed = running.ask(offer, "/chat/completions", top_p=0.5)
        assert healed.json()["choices"][0]["message"]["content"] == "Healed."
        assert healed.headers["x-tarvomeldric-provider"] == "p1"
        assert healed.headers["x-tarvomeldric-heal"] == "l3_failover"
        assert second.requests[0].body == {**ASKED, "model": "model-1", "top_p": 0.5}

        broken = running.ask(stream=True).content
        assert broken.startswith(HELD)
        assert json.loads(broken.split(b"data: ")[-1])["error"]["type"] == "stream_interrupted"

        failed = running.ask()
        assert (failed.status_code, failed.content) == (429, refused)
        told = {"x-should-retry": "false", "x-ratelimit-reset": "1s", "server": ""}
        assert {name: failed.headers.get(name, "") for name in told} == told

        unknown = running.ask(model="other")
        assert (unknown.status_code, unknown.json()["error"]["code"]) == (404, "model_not_found")
        assert [it["id"] for it in running.client.get("/models").json()["data"]] == ["fast"]
        assert running.client.get("/v1/files").json()["error"]["code"] == "not_found"
        metrics = running.client.get("/metrics")
        assert complaints_of_promtool(metrics.content) == []
        assert running.figure('tarvomeldric_requests_total{route="fast",status="2xx"}') == 4
        assert running.figure('tarvomeldric_heals_total{level="l3_failover"}') == 1
        assert running.figure('tarvomeldric_attempts_total{outcome="answered",provider="p0"}') == 3
        assert running.figure("tarvomeldric_streams_under_way") == 0


GUARDED = """
passthrough = "p0"
[server]
tokens = ["${FIRST_TOKEN}", "${SECOND_TOKEN}"]
allowed_hosts = ["gateway.example"]
max_body = 1000
body_timeout = 0.5
"""
PATHS = [CHAT, "/v1/models", "/metrics", "/live", "/live.json", "/openapi.json", "/v1/files"]


def test_who_is_let_in_and_what_is_passed_on(tmp_path: Path, monkeypatch: Any) -> None:
    monkeypatch.setenv("FIRST_TOKEN", "first-token")
    monkeypatch.setenv("SECOND_TOKEN", "second-token\n")
    with (
        ProviderSimulator() as provider,
        gateway("--config", written(tmp_path, provider.base_url, head=GUARDED)) as running,
    ):
        client = running.client
        assert client.get("/health").json()["status"] == "ok"
        assert client.post("/health").status_code == 401  # that is passed on, like any other path
        for shown in "", "Bearer", "Bearer first-tokenn", "Basic first-token", "Bearer \xe9":
            for path in PATHS:
                refused = client.get(path, headers={"authorization": shown.encode("latin-1")})
                assert refused.status_code == 401
                assert refused.headers["www-authenticate"] == "Bearer"
        client.headers["authorization"] = "bearer second-token"
        for host, status in ("gateway.example:1", 200), ("evil.example", 421), ("", 421):
            for path in "/health", "/v1/models":
                assert client.get(path, headers={"host": host}).status_code == status
        assert running.ask({"origin": "http://127.0.0.1:4000"}).status_code == 403
        assert provider.request_count == 0
        assert running.ask().status_code == 200
        assert "script-src 'sha256-" in client.get("/live").headers["content-security-policy"]
        [call] = client.get("/live.json").json()["calls"]
        assert (call["outcome"], call["steps"][0]["provider"]) == ("answered", "p0")

        passed = client.post("/v1/moderations?a=b", content=b"any", headers={"x-mine": "1"})
        assert passed.status_code == 404  # the simulator's own
        assert passed.content == httpx.post(f"{provider.base_url}/moderations").content
        seen = provider.requests[-2]
        assert (seen.path, seen.header("x-mine")) == ("/v1/moderations?a=b", "1")
        assert "second-token" not in str(seen.headers)


def test_bodies_that_are_not_taken(tmp_path: Path) -> None:
    head = "[server]\nmax_body = 1000\nbody_timeout = 0.5\nkeep_alive = 1\n"
    with (
        ProviderSimulator() as provider,
        gateway("--config", written(tmp_path, provider.base_url, head=head)) as running,
    ):

        def status(content: Any, **headers: str) -> int:
            given = {"content-type": "application/json", **headers}
            reply = running.client.post(CHAT, content=content, headers=given)
            assert reply.json()["error"]["message"]
            return reply.status_code

        sound = json.dumps(ASKED).encode()
        assert status(sound, **{"content-type": "text/plain"}) == 415
        assert status(sound, **{"content-encoding": "gzip"}) == 415
        assert status(b" " * 1001) == 413
        assert status(iter([b" " * 501] * 2)) == 413
        junk = (
            b"",
            b"[]",
            b"{}",
            b"null",
            b'{"model": 1}',
            b"\xff",
            b"[" * 900,
            b'{"model": "\\ud800"}',
        )
        assert {status(each) for each in junk} == {400, 404}
        assert running.ask(headers={"x-tarvomeldric-deadline": "nan"}).status_code == 400

        top = f"POST {CHAT} HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n".encode()
        assert b" 408 " in running.say(top + b"Content-Length: 9\r\n\r\n{")
        began = time.monotonic()
        assert running.say(b"GET / HTTP/1.1\r\nX: " + b"y" * 200_000) == b""
        assert b" 400 " in running.say(b"\x00\r\n\r\n")
        assert time.monotonic() - began < 5
        chance = random.Random(7)
        for _ in range(200):
            cut = bytearray(top + b"Content-Length: 9\r\n\r\n" + sound)
            for _ in range(chance.randrange(1, 5)):
                cut[chance.randrange(len(cut))] = chance.randrange(256)
            said = running.say(bytes(cut) + b"\r\n\r\n", patience=0.02)
            assert not re.match(rb"HTTP/1.1 5", said), bytes(cut)

        idle = [socket.create_connection(("127.0.0.1", running.port)) for _ in range(1000)]
        began = time.monotonic()
        assert running.ask().status_code == 200
        assert time.monotonic() - began < 5
        assert running.client.get("/health").status_code == 200
        for each in idle:
            each.close()


def written_out(**more: Any) -> bytes:
    body = json.dumps({**ASKED, **more}).encode()
    head = f"POST {CHAT} HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n"
    return f"{head}Content-Length: {len(body)}\r\n\r\n".encode() + body


def test_a_client_that_leaves_ends_its_call(tmp_path: Path) -> None:
    left: list[str] = []

    def until_closed(*pieces: bytes) -> Callable[[socket.socket], Any]:
        def act(connection: socket.socket) -> None:
            says(*pieces)(connection)
            left.append("open")
            connection.recv(1)
            left.append("closed")

        return act

    chunk = b"%x\r\n%b\r\n" % (len(HELD), HELD)
    stream = CHUNKED.replace(b"\r\n\r\n", b"\r\nContent-Type: text/event-stream\r\n\r\n") + chunk
    with (
        RawServer(until_closed(), until_closed(), until_closed(stream)) as provider,
        gateway("--config", written(tmp_path, provider.url)) as running,
    ):
        used = 'tarvomeldric_slots_in_use{provider="p0"}'
        for requests, more in (1, {}), (2, {}), (1, {"stream": True}):
            with socket.create_connection(("127.0.0.1", running.port), timeout=20) as connection:
                connection.sendall(requests * written_out(**more))
                until(lambda: left == ["open"])
                if more:
                    received = b""
                    while WORDS not in received:
                        received += connection.recv(65536)
                assert running.figure(used) == 1
            until(lambda: left == ["open", "closed"], patience=3)
            until(lambda: running.figure(used) == 0, patience=3)
            left.clear()
        assert running.figure('tarvomeldric_requests_total{route="fast",status="left"}') == 2
        assert running.figure("tarvomeldric_streams_under_way") == 0


IMPATIENT = """
import tarvomeldric.gateway.protocol as protocol
protocol._READER_S = 0.2
from tarvomeldric._cli import main
raise SystemExit(main())
"""


def test_a_client_that_reads_nothing_of_its_answer_is_cut_off(tmp_path: Path) -> None:
    long = 16_000_000  # more than the sockets' buffers hold
    big = b'{"choices": [{"index": 0, "message": {"content": "' + b"x" * long + b'"}}]}'
    program = [sys.executable, "-W", "error", "-c", IMPATIENT]
    with (
        RawServer(says(answer(big))) as provider,
        gateway("--config", written(tmp_path, provider.url), program=program) as running,
        socket.create_connection(("127.0.0.1", running.port), timeout=20) as connection,
    ):
        connection.sendall(written_out())
        until(lambda: running.figure('tarvomeldric_requests_total{route="fast",status="2xx"}') == 1)
        time.sleep(2)
        received = 0
        with contextlib.suppress(ConnectionResetError):
            while piece := connection.recv(1 << 20):
                received += len(piece)
        assert received < long


@pytest.mark.parametrize("stop", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_lets_running_calls_end(tmp_path: Path, stop: signal.Signals) -> None:
    policy = "[policy]\ndeadline = 2\nattempt_timeout = 60\n"
    events = [{"choices": [{"index": 0, "delta": {"content": "Hi"}}]}, 30.0]
    replies = [Reply(delay=0.8), Reply(stream=events), Reply(delay=30)]
    with (
        ProviderSimulator(*replies) as provider,
        gateway("--config", written(tmp_path, provider.base_url, rest=policy)) as running,
        ThreadPoolExecutor() as pool,
    ):
        calls = []
        for at, more in enumerate(({}, {"stream": True})):
            calls.append(pool.submit(running.ask, **more))
            until(lambda sent=at + 1: provider.request_count == sent)  # type: ignore[misc]
        running.program.send_signal(stop)
        time.sleep(0.3)
        with pytest.raises(httpx.ConnectError):
            httpx.get(f"{running.url}/health", trust_env=False)
        assert calls[0].result().status_code == 200
        assert b"gateway_stopped" in calls[1].result().content
        assert running.program.wait(10) == 0


def test_a_second_signal_ends_at_once(tmp_path: Path) -> None:
    with (
        ProviderSimulator(default=Reply(delay=30)) as provider,
        gateway("--config", written(tmp_path, provider.base_url)) as running,
        ThreadPoolExecutor() as pool,
    ):
        call = pool.submit(running.ask)
        until(lambda: provider.request_count == 1)
        running.program.terminate()
        time.sleep(0.5)
        began = time.monotonic()
        assert running.end()[0] == 128 + signal.SIGTERM
        assert time.monotonic() - began < 3
        assert call.result().status_code == 503


WRONG = """
unknwn = 1
passthrough = "opnai"
[server]
host = "0.0.0.0"
prt = 3
max_body = "a"
max_waiting = 99999999999999999999
[providers.openai]
api_key = "sk-secret"
[providers.elsewhere]
base_url = "http://${EMPTY}"
[providers.google]
base_url = "${EMPTY}"
api_key = "${QUOTED}"
extra_headers = { "x-a" = "1\\r\\nX-B: secret" }
[providers.local]
base_url = "http://${HOST}"
api_key = "${NOT_SET}"
slots = 0
burst = 5
breaker = { cooldown_seconds = -1 }
fleet = { name = "a b", requests_per_minute = 500, redis_url = "${REDIS}" }
[policy]
base = "intractive"
deadline = -1
retry_budget = { ratio = -1 }
[[routes]]
name = "fast"
providers = { locl = "m", openai = 3 }
[[routes]]
name = "fast"
providers = [{ provider = "openai" }]
[[routes]]
name = "exact"
providers = { openai = "m" }
forbidden_patterns = ["("]
"""
COMPLAINTS = [
    "unknwn: unknown",
    "passthrough: there is no provider 'opnai'; did you mean 'openai'?",
    "server.prt: unknown; did you mean 'port'?",
    "server.max_body: must be a whole number",
    "server.max_waiting: is out of range",
    "providers.openai.api_key: must be ${NAME}, a variable of the environment",
    "providers.elsewhere.base_url: must be http:// or https:// and a host, without a query",
    "providers.google.api_key: must be printable ASCII",
    "providers.google.extra_headers: must be names and printable ASCII",
    "providers.google.base_url: must be http:// or https:// and a host, without a query",
    "providers.local.api_key: the environment has no NOT_SET",
    "providers.local.slots: must be above 0, and finite",
    "providers.local.burst: cannot be beside fleet, which has the limit",
    "providers.local.breaker: cooldown_seconds must be above 0, and finite",
    "providers.local.fleet.name: must be 1 to 200 of: letters, digits, . : / @ + - _",
    'policy.base: must be "interactive" or "batch" or "none"',
    "policy.retry_budget.ratio: must be a finite number, at least 0",
    "policy.deadline: must be a positive, finite number of seconds",
    "routes[0].providers.locl: there is no provider 'locl'; did you mean 'local'?",
    "routes[0].providers.openai: must be a text",
    "routes[1].providers[0].model: is missing",
    "routes[2].forbidden_patterns: must hold patterns: missing ), unterminated subpattern",
    "routes: 'fast' is there 2 times",
]
SOUND = """
[providers.openai]
api_key = "${OPENAI_API_KEY}"
models = ["gpt-4o", "gpt-4o-mini"]
[providers.local]
base_url = "http://127.0.0.1:8000/v1"
models = ["gpt-4o"]
[policy]
deadline = 5
retry_budget = { ratio = 0.5 }
[[routes]]
name = "fast"
providers = [{ provider = "local", model = "llama" }, { provider = "openai", model = "gpt-4o" }]
output_schema = { required = ["total"] }
"""
SHOWN = """\
  address     http://127.0.0.1:4000/v1, no token is needed
  route       fast -> local:llama, openai:gpt-4o
  model       gpt-4o -> openai:gpt-4o, local:gpt-4o
  model       gpt-4o-mini -> openai:gpt-4o-mini
  policy      interactive, deadline = 5.0, retry_budget = ratio 0.5, min_retries_per_second 1, burst 10
"""
WITHOUT_EXTRA = """
import sys
sys.modules["uvicorn"] = None
from tarvomeldric._cli import main
sys.stderr = sys.stdout
print(main(["gateway", "--rehearse"]))
"""


def test_a_configuration_is_checked_as_a_whole(tmp_path: Path, monkeypatch: Any) -> None:
    def told(verb: str, text: str | None = None, *more: str) -> tuple[int, str, str]:
        file = tmp_path / "file.toml"
        file.write_text(text or "")
        command = [*COMMAND, *shlex.split(verb), str(file), *more]
        done = subprocess.run(command, capture_output=True, text=True, timeout=30)
        assert "secret" not in done.stdout + done.stderr
        return done.returncode, done.stdout, done.stderr

    monkeypatch.setenv("OPENAI_API_KEY", "sk-secret")
    monkeypatch.setenv("HOST", "x")
    monkeypatch.setenv("EMPTY", "")
    monkeypatch.setenv("QUOTED", "\u201csecret\u201d")
    monkeypatch.setenv("REDIS", "redis://:secret@localhost")
    for verb in "check", "gateway --config":
        status, out, err = told(verb, WRONG)
        assert (status, out) == (1, "")
        assert sorted(err.splitlines()) == sorted(f"tarvomeldric: {it}" for it in COMPLAINTS)
    assert told("check", SOUND) == (0, SHOWN, "")
    nobody = (
        SOUND.replace("deadline = 5", 'providers = ["other"]')
        + '[providers.other]\nbase_url = "http://x"\n'
    )
    assert (
        "routes[0].providers: policy.providers leaves all of them out" in told("check", nobody)[2]
    )
    page = (Path(__file__).parents[2] / "docs" / "gateway.md").read_text()
    file, lines = re.findall(r"```(?:toml|console)\n(.*?)```", page, re.DOTALL)[1:3]
    out = told("check", file)[1]
    assert out in lines
    assert "-> own:llama-3.3-70b, openai:gpt-4o-mini" in out
    unguarded = told("gateway --config", SOUND, "--host", "0.0.0.0")
    assert unguarded[0] == 1
    assert "server.tokens: an address that others can reach needs at least one" in unguarded[2]
    monkeypatch.setenv("OPENAI_API_KEY", " \n")
    assert told("check", SOUND)[2].endswith("OPENAI_API_KEY is empty in the environment\n")
    assert told("check", "[server\nx = secret")[2].startswith("tarvomeldric: the file is not TOML")
    assert "pip install 'tarvomeldric[gateway]'\n1" in run_child(WITHOUT_EXTRA)


def test_a_rehearsal_needs_nothing_and_its_lines_work() -> None:
    with gateway("--rehearse") as running:
        lines = [running.program.stdout.readline() for _ in range(9)]  # type: ignore[union-attr]
        curls = [shlex.split(line) for line in lines if "curl" in line]
        answers = []
        for _, _, url, _, header, _, body in curls:
            name, _, value = header.partition(": ")
            answers.append(httpx.post(url, content=body, headers={name: value}, trust_env=False))
        assert [it.status_code for it in answers] == [200, 200]
        assert answers[0].json()["choices"][0]["message"]["content"] == "Simulated answer to: Hello"
        assert answers[1].text.endswith("data: [DONE]\n\n")
