"""``python -m tarvomeldric``: what people at a shell, and their scripts, get to see."""

from __future__ import annotations

import fcntl
import json
import os
import pty
import re
import signal
import socket
import subprocess
import sys
import termios
import time
import urllib.request
from collections.abc import Iterator
from contextlib import suppress
from pathlib import Path
from typing import Any, NamedTuple

import pytest

import tarvomeldric
from support import KEY, NOWHERE, start_child, until
from tarvomeldric.simulator import ProviderSimulator

PROGRAM = [sys.executable, "-W", "error", "-m", "tarvomeldric"]


def start(*arguments: str, **options: Any) -> subprocess.Popen[str]:
    streams = dict.fromkeys(("stdin", "stdout", "stderr"), subprocess.PIPE)
    return subprocess.Popen([*PROGRAM, *arguments], text=True, **{**streams, **options})


class Ended(NamedTuple):
    status: int
    out: str
    err: str


def cli(*arguments: str, stdin: str = "") -> Ended:
    with start(*arguments) as program:
        out, err = program.communicate(stdin, timeout=60)
    return Ended(program.returncode, out, err)


def told(*arguments: str, stdin: str = "", status: int = 0) -> str:
    """What a program printed that ended with this status and complained about nothing."""
    ended = cli(*arguments, stdin=stdin)
    assert ended.err == ""
    assert ended.status == status
    return ended.out


