"""What goes wrong on a connection, on real sockets: how it reads, how long it takes, what is used again."""

from __future__ import annotations

import asyncio
import gzip
import json
import os
import signal
import socket
import ssl
import subprocess
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any

import httpcore
import pytest

from support import NOWHERE, engine_with, provider, start_child, until
from support.raw_server import CHUNKED, CLOSE, Act, RawServer, answer, drips, resets, says, stalls
from tarvomeldric import APIError
from tarvomeldric.simulator import ProviderSimulator, Reply

TIMEOUT = 0.4

ANSWER = answer(json.dumps({"choices": [{"message": {"content": "answer"}}]}).encode())
good = says(ANSWER)
LATE = f"Timeout after {TIMEOUT}s calling mine"
GONE = "RemoteProtocolError: Server disconnected without sending a response."
SHORT = (
    "RemoteProtocolError: peer closed connection without sending complete message body"
    " (received 1 bytes, expected 9)"
)
ZEROS = gzip.compress(bytes(300 << 20), 1)
TWICE = {"Content_Encoding": "gzip, gzip"}
NOT_ASKED = "content encoding not asked for: "

FAULTS: dict[str, tuple[Act, str, int | None]] = {
    "silent": (stalls(), LATE, 408),
    "stall in the head": (stalls(b"HTTP/1.1 200 OK\r\n"), LATE, 408),
    "stall in the body": (stalls(ANSWER[:-5]), LATE, 408),
    "stall in a refusal": (stalls(answer(b"no", 500)[:-1]), LATE, 408),
    "drip in the head": (drips(b"HTTP/1.1 200 OK\r\nX: ", b"x"), LATE, 408),
    "drip in the body": (drips(b"HTTP/1.1 200 OK\r\nContent-Length: 999\r\n\r\n", b" "), LATE, 408),
    "drip in a chunk's extension": (drips(CHUNKED + b"1;", b"x"), LATE, 408),
    "flood of 1xx": (drips(b"", b"HTTP/1.1 103 X\r\n\r\n" * 50), LATE, 408),
    "reset": (resets, "ReadError: [Errno 104] Connection reset by peer", None),
    "closed early": (says(then=CLOSE), GONE, None),
    "closed in the body": (says(answer(b"123456789")[:-8], then=CLOSE), SHORT, None),
    "garbage": (says(b"\0\1\2\r\n\r\n"), "RemoteProtocolError: illegal status line: ", None),
    "wrong gzip": (says(answer(b"xyz", Content_Encoding="gzip")), "DecodingError: Error -3", None),
    "too large": (
        says(answer(ZEROS, Content_Encoding="gzip")),
        "DecodingError: the answer is larger than 256 MiB",
        None,
    ),
    "encoded twice": (says(answer(b"x", **TWICE)), f"DecodingError: {NOT_ASKED}gzip, gzip", None),
    "encoded strangely": (says(answer(b"x", Content_Encoding="br")), f"DecodingError: {NOT_ASKED}br", None),
    "refusal, encoded twice": (says(answer(b"x", 503, **TWICE)), "HTTP 503: ", 503),
    "refusal, wrong gzip": (says(answer(b"xyz", 503, Content_Encoding="gzip")), "HTTP 503: ", 503),
    "refusal, large": (says(answer(b"x" * 10_000_000, 503)), "HTTP 503: " + "x" * 200, 503),
    "refusal, a bomb": (
        says(answer(ZEROS, 503, Content_Encoding="gzip")),
        "HTTP 503: " + "\0" * 200,
        503,
    ),
    "refusal that leads nowhere": (says(answer(b"x", 307, Location="http://a:b/")), "HTTP 307: x", 307),
}  # fmt: skip
READ_TO_ITS_END = {"refusal that leads nowhere"}


