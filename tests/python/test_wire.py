"""What goes wrong on a connection, on real sockets: how it reads, how long it takes, what is used again."""

from __future__ import annotations

import asyncio
import contextlib
import gzip
import json
import re
import socket
import ssl
import struct
import threading
import time
from collections.abc import Callable
from typing import Any

import pytest
from helpers import engine_with, provider

from tarvomeldric import APIError

Act = Callable[[socket.socket], Any]
TIMEOUT = 0.4
CLOSE = object()  # what an act returns when the connection is to end


class Server:
    """Lets one act after the other answer the requests; the last one answers all that are left."""

    def __init__(self, *acts: Act, tls: ssl.SSLContext | None = None) -> None:
        self._acts = list(acts)
        self._tls = tls
        self._listener = socket.create_server(("127.0.0.1", 0), backlog=128)
        self.url = f"{'https' if tls else 'http'}://127.0.0.1:{self._listener.getsockname()[1]}/v1"
        self.connections = 0
        threading.Thread(target=self._accept, daemon=True).start()

    def __enter__(self) -> Server:
        return self

    def __exit__(self, *_: object) -> None:
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()

    def _accept(self) -> None:
        with contextlib.suppress(OSError):
            while True:
                connection, _ = self._listener.accept()
                self.connections += 1
                threading.Thread(target=self._serve, args=[connection], daemon=True).start()

    def _serve(self, connection: socket.socket) -> None:
        with contextlib.suppress(OSError), contextlib.ExitStack() as open_sockets:
            if self._tls:
                connection = self._tls.wrap_socket(connection, server_side=True)
            open_sockets.enter_context(connection)
            while self._has_request(connection):
                act = self._acts.pop(0) if len(self._acts) > 1 else self._acts[0]
                if act(connection) is CLOSE:
                    return

    @staticmethod
    def _has_request(connection: socket.socket) -> bool:
        received = b""
        while b"\r\n\r\n" not in received:
            piece = connection.recv(65536)
            if not piece:
                return False
            received += piece
        head, _, body = received.partition(b"\r\n\r\n")
        length = re.search(rb"(?i)content-length: (\d+)", head)
        wanted = int(length[1]) if length else 0
        while len(body) < wanted:
            body += connection.recv(65536)
        return True


def answer(body: bytes, status: int = 200, **headers: str) -> bytes:
    more = "".join(f"{name.replace('_', '-')}: {value}\r\n" for name, value in headers.items())
    return f"HTTP/1.1 {status} X\r\n{more}Content-Length: {len(body)}\r\n\r\n".encode() + body


ANSWER = answer(json.dumps({"choices": [{"message": {"content": "answer"}}]}).encode())
CHUNKED = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"


def says(*pieces: bytes, then: Any = None) -> Act:
    def act(connection: socket.socket) -> Any:
        for piece in pieces:
            connection.sendall(piece)
        return then

    return act


def stalls(*pieces: bytes) -> Act:
    return lambda connection: (says(*pieces)(connection), time.sleep(20))


def drips(start: bytes, drop: bytes) -> Act:
    def act(connection: socket.socket) -> None:
        connection.sendall(start)
        while True:
            connection.sendall(drop)
            time.sleep(0.01)

    return act


def resets(connection: socket.socket) -> Any:
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    return CLOSE


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
        return self

    def __exit__(self, *_: object) -> None:
        self.engine.close_sync()
        if self._loop:
            self._loop.close()

    def ask(self, **options: Any) -> Any:
        form = self.engine._execute if self._loop else self.engine._execute_sync
        options = {"timeout": TIMEOUT, **options}
        result: Any = form(self.engine._providers["mine"], "Hi", "m", **options)
        return self._loop.run_until_complete(result) if self._loop else result

    def failure(self, **options: Any) -> tuple[str, int | None]:
        """How it fails; it must be over in time."""
        start = time.monotonic()
        with pytest.raises(APIError) as raised:
            self.ask(**options)
        assert time.monotonic() - start < options.get("timeout", TIMEOUT) + 0.1
        return str(raised.value), raised.value.status_code


both = pytest.mark.parametrize("awaited", [False, True], ids=["blocking", "awaited"])


@both
@pytest.mark.parametrize("name", FAULTS)
def test_a_fault_is_told_in_time_and_its_connection_is_not_used_again(
    name: str, awaited: bool
) -> None:
    act, text, status = FAULTS[name]
    with Server(good, act, good) as server, Caller(server.url, awaited) as caller:
        assert caller.ask() == "answer"
        told = caller.failure(timeout=TIMEOUT if text == LATE else 5)
        assert (told[0][: len(text)], told[1]) == (text, status)
        assert server.connections == 1
        assert caller.ask() == "answer"
        assert server.connections == (1 if name in READ_TO_ITS_END else 2)


@both
def test_a_connection_that_ends_while_it_is_idle_is_replaced(awaited: bool) -> None:
    with Server(says(ANSWER, then=CLOSE)) as server, Caller(server.url, awaited) as caller:
        for _ in range(3):
            assert caller.ask() == "answer"
            time.sleep(0.05)
        assert server.connections == 3