@pytest.fixture
def kept_clean(home: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Iterator[int]:
    """A Redis that nobody may speak to, whose port this is, and places where nothing may be left."""
    temporary = tmp_path / "temporary"
    temporary.mkdir()
    monkeypatch.setenv("TMPDIR", str(temporary))
    with socket.create_server(("127.0.0.1", 0)) as redis:
        port = redis.getsockname()[1]
        monkeypatch.setenv("TARVOMELDRIC_REDIS_URL", f"redis://127.0.0.1:{port}")
        yield port
        redis.settimeout(0)
        with pytest.raises(BlockingIOError):
            redis.accept()
    assert [*home.iterdir(), *temporary.iterdir()] == []


@pytest.mark.once
@pytest.mark.usefixtures("kept_clean")
def test_the_demo_adds_up_and_leaves_nothing_behind(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("HTTP_PROXY", NOWHERE)
    out = told("demo", "--log")
    assert "It adds up." in out
    assert re.search(r"\n  WARNING \w{8} openai/gpt-4o failed after \d", out)
    assert "\x1b" not in out


@pytest.mark.once
@pytest.mark.usefixtures("kept_clean")
def test_serve_shows_every_kind_of_provider_until_it_is_told_to_end() -> None:
    def fetch(path: str) -> Any:
        with urllib.request.urlopen(page + path, timeout=5) as reply:
            return json.loads(reply.read())

    def seen(name: str) -> Any:
        return fetch("stats")["providers"][name]

    with start("serve", "--port", "0") as program:
        assert program.stdout is not None
        page = program.stdout.readline().split()[-1]
        assert list(fetch("stats")["providers"]) == ["anthropic", "google", "openai", "deepseek"]
        until(lambda: seen("deepseek")["circuit"]["state"] == "open", patience=60)
        until(lambda: seen("openai")["fail"] and seen("anthropic")["success"], patience=60)
        assert fetch("live.json")["calls"]
        program.terminate()
        out, err = program.communicate(timeout=20)
    assert err == ""
    assert program.returncode == 0
    assert "healed, 3 providers available" in out
    assert "\x1b" not in out
    with pytest.raises(OSError, match="refused"):
        fetch("health")


def test_serve_ends_in_time_and_says_when_it_cannot_have_its_port(kept_clean: int) -> None:
    began = time.monotonic()
    told("serve", "--port", "0", "--seconds", "0.5")
    assert time.monotonic() - began < 20
    refused = cli("serve", "--port", str(kept_clean))
    assert refused.status == 1
    assert re.fullmatch(r"tarvomeldric: \[Errno.*\n", refused.err)


OVERLOADED = """
  category    rate_limit
  confidence  0.95, by the status 429
  label       rate_limit:openai
  matched     "openai is overloaded" by row 11:
  healing     retried up to 5 times, then failed over
  suggested   wait_and_retry (l1_retry) after 1 s
  breaker     stays open for 10 s once this opens it
"""
NOT_FOUND = """
  label       model_not_found:http_404
  matched     no row
  healing     not retried; a cheaper model of the provider, then failed over
  breaker     stays open for 600 s
"""
UNKNOWN = """
  category    unknown
  confidence  0.5, by the lack
  healing     not retried; failed
"""


def test_diagnose_tells_what_the_engine_would_do() -> None:
    overloaded = told("diagnose", "--status", "429", "openai is overloaded")
    not_found = told("diagnose", "--status", "404", "")
    unknown = told("diagnose", "The dog ate it", status=1)
    for shown, out in (OVERLOADED, overloaded), (NOT_FOUND, not_found), (UNKNOWN, unknown):
        for line in shown.rstrip().split("\n"):
            assert f"\n{line}" in f"\n{out}"
        assert "\x1b" not in out


def test_diagnose_as_json_is_for_scripts() -> None:
    found = json.loads(told("diagnose", "-", "--json", stdin="Insufficient balance\n"))
    assert found["category"] == "quota_exceeded"
    assert found["label"] == "quota_exceeded:insufficient_balance"
    assert found["row"]["number"] == 17
    assert found["found_by"] == "text"
    assert found["should_retry"] is False
    assert found["skip_to_failover"] is True
    assert found["cooldown_seconds"] == 300.0


ASKING = """
import logging, sys
from helpers import providers_at
from tarvomeldric._cli import main
logging.getLogger("asyncio").setLevel(logging.ERROR)  # how slow this machine is does not matter
with providers_at(sys.argv[1]):
    sys.exit(main(sys.argv[2:]))
"""


def test_run_tries_the_keys_and_asks_the_providers_behind_them() -> None:
    with ProviderSimulator("Hi.", "Hi.", "Rayleigh.", "Hi.", 401, "Hi.", 401) as simulator:

        def run(*arguments: str) -> Ended:
            words = [simulator.base_url, "run", "--key", f"openai={KEY}", *arguments]
            with start_child(ASKING, *words) as child:
                out, err = child.communicate(timeout=60)
            assert KEY not in out + err
            return Ended(child.returncode, out, err)

        found = run()
        assert found.err == ""
        assert found.status == 0
        lines = found.out.split("\n")
        assert lines[0] == "  [OK] openai: https://api.openai.com/v1 (models: 3)"
        assert lines[2] == f"  TarvoMeldric v{tarvomeldric.__version__} | 1 provider(s) | 1 healthy"

        answered = run("Why is the sky blue?", "--model", "gpt-4o")
        assert answered.out == "Rayleigh.\n"
        assert answered.status == 0
        assert re.fullmatch(r"  openai/gpt-4o, \d+ ms, at the first attempt\n", answered.err)
        asked = simulator.requests[-1].body
        assert asked["model"] == "gpt-4o"
        assert asked["messages"][0]["content"] == "Why is the sky blue?"

        failed = run("Why?")  # the key works no longer once it is asked in earnest
        assert failed.err.startswith("  RuntimeError: ")
        assert failed.out == ""
        assert failed.status == 1

        # The other provider's probe is the second one.
        answered = run("Why?", "--key", f"anthropic={KEY}")
        assert answered.out == "Simulated answer to: Why?\n"
        assert answered.err.count("\n") == 1
        assert answered.status == 0


def test_run_without_a_key_that_works_is_a_negative_finding(
    monkeypatch: pytest.MonkeyPatch, home: Path
) -> None:
    keyless = cli("run")
    assert keyless.status == 1
    assert keyless.err.startswith("  no provider has a key;")
    assert "| 0 provider(s) | 0 healthy\n" in keyless.out
    monkeypatch.setenv("HTTPS_PROXY", NOWHERE)
    unheard = cli("run", "--key", f"openai={KEY}", "-", stdin="Why?")
    assert unheard == Ended(1, "", "  no provider is healthy: openai\n")
    assert [path.name for path in home.iterdir()] == [".tarvomeldric"]  # this engine is a real one


WRONG = ["", "diagnose", "serve --port 65536", "serve --seconds 0", "serve --seconds nan"]
WRONG += [f"run --key {KEY}", f"run --key nobody={KEY}", f"run --keys openai={KEY} Hi"]
WRONG += [f"run Hi {KEY}", f"openai={KEY}", f"diagnose timeout --status key={KEY}"]


@pytest.mark.parametrize("line", WRONG)
def test_what_is_not_understood_is_explained_without_quoting_keys(line: str) -> None:
    refused = cli(*line.split())
    assert refused.status == 2
    assert refused.out == ""
    assert refused.err.startswith("usage: python -m tarvomeldric")
    assert KEY not in refused.err


@pytest.mark.parametrize("line", ["", "run", "gateway", "check", "demo", "serve", "diagnose"])
def test_help_and_version(line: str) -> None:
    out = told(*line.split(), "--help")
    assert ("/metrics" if line == "serve" else "exit status") in out
    assert max(len(line) for line in out.split("\n")) <= 100
    assert told("--version") == f"tarvomeldric {tarvomeldric.__version__}\n"


@pytest.mark.parametrize("line", ["--help", "diagnose timeout", "run"])
def test_a_reader_that_goes_away_is_no_news(line: str) -> None:
    reading, writing = os.pipe()
    os.close(reading)
    with start(*line.split(), stdout=writing) as program:
        os.close(writing)
        _, err = program.communicate(timeout=30)
    assert err == ""
    # Newer Pythons keep it to themselves that nobody reads the help.
    assert program.returncode in {128 + signal.SIGPIPE, 0 if line == "--help" else None}


def on_a_terminal(*arguments: str, interrupt_at: str = "") -> Ended:
    """A program and all that it showed; Ctrl-C is pressed when that text appears."""

    def become_the_terminals_own() -> None:
        os.setsid()
        fcntl.ioctl(0, termios.TIOCSCTTY, 0)

    ours, theirs = pty.openpty()
    streams = dict.fromkeys(("stdin", "stdout", "stderr"), theirs)
    program = start(*arguments, **streams, preexec_fn=become_the_terminals_own)
    os.close(theirs)
    shown = ""
    with suppress(OSError), open(ours, "rb", buffering=0) as screen:  # an error is its end
        while piece := screen.read(4096):
            shown += piece.decode()
            if interrupt_at and interrupt_at in shown:
                os.write(ours, b"\x03")
                interrupt_at = ""
    return Ended(program.wait(timeout=20), shown, "")


def test_colour_is_for_people_who_look_and_do_not_mind(monkeypatch: pytest.MonkeyPatch) -> None:
    assert "\x1b[32mtimeout\x1b[0m" in on_a_terminal("diagnose", "timeout").out
    monkeypatch.setenv("NO_COLOR", "1")
    plain = on_a_terminal("diagnose", "timeout").out
    assert "timeout" in plain
    assert "\x1b" not in plain


@pytest.mark.usefixtures("kept_clean")
@pytest.mark.parametrize(
    ("line", "moment", "status"), [("demo", "waits", 130), ("serve --port 0", "Ctrl-C", 0)]
)
def test_ctrl_c_on_a_terminal_ends_in_order(line: str, moment: str, status: int) -> None:
    ended = on_a_terminal(*line.split(), interrupt_at=moment)
    assert ended.status == status
    assert not re.search("Traceback|Error", ended.out)