class Caller:
    """One attempt after the other, on clients that are kept."""

    def __init__(self, url: str, awaited: bool, **fields: Any) -> None:
        self.engine = engine_with(provider(url, slots=1000, **fields))
        self._loop = asyncio.new_event_loop() if awaited else None

    def __enter__(self) -> Caller:
        self.client = self.engine._get_sync_client("mine")
        if self._loop:
            self.client = self._loop.run_until_complete(self.engine._get_session("mine"))
        return self

    def __exit__(self, *_: object) -> None:
        self.engine.close_sync()
        if self._loop:
            self._loop.close()

    def ask(self, **options: Any) -> Any:
        form = self.engine._execute if self._loop else self.engine._execute_sync
        options = {"timeout": TIMEOUT, **options}
        return self.run(form(self.engine._providers["mine"], "Hi", "m", **options))

    def run(self, result: Any) -> Any:
        return self._loop.run_until_complete(result) if self._loop else result

    def at_once(self, times: int) -> list[Any]:
        if not self._loop:
            with ThreadPoolExecutor(32) as threads:
                return list(threads.map(lambda _: self.ask(timeout=9), range(times)))

        async def work() -> list[Any]:
            record = self.engine._providers["mine"]
            return [await self.engine._execute(record, "Hi", "m") for _ in range(times // 32)]

        async def together() -> list[Any]:
            return [
                one for some in await asyncio.gather(*(work() for _ in range(32))) for one in some
            ]

        return list(self.run(together()))

    def failure(self, **options: Any) -> tuple[str, int | None]:
        """How it fails; it must be over in time."""
        start = time.monotonic()
        with pytest.raises(APIError) as raised:
            self.ask(**options)
        assert time.monotonic() - start < options.get("timeout", TIMEOUT) + 0.5
        return str(raised.value), raised.value.status_code


both = pytest.mark.parametrize("awaited", [False, True], ids=["blocking", "awaited"])


@both
@pytest.mark.parametrize("name", FAULTS)
def test_a_fault_is_told_in_time_and_its_connection_is_not_used_again(
    name: str, awaited: bool
) -> None:
    act, text, status = FAULTS[name]
    with RawServer(good, act, good) as server, Caller(server.url, awaited) as caller:
        assert caller.ask() == "answer"
        told = caller.failure(timeout=TIMEOUT if text == LATE else 5)
        assert (told[0][: len(text)], told[1]) == (text, status)
        assert server.connections == 1
        assert caller.ask() == "answer"
        assert server.connections == (1 if name in READ_TO_ITS_END else 2)


@both
def test_a_connection_that_ends_while_it_is_idle_is_replaced(awaited: bool) -> None:
    with RawServer(says(ANSWER, then=CLOSE)) as server, Caller(server.url, awaited) as caller:
        for _ in range(3):
            assert caller.ask() == "answer"
            time.sleep(0.05)
        assert server.connections == 3


@pytest.fixture(scope="module")
def certificate(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """One that nobody signed, with its key."""
    file = tmp_path_factory.mktemp("tls") / "own.pem"
    command = "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=own"
    command += f" -addext subjectAltName=IP:127.0.0.1 -keyout {file} -out {file}.crt"
    subprocess.run(command.split(), check=True, capture_output=True)
    file.write_text(file.read_text() + Path(f"{file}.crt").read_text())
    return file


def test_a_connection_that_is_not_made_reads_alike_in_both_forms(
    certificate: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    def told(url: str) -> tuple[str, int | None]:
        with Caller(url, False) as blocking, Caller(url, True) as awaited:
            text = blocking.failure()
            assert awaited.failure() == text
            return text

    tls = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    tls.load_cert_chain(certificate)
    with RawServer(good, tls=tls) as secure, RawServer(stalls()) as silent:
        assert told(NOWHERE) == ("ConnectError: [Errno 111] Connection refused", None)
        assert told("http://nowhere.invalid/v1")[0].startswith("ConnectError: [Errno -")
        assert "[SSL: CERTIFICATE_VERIFY_FAILED]" in told(secure.url)[0]
        assert told(silent.url.replace("http", "https")) == (LATE, 408)
        monkeypatch.setenv("SSL_CERT_FILE", str(certificate))
        for awaited in (False, True):
            with Caller(secure.url, awaited) as caller:
                assert caller.ask() == "answer"
        monkeypatch.setenv("HTTPS_PROXY", silent.url)
        assert told(secure.url) == (LATE, 408)
        monkeypatch.setenv("HTTPS_PROXY", NOWHERE)
        assert told(secure.url)[0] == "ConnectError: [Errno 111] Connection refused"


CHARSETS = (
    "hex rot13 zlib bz2 uu base64 undefined idna punycode utf-7 hz iso2022_jp unicode_escape no"
)


def test_a_refusal_is_read_in_time_whatever_its_charset_is_said_to_be() -> None:
    with ProviderSimulator() as simulator, Caller(simulator.base_url, True) as caller:
        for charset in CHARSETS.split():
            head = {"Content-Type": f"text/plain; charset={charset}"}
            simulator.script(Reply(status=400, body="é-" * 30_000, headers=head))
            assert caller.failure(timeout=1) == ("HTTP 400: " + "é-" * 100, 400)


@both
def test_no_cookie_is_kept(awaited: bool) -> None:
    reply = Reply(headers={"Set-Cookie": "session=1; Path=/"})
    with ProviderSimulator(default=reply) as simulator:
        with Caller(simulator.base_url, awaited) as caller:
            assert caller.ask() == caller.ask()
        assert [request.header("cookie") for request in simulator.requests] == [None, None]


@both
def test_a_burst_opens_no_more_connections_than_it_has_calls_at_once(awaited: bool) -> None:
    with RawServer(lambda connection: (time.sleep(0.02), good(connection))) as server:
        with Caller(server.url, awaited) as caller:
            assert set(caller.at_once(160)) == {"answer"}
            idle = [each.is_idle() for each in caller.client._transport._pool.connections]
        assert server.connections <= 40
        assert idle == [True] * (20 if awaited else 10)


@both
def test_a_call_waits_for_a_full_pool_no_longer_than_its_timeout(awaited: bool) -> None:
    def held(connection: socket.socket) -> Any:
        opened.wait(20)
        return good(connection)

    async def main() -> Any:
        holder = asyncio.ensure_future(
            caller.engine._execute(caller.engine._providers["mine"], "Hi", "m")
        )
        await asyncio.sleep(0.05)
        with pytest.raises(APIError, match=LATE):
            await caller.engine._execute(
                caller.engine._providers["mine"], "Hi", "m", timeout=TIMEOUT
            )
        opened.set()
        return await holder

    opened = threading.Event()
    with RawServer(held) as server, Caller(server.url, awaited) as caller:
        caller.client._transport._pool._max_connections = 1
        if awaited:
            assert caller.run(main()) == "answer"
        else:
            with ThreadPoolExecutor(1) as thread:
                holder = thread.submit(caller.ask, timeout=9)
                until(lambda: server.connections == 1)
                assert caller.failure() == (LATE, 408)
                opened.set()
                assert holder.result() == "answer"


def test_cancelled_exchanges_leave_no_connection_behind() -> None:
    async def main() -> None:
        record = caller.engine._providers["mine"]
        calls = [
            asyncio.ensure_future(caller.engine._execute(record, "Hi", "m")) for _ in range(200)
        ]
        await asyncio.sleep(0.1)
        for call in calls:
            call.cancel()
        assert {type(end) for end in await asyncio.gather(*calls, return_exceptions=True)} == {
            asyncio.CancelledError
        }
        assert caller.client._transport._pool.connections == []
        opened.set()
        assert await caller.engine._execute(record, "Hi", "m") == "answer"

    opened = threading.Event()
    with (
        RawServer(lambda connection: opened.wait(20) and good(connection)) as server,
        Caller(server.url, True) as caller,
    ):
        caller.run(main())


@both
def test_a_version_that_was_not_tried_keeps_its_own_pool(
    awaited: bool, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(httpcore, "__version__", "1.99.0")
    with RawServer(good, stalls(), good) as server, Caller(server.url, awaited) as caller:
        kind = httpcore.AsyncConnectionPool if awaited else httpcore.ConnectionPool
        assert type(caller.client._transport._pool) is kind
        assert caller.ask() == "answer"
        assert caller.failure() == (LATE, 408)
        assert caller.ask() == "answer"


def test_a_stream_is_bounded_for_each_pause_only() -> None:
    async def events() -> list[Any]:
        stream = caller.engine._execute_stream(
            caller.engine._providers["mine"], "Hi", "m", timeout=TIMEOUT
        )
        return [event async for event in stream]

    def act(connection: socket.socket) -> None:
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 999\r\n\r\n")
        for _ in range(8):
            connection.sendall(b"data: 1\n\n")
            time.sleep(TIMEOUT / 4)
        time.sleep(20)

    with RawServer(act) as server, Caller(server.url, True) as caller:
        end = {"error": "stream_interrupted: ReadTimeout", "recoverable": True}
        assert caller.run(events()) == [1] * 8 + [end]


def test_an_interrupted_exchange_ends_the_use_of_its_client_but_no_other_exchange() -> None:
    class StruckError(Exception):
        pass

    def strike(*_: object) -> None:
        raise StruckError

    def slow(connection: socket.socket) -> Any:
        time.sleep(0.5)
        return good(connection)

    before = signal.signal(signal.SIGALRM, strike)
    with RawServer(slow, slow, good) as server, Caller(server.url, False) as caller:
        with ThreadPoolExecutor(1) as thread:
            other = thread.submit(caller.ask, timeout=9)
            until(lambda: server.connections == 1)
            signal.setitimer(signal.ITIMER_REAL, 0.1)
            with pytest.raises(APIError, match="Struck"):
                caller.ask(timeout=9)
            assert caller.engine._sync_client_pool == {}
            assert caller.ask() == other.result() == "answer"
        assert caller.client._transport._pool.connections == []
        assert caller.engine._sync_client_pool["mine"] is not caller.client
    signal.signal(signal.SIGALRM, before)


@pytest.mark.once
def test_interrupts_at_any_moment_keep_no_later_call_waiting() -> None:
    script = Path(__file__).parents[2] / "soak" / "interrupts.py"
    paths = {**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)}
    done = subprocess.run(
        [sys.executable, script, "200"], capture_output=True, text=True, timeout=60, env=paths
    )
    assert (done.returncode, done.stderr) == (0, "")


ENDED = """
import asyncio, contextlib, signal, sys, threading, time
from support import engine_with, tireless
engine = engine_with(tireless(base_url=sys.argv[1]))
def end(*_):
    start = time.monotonic()
    engine.close_sync()
    assert time.monotonic() - start < 1
    signal.setitimer(signal.ITIMER_REAL, 1.0)  # an exit may be lost where Python cannot raise it
    sys.exit()
signal.signal(signal.SIGALRM, end)
def use():
    while True:
        with contextlib.suppress(Exception): engine.call_sync("Hi")
async def call():
    while True:
        with contextlib.suppress(Exception): await engine.call("Hi")
signal.setitimer(signal.ITIMER_REAL, float(sys.argv[3]))
for work in (use, use, lambda: asyncio.run(call())): threading.Thread(target=work, daemon=True).start()
try:
    use() if sys.argv[2] == "blocking" else asyncio.run(call())
finally:
    signal.setitimer(signal.ITIMER_REAL, 0)
"""


@pytest.mark.once
@pytest.mark.parametrize("form", ["blocking", "awaited"])
def test_a_signal_handler_closes_the_engine_at_any_moment_of_its_first_calls(form: str) -> None:
    with ProviderSimulator(default="answer", process=True) as simulator:
        for tenths in range(1, 7):
            child = start_child(ENDED, simulator.base_url, form, str(tenths / 10), strict=False)
            assert child.communicate(timeout=20) == ("", "")
            assert child.returncode == 0
