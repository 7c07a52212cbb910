"""A headless Chromium, driven over a pair of pipes by its DevTools protocol."""

from __future__ import annotations

import base64
import json
import math
import os
import shutil
import subprocess
import threading
from pathlib import Path
from types import TracebackType
from typing import Any

# The protocol is spoken on descriptors 3 and 4, one JSON text after the other, a zero byte behind each.
_ON_PIPES = 'exec "$0" "$@" 3<&0 4>&1 </dev/null >/dev/null'
_OPTIONS = ["--headless=new", "--remote-debugging-pipe", "--no-sandbox", "--hide-scrollbars"]
_LIFETIME = 90.0  # seconds, after which a browser that hangs is ended


class Browser:
    """One browser with one page. It ends with the block, and by itself when its owner is gone.

    Raises:
        FileNotFoundError: there is no Chromium on this machine.
        EOFError: the browser ended too early; the message is what it complained about.
    """

    def __init__(self, profile: Path, width: int = 1000, height: int = 800) -> None:
        if (program := shutil.which("chromium")) is None:
            raise FileNotFoundError("chromium is missing; tools/packages.sh installs it")
        options = [*_OPTIONS, f"--user-data-dir={profile}", f"--window-size={width},{height}"]
        profile.mkdir(parents=True, exist_ok=True)
        self._log = profile / "complaints"
        with self._log.open("wb") as log:
            self._process = subprocess.Popen(
                ["sh", "-c", _ON_PIPES, program, *options],
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                stderr=log,
                env={**os.environ, "HOME": str(profile)},
            )
        self._watchdog = threading.Timer(_LIFETIME, self._process.kill)
        self._watchdog.start()
        self._received = b""
        self._number = 0
        self._session: dict[str, str] = {}
        self.errors: list[str] = []  # what the console shows in red

    def __enter__(self) -> Browser:
        try:
            target = self.command("Target.createTarget", url="about:blank")["targetId"]
            page = self.command("Target.attachToTarget", targetId=target, flatten=True)
            self._session = {"sessionId": page["sessionId"]}
            for domain in ("Page", "Runtime", "Log"):
                self.command(f"{domain}.enable")
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: object, trace: TracebackType | None
    ) -> None:
        self.close()

    def close(self) -> None:
        """Hangs up, which ends the browser."""
        assert self._process.stdin
        assert self._process.stdout
        self._process.stdin.close()
        try:
            self._process.wait(10)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
        self._process.stdout.close()
        self._watchdog.cancel()

    def open(self, url: str) -> None:
        """Goes to a page. It may still be loading."""
        self.command("Page.navigate", url=url)

    def evaluate(self, expression: str) -> Any:
        """What a JavaScript expression is worth on the page; None where it fails."""
        try:
            answer = self.command("Runtime.evaluate", expression=expression, returnByValue=True)
        except RuntimeError:
            return None  # between two pages there is nothing to ask
        return answer["result"].get("value")

    def screenshot(self, height: float = math.inf) -> bytes:
        """The whole page, or so much of it from its top, as a PNG picture."""
        size = self.command("Page.getLayoutMetrics")["cssContentSize"]
        size["height"] = min(size["height"], height)
        picture = self.command(
            "Page.captureScreenshot", clip={**size, "scale": 1}, captureBeyondViewport=True
        )
        return base64.b64decode(picture["data"])

    def command(self, method: str, **parameters: Any) -> dict[str, Any]:
        """Has something done and returns what came of it."""
        self._number += 1
        message = {"id": self._number, "method": method, "params": parameters, **self._session}
        self._send(json.dumps(message).encode() + b"\0")
        while (answer := self._receive()).get("id") != self._number:
            self._note(answer)
        if "error" in answer:
            raise RuntimeError(f"{method}: {answer['error']}")
        return dict(answer["result"])

    def _send(self, message: bytes) -> None:
        assert self._process.stdin
        try:
            self._process.stdin.write(message)
            self._process.stdin.flush()
        except BrokenPipeError:
            raise self._gone() from None

    def _receive(self) -> dict[str, Any]:
        assert self._process.stdout
        while b"\0" not in self._received:
            piece = os.read(self._process.stdout.fileno(), 1 << 16)
            if not piece:
                raise self._gone()
            self._received += piece
        message, _, self._received = self._received.partition(b"\0")
        return dict(json.loads(message))

    def _gone(self) -> EOFError:
        return EOFError(f"the browser ended:\n{self._log.read_text(errors='replace')[-2000:]}")

    def _note(self, event: dict[str, Any]) -> None:
        parameters = event.get("params", {})
        if event["method"] == "Log.entryAdded" and parameters["entry"]["level"] == "error":
            self.errors.append(f"{parameters['entry']['text']} {parameters['entry'].get('url')}")
        elif event["method"] == "Runtime.exceptionThrown":
            self.errors.append(str(parameters["exceptionDetails"]))
        elif event["method"] == "Runtime.consoleAPICalled" and parameters["type"] == "error":
            self.errors.append(str(parameters["args"]))
