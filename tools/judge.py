"""Runs the openai client's own tests with our transport below that client, and against the gateway.

Their files are those of the installed version's source distribution, and stay as they are.
"""

from __future__ import annotations

import json
import re
import subprocess
import sys
import tarfile
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from threading import Thread
from typing import Any

from stages import ROOT, pytest_counts

from support.environments import environment_with
from tarvomeldric.simulator import Fault, ProviderSimulator, Reply, rehearsal

HOME = ROOT / "build" / "judge"
TESTS = (
    "chat/test_completions.py",
    "chat/completions/test_messages.py",
    "test_completions.py",
    "test_embeddings.py",
    "test_models.py",
)

# What is not expected to pass: a run, a part of the test's name, and why.
EXCEPTED = (("transport", "aiohttp", "it brings its own network: there is nothing to go below"),)

FAULTS = (503, 429, Fault.RESET, Fault.GARBAGE, Fault.TRUNCATED, Reply(stream=[Fault.RESET]))


def main() -> int:
    python = environment_with("clients")
    theirs = sources(python)
    models = models_in(theirs)
    # Their strict client refuses the base64 that it asks for itself.
    numbers = {model: Reply([0.25, 0.5]) for model in models if "embedding" in model}
    with (
        store() as stored,
        ProviderSimulator(rules=numbers) as healthy,
        ProviderSimulator(fault_rate=1.0, faults=FAULTS, seed=7) as ailing,
    ):
        verdicts = [
            judge(python, theirs, run, circumstances, setting)
            for circumstances, urls in {
                "": [healthy.base_url],
                " on a bad day": [ailing.base_url, healthy.base_url],
            }.items()
            for run, setting in settings(urls, models, stored)
        ]
        ailed = ailing.request_count
    print(f"{ailed} requests failed first on the bad days")
    return 0 if all(verdicts) and ailed else 1


def settings(
    urls: list[str], models: list[str], stored: str
) -> Iterator[tuple[str, dict[str, Any]]]:
    yield "transport", {"providers": urls, "models": models, "store": stored}
    with gateway(urls, models, stored) as url:
        yield "gateway", {"base_url": url}


@contextmanager
def gateway(urls: list[str], models: list[str], stored: str) -> Iterator[str]:
    """The address of a gateway to these providers, the first of them first."""
    tables = [f'passthrough = "store"\n[providers.store]\nbase_url = "{stored}"']
    for at, url in enumerate(urls):
        tables.append(f'[providers.p{at}]\nbase_url = "{url}"\nmodels = {json.dumps(models)}')
        tables.append("burst = 1_000_000\nbreaker.failure_threshold = 1_000_000")
        tables.append("breaker.error_rate_threshold = 2.0")
    config = HOME / "gateway.toml"
    config.write_text("\n".join(tables) + "\n")
    command = [*(sys.executable, "-m", "tarvomeldric", "gateway"), "--port", "0"]
    with (
        rehearsal(),
        subprocess.Popen(
            [*command, "--config", str(config)], stdout=subprocess.PIPE, text=True
        ) as server,
    ):
        try:
            assert server.stdout is not None
            yield server.stdout.readline().split()[-1]
        finally:
            server.terminate()


def sources(python: Path) -> Path:
    """Where the installed client's own source distribution lies unpacked."""
    show = "from importlib.metadata import version; print(version('openai'))"
    version = subprocess.check_output([python, "-c", show], text=True).strip()
    theirs = HOME / f"openai-{version}"
    if not theirs.exists():
        download = [*("-m", "pip", "download", "--quiet", "--no-deps"), "--no-binary", "openai"]
        wanted = ["--dest", str(HOME), f"openai=={version}"]
        subprocess.run([sys.executable, *download, *wanted], check=True)
        with tarfile.open(f"{theirs}.tar.gz") as archive:
            archive.extractall(HOME, filter="data")
    return theirs


def models_in(theirs: Path) -> list[str]:
    """The models that the tests ask for, which are others in every version."""
    text = "".join((theirs / "tests/api_resources" / name).read_text() for name in TESTS)
    return sorted(set(re.findall(r'(?:\bmodel=|models[.\w]*\.retrieve\(\s*)"([^"]+)"', text)))


def judge(
    python: Path, theirs: Path, run: str, circumstances: str, setting: Mapping[str, Any]
) -> bool:
    """Prints what a run came to; whether all is as it should be."""
    excepted = {name: reason for of, name, reason in EXCEPTED if of == run}
    report = HOME / "report.xml"
    report.unlink(missing_ok=True)
    done = subprocess.run(
        [
            *(python, "-m", "pytest", "-p", "judge_plugin", "-o", "addopts=", "-q", "--tb=short"),
            *(f"--junit-xml={report}", "-p", "no:cacheprovider"),
            *(f"tests/api_resources/{name}" for name in TESTS),
        ],
        cwd=theirs,
        env={
            "PATH": "/usr/bin:/bin",
            "PYTHONPATH": str(ROOT / "tools"),
            "PYTHONDONTWRITEBYTECODE": "1",
            "JUDGE": json.dumps({**setting, "excepted": excepted}),
            "TEST_API_BASE_URL": setting.get("base_url", "http://nowhere.invalid/v1"),
        },
        capture_output=True,
        text=True,
    )
    if done.returncode != 0:
        print(done.stdout + done.stderr)
    if not report.exists():
        print(f"{run}{circumstances}: did not run")
        return False
    counts = pytest_counts(report)
    told = f"{counts.passed} passed, {counts.failed} failed, {counts.skipped} excepted"
    print(f"{run}{circumstances}: {told}", flush=True)
    for name, reason in excepted.items():
        print(f"  {name} is excepted: {reason}")
    return done.returncode == 0 and counts.passed > 0


class Store(BaseHTTPRequestHandler):
    """What a provider keeps of earlier answers, and its models: passed on, as nobody here has it."""

    protocol_version = "HTTP/1.1"

    def answer(self) -> None:
        self.rfile.read(int(self.headers.get("content-length") or 0))
        path = self.path.partition("?")[0].removeprefix("/v1/")
        content = json.dumps(kept(self.command, path)).encode()
        self.send_response(200)
        self.send_header("content-type", "application/json")
        self.send_header("content-length", str(len(content)))
        self.end_headers()
        self.wfile.write(content)

    do_GET = do_POST = do_DELETE = answer  # noqa: N815

    def log_message(self, *_: object) -> None:
        pass


def kept(method: str, path: str) -> dict[str, Any]:
    message = {"role": "assistant", "content": "Hi", "refusal": None}
    choice = {"index": 0, "message": message, "finish_reason": "stop", "logprobs": None}
    about = {"id": "kept", "created": 0, "model": "m"}
    completion = {**about, "object": "chat.completion", "choices": [choice]}
    if method == "DELETE":
        kind = "model" if path.startswith("models/") else "chat.completion.deleted"
        return {"id": "kept", "object": kind, "deleted": True}
    if path.endswith("/messages"):
        return listing({"id": "kept", **message})
    return listing(completion) if path == "chat/completions" else completion


def listing(item: Mapping[str, Any]) -> dict[str, Any]:
    ends = {"first_id": item["id"], "last_id": item["id"]}
    return {"object": "list", "data": [item], "has_more": False, **ends}


@contextmanager
def store() -> Iterator[str]:
    """The address of a provider's store."""
    with ThreadingHTTPServer(("127.0.0.1", 0), Store) as server:
        Thread(target=server.serve_forever, daemon=True).start()
        try:
            yield f"http://127.0.0.1:{server.server_port}/v1"
        finally:
            server.shutdown()


if __name__ == "__main__":
    sys.exit(main())
