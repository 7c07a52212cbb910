"""A Redis that stalls, and forgets everything when it is started again."""

import random
import signal
import socket
import subprocess
import threading

from naps import sleep


class Redis:
    """A redis-server without persistence on a free loopback port."""

    def __init__(self) -> None:
        with socket.create_server(("127.0.0.1", 0)) as free:
            self.port = free.getsockname()[1]
        self.url = f"redis://127.0.0.1:{self.port}"
        self.start()

    def start(self) -> None:
        command = ["redis-server", "--port", str(self.port), "--bind", "127.0.0.1", "--save", ""]
        self._process = subprocess.Popen(command, stdout=subprocess.DEVNULL)
        while not self._answers():
            if self._process.poll() is not None:
                raise RuntimeError(f"redis-server ended with status {self._process.returncode}")
            sleep(0.01)

    def stop(self) -> None:
        self._process.kill()
        self._process.wait()

    def stall(self) -> None:
        self._process.send_signal(signal.SIGSTOP)

    def go_on(self) -> None:
        self._process.send_signal(signal.SIGCONT)

    def _answers(self) -> bool:
        try:
            with socket.create_connection(("127.0.0.1", self.port), timeout=1) as client:
                client.sendall(b"PING\r\n")
                return client.recv(7) == b"+PONG\r\n"
        except OSError:
            return False


def troubles(redis: Redis, chance: random.Random, over: threading.Event) -> None:
    """Starts the server again, and stalls it, in turn."""
    while not over.wait(chance.uniform(0.5, 1.5)):
        redis.stop()
        over.wait(chance.uniform(0, 0.5))
        redis.start()
        if over.wait(chance.uniform(0.5, 2)):
            return
        redis.stall()
        over.wait(chance.uniform(0.1, 1.5))
        redis.go_on()
