"""A server that says on its sockets what it is told to, byte by byte."""

from __future__ import annotations

import contextlib
import re
import socket
import ssl
import struct
import threading
import time
from collections.abc import Callable
from typing import Any

Act = Callable[[socket.socket], Any]
CLOSE = object()  # what an act returns when the connection is to end


class RawServer:
    """Lets one act after the other answer the requests; the last one answers all that are left."""

    def __init__(self, *acts: Act, tls: ssl.SSLContext | None = None) -> None:
        self._acts = list(acts)
        self._tls = tls
        self._listener = socket.create_server(("127.0.0.1", 0), backlog=128)
        self.url = f"{'https' if tls else 'http'}://127.0.0.1:{self._listener.getsockname()[1]}/v1"
        self.connections = 0
        threading.Thread(target=self._accept, daemon=True).start()

    def __enter__(self) -> RawServer:
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


CHUNKED = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"


def says(*pieces: bytes, then: Any = None) -> Act:
    def act(connection: socket.socket) -> Any:
        for piece in pieces:
            connection.sendall(piece)
        return then

    return act


def stalls(*pieces: bytes) -> Act:
    def act(connection: socket.socket) -> None:
        says(*pieces)(connection)
        time.sleep(20)

    return act


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
