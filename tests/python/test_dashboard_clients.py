"""Clients that are slow, silent, deaf or many, and programs that fork, run dry or end meanwhile."""

from __future__ import annotations

import errno
import socket
import struct
import time
from typing import Any
from unittest.mock import Mock

import pytest
from dashboards import connect, left, made_up, served

from support import get, run_child, until
from tarvomeldric import _dashboard

pytestmark = pytest.mark.usefixtures("silent")


ASKING = b"GET /stats HTTP/1.0\r\n"


def goes_on(connection: socket.socket) -> bool:
    """Sends one more piece of a head, if anybody is there to take it."""
    connection.settimeout(0)
    try:
        connection.send(b"x")
        return connection.recv(1) != b""
    except BlockingIOError:
        return True
    except ConnectionError:
        return False
    finally:
        connection.settimeout(20)


def test_nobody_waits_for_the_silent_the_slow_and_the_many(monkeypatch: Any) -> None:
    monkeypatch.setattr(_dashboard, "_PATIENCE_S", 60)
    with served(made_up()) as server:
        crowd = [connect(server, head) for head in (b"", ASKING) * 150]
        for head in (b"", b"G", ASKING + b"\r\n"):
            gone = connect(server, head)
            gone.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            gone.close()
        for path in ("/", "/metrics", "/health", "/stats"):
            assert get(server, path).status == 200
        # Only so many may wait at a time, and those who came last do.
        assert all(left(client) == b"" for client in crowd[:150])
        assert all(goes_on(client) for client in crowd[-50:])

        monkeypatch.setattr(_dashboard, "_PATIENCE_S", 0.5)
        silent = [connect(server) for _ in range(5)]
        slow = [connect(server, ASKING) for _ in range(5)]
        until(lambda: {goes_on(client) for client in slow} == {False})
        assert all(left(client) == b"" for client in silent + slow)


def test_a_client_that_does_not_read_its_reply_is_left(monkeypatch: Any) -> None:
    monkeypatch.setattr(_dashboard, "_PATIENCE_S", 1)
    size = 30_000_000
    with served(made_up(metrics="x" * size)) as server:
        slow = connect(server, ASKING)
        deaf = connect(server, b"GET /metrics HTTP/1.0\r\n\r\n")
        slow.sendall(b"\r\n")  # in time, though the server will be late to hear it
        assert get(server, "/stats").status == 200
        assert b" 200 " in left(slow)[:15]
        assert 0 < len(left(deaf)) < size
        monkeypatch.setattr(_dashboard, "_PATIENCE_S", 60)
        assert len(get(server, "/metrics").body) == size


def test_without_descriptors_the_server_bides_its_time(monkeypatch: Any) -> None:
    with served(made_up()) as server:
        accept = Mock(side_effect=OSError(errno.EMFILE, "too many"))
        monkeypatch.setattr(socket.socket, "accept", accept)
        client = connect(server, ASKING + b"\r\n")
        time.sleep(0.3)
        assert 0 < accept.call_count < 10
        monkeypatch.undo()
        assert b" 200 " in left(client)[:15]


HEADS = {
    b"\n\n": b"",
    b"x" * 100_000: b" 414 ",
    b"\0\xff / HTTP/1.0\r\n\r\n": b" 501 ",
    b"GET /\xff " + b"x" * 70_000: b" 414 ",
    b"GET /\xff HTTP/1.1\r\nX: \xff\r\n\r\n": b" 404 ",
    b"GET /stats HTTP/1.0\n\r\nmore": b" 200 ",
    b"GET /stats HTTP/1.0\r\nX: " + b"x" * 70_000: b" 431 ",
}


def test_odd_heads() -> None:
    with served(made_up()) as server:
        for head, status in HEADS.items():
            assert status in left(connect(server, head))[:15], head[:40]
        asked = connect(server, b"GET /stats HTTP/1.0\n")  # that is all, it says
        asked.shutdown(socket.SHUT_WR)
        assert b" 200 " in left(asked)[:15]


# A child that kept the port would be in the parent's way; one that tidies up must not wait for a thread.
FORKING = """
import os, signal, warnings
from dashboards import connect, made_up
from tarvomeldric import serve_dashboard
warnings.simplefilter("ignore")  # newer Pythons warn of a fork beside threads
def serve(port):
    return serve_dashboard(made_up(), "127.0.0.1", port, False, False, False)
server, (ours, theirs), (heard, tell) = serve(0), os.pipe(), os.pipe()
idle = connect(server)
child = os.fork()
if child == 0:
    signal.alarm(20)
    os.close(theirs)
    os.write(tell, b"!")  # the port is let go
    for mine in server, serve(0):
        mine.shutdown()
        mine.server_close()
    os.read(ours, 1)
    os._exit(7)
idle.close()
os.read(heard, 1)
server.server_close()
server = serve(server.server_port)
os.close(theirs)
print(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
"""


def test_a_forked_child_lets_go_of_the_port() -> None:
    assert run_child(FORKING, strict=False) == "7"
