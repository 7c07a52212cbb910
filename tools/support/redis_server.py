"""A real Redis for as long as it is needed."""

from __future__ import annotations

import signal
import socket
import subprocess
from typing import Any

from .ports import free_port
from .waiting import until


class RedisServer:
    """A redis-server without persistence; it keeps its loopback port when it is started again."""

    def __init__(self) -> None:
        self.port = free_port()
        self.url = f"redis://127.0.0.1:{self.port}"
        self.start()

    def __enter__(self) -> RedisServer:
        return self

    def __exit__(self, *_: Any) -> None:
        self.stop()

    @property
    def pid(self) -> int:
        return self._process.pid

    def start(self) -> None:
        command = ["redis-server", "--port", str(self.port), "--bind", "127.0.0.1", "--save", ""]
        self._process = subprocess.Popen(command, stdout=subprocess.DEVNULL)
        until(self._answers)

    def stop(self) -> None:
        self._process.kill()
        self._process.wait()

    def pause(self) -> None:
        self._process.send_signal(signal.SIGSTOP)

    def resume(self) -> None:
        self._process.send_signal(signal.SIGCONT)

    def _answers(self) -> bool:
        if self._process.poll() is not None:
            raise RuntimeError(f"redis-server ended with status {self._process.returncode}")
        try:
            with socket.create_connection(("127.0.0.1", self.port), timeout=1) as client:
                client.sendall(b"PING\r\n")
                return client.recv(7) == b"+PONG\r\n"
        except OSError:
            return False
