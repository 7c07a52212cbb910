"""A simulator's server in a process of its own, where it shares no interpreter lock with us.

The two processes talk through the child's standard input and output, so nobody else on the
machine can reach what was received (API keys, for one). When the parent ends, however it ends,
the child's input ends too, and with it the child.
"""

from __future__ import annotations

import pickle
import subprocess
import sys
import threading
from typing import Any

from .local import LocalServer
from .script import Settings

_PATIENCE_S = 5.0

# The child finds this package where we found it, however our own path came about.
_BOOT = (
    "import pickle, sys; sys.path[:] = pickle.load(sys.stdin.buffer); "
    "from tarvomeldric.simulator.remote import serve; serve()"
)


class RemoteServer:
    """Like :class:`LocalServer`, with a child process in place of the thread."""

    def __init__(self, settings: Settings) -> None:
        """Start the child; OSError when it cannot have the port."""
        self._lock = threading.Lock()
        self._process = subprocess.Popen(
            [sys.executable, "-c", _BOOT],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            start_new_session=True,  # Ctrl-C is for us; we then stop the child
        )
        try:
            self._send(sys.path)
            self.port: int = self._exchange(settings)
        except BaseException:
            self.stop()
            raise

    def ask(self, operation: str, *arguments: object) -> Any:
        """Have the child carry out an operation of its desk and return the result.

        Raises:
            RuntimeError: The child has ended.
        """
        return self._exchange((operation, *arguments))

    def stop(self) -> None:
        """End the child and wait for it."""
        for pipe in (self._process.stdin, self._process.stdout):
            assert pipe is not None
            pipe.close()
        try:
            self._process.wait(_PATIENCE_S)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()

    def _exchange(self, message: object) -> Any:
        assert self._process.stdout is not None
        with self._lock:
            try:
                self._send(message)
                answer = pickle.load(self._process.stdout)
            except (BrokenPipeError, EOFError):
                raise RuntimeError("the simulator's process has ended") from None
        if isinstance(answer, Exception):
            raise answer
        return answer

    def _send(self, message: object) -> None:
        assert self._process.stdin is not None
        self._process.stdin.write(pickle.dumps(message))
        self._process.stdin.flush()


def serve() -> None:
    """Run in the child: serve, and do as the parent says until it falls silent."""
    try:
        server = LocalServer(_receive())
    except Exception as error:
        _answer(error)
        return
    _answer(server.port)
    while True:
        try:
            operation, *arguments = _receive()
        except EOFError:
            break
        _answer(server.ask(operation, *arguments))
    server.stop()


def _receive() -> Any:
    return pickle.load(sys.stdin.buffer)


def _answer(message: object) -> None:
    sys.stdout.buffer.write(pickle.dumps(message))
    sys.stdout.buffer.flush()
