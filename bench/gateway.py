"""What the gateway and the transports cost beside a direct connection, and beside another gateway.

`wrk` asks one simulated provider, directly and through each gateway in turn, over 1, 16 and 64
connections that are kept. CPU time is that of the gateway's process alone. `--rival PATH` names the
program of the other one, `litellm`; without it there is a word in its place. Some minutes.
"""

import argparse
import asyncio
import json
import os
import platform
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable, Iterator, Sequence
from contextlib import ExitStack, contextmanager
from dataclasses import dataclass, field
from pathlib import Path
from statistics import median
from typing import Any

import httpx

from tarvomeldric import CallPolicy
from tarvomeldric.clients import Route, async_transport, transport
from tarvomeldric.simulator import ProviderSimulator, rehearsal

ROOT = Path(__file__).resolve().parent.parent
RESULTS = ROOT / "build" / "gateway.json"
CONNECTIONS = (1, 16, 64)
PATIENCE_S = 90.0  # for a gateway to start
ASKED = {"model": "fast", "messages": [{"role": "user", "content": "Hello"}]}
_TICKS = os.sysconf("SC_CLK_TCK")
_CONFIG = """
[providers.only]
base_url = "{base_url}"
slots = 1000
burst = 1000000
requests_per_second = 1000000.0

[[routes]]
name = "fast"
providers = {{ only = "any-model" }}
"""
_SCRIPT = """
wrk.method, wrk.body = "POST", '{body}'
wrk.headers["Content-Type"] = "application/json"
"""
_RIVALS_CONFIG = """
model_list:
  - model_name: fast
    litellm_params: {{model: openai/any-model, api_base: "{base_url}", api_key: "-"}}
general_settings: {{dangerously_permit_weak_or_unset_master_key: true}}
"""


@dataclass
class Figures:
    """Of one contestant, a round at a time, by the number of connections."""

    per_second: dict[int, list[float]] = field(default_factory=dict)
    ms: dict[int, list[float]] = field(default_factory=dict)  # p50
    cpu_ms: dict[int, list[float]] = field(default_factory=dict)  # a request

    def add(self, connections: int, taken: "Taken", cpu_s: float) -> None:
        self.per_second.setdefault(connections, []).append(taken.per_second)
        self.ms.setdefault(connections, []).append(taken.ms)
        self.cpu_ms.setdefault(connections, []).append(1000 * cpu_s / taken.requests)


@dataclass
class Taken:
    requests: int
    per_second: float
    ms: float


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--seconds", type=int, default=3, help="of each measurement")
    parser.add_argument("--rival", help="the program of LiteLLM's proxy")
    options = parser.parse_args()
    sys.path.append(str(ROOT / "tools"))  # the support package
    if not shutil.which("wrk"):
        sys.exit("bench/gateway.py needs wrk, a Debian package")
    print(f"Python {platform.python_version()}, {os.cpu_count()} processors,", end=" ")
    print(f"load {os.getloadavg()[0]:.1f}; the median of {options.rounds} rounds")
    with rehearsal(), ProviderSimulator(process=True, keep=0) as provider:
        gateways = measured_gateways(provider, options)
        transports = measured_transports(provider.base_url, options.rounds)
    print_gateways(gateways)
    print_transports(transports)
    RESULTS.parent.mkdir(exist_ok=True)
    told = {name: vars(figures) for name, figures in gateways.items()}
    RESULTS.write_text(json.dumps({"gateways": told, "transports": transports}, indent=1))


def measured_gateways(provider: ProviderSimulator, options: Any) -> dict[str, Figures]:
    own = [sys.executable, "-m", "tarvomeldric", "gateway"]
    with ExitStack() as stack:
        contestants: dict[str, tuple[str, int | None]] = {"direct": (provider.base_url, None)}
        contestants["TarvoMeldric"] = stack.enter_context(
            running(own, _CONFIG.format(base_url=provider.base_url), "toml")
        )
        if options.rival and shutil.which(options.rival):
            program = [options.rival, "--num_workers", "1"]
            contestants["LiteLLM's proxy, one worker"] = stack.enter_context(
                running(program, _RIVALS_CONFIG.format(base_url=provider.base_url), "yaml")
            )
        else:
            print("LiteLLM's proxy is left out: --rival names no program that can be run")
        figures = {name: Figures() for name in contestants}
        for round_ in range(options.rounds + 1):
            for connections in CONNECTIONS:
                for name, (url, process) in contestants.items():
                    before = cpu_s(process)
                    taken = ask(url, connections, options.seconds if round_ else 1)
                    if round_:  # caches fill and connections are made in the first one
                        figures[name].add(connections, taken, cpu_s(process) - before)
    return figures


@contextmanager
def running(
    program: Sequence[str], config: str, suffix: str, **environment: str
) -> Iterator[tuple[str, int]]:
    """A gateway that is ready: its address, and its process."""
    from support import free_port

    port = free_port()
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder) / f"gateway.{suffix}"
        path.write_text(config)
        process = subprocess.Popen(
            [*program, "--config", str(path), "--host", "127.0.0.1", "--port", str(port)],
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            env={**os.environ, **environment},
        )
        try:
            wait_for(port, process)
            yield f"http://127.0.0.1:{port}/v1", process.pid
        finally:
            process.terminate()
            process.wait(30)


def wait_for(port: int, process: "subprocess.Popen[bytes]") -> None:
    until = time.monotonic() + PATIENCE_S
    while time.monotonic() < until and process.poll() is None:
        try:
            socket.create_connection(("127.0.0.1", port), 1).close()
            return
        except OSError:
            time.sleep(0.1)
    raise RuntimeError(f"{process.args!r} does not serve")


def cpu_s(process: int | None) -> float:
    if process is None:
        return 0.0
    fields = Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / _TICKS


def ask(url: str, connections: int, seconds: int) -> Taken:
    with tempfile.NamedTemporaryFile("w", suffix=".lua") as script:
        script.write(_SCRIPT.format(body=json.dumps(ASKED)))
        script.flush()
        command = ["wrk", "-t1", f"-c{connections}", f"-d{seconds}s", "--timeout", "30s"]
        command += ["--latency", "-s", script.name, f"{url}/chat/completions"]
        said = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    if "Non-2xx" in said or "Socket errors" in said:
        raise RuntimeError(f"{url} did not answer everything: {said}")
    found = re.search(
        r"50%\s+([\d.]+)(us|ms|s)\n.*?(\d+) requests in .*?Requests/sec:\s+([\d.]+)",
        said,
        re.DOTALL,
    )
    assert found is not None, said
    unit = {"us": 1e-3, "ms": 1.0, "s": 1e3}[found[2]]
    return Taken(int(found[3]), float(found[4]), unit * float(found[1]))


def measured_transports(base_url: str, rounds: int) -> dict[str, dict[str, float]]:
    """What one request costs through a client of httpx, bare and with a transport of ours."""
    from support import engine_with, tireless

    engine = engine_with(tireless(base_url=base_url, name="only", slots=1000))
    view = engine.with_policy(CallPolicy.interactive())
    routes = [Route("fast", {"only": "any-model"})]
    loop = asyncio.new_event_loop()
    blocking = {
        "bare": httpx.Client(),
        "transport": httpx.Client(transport=transport(view, routes)),
    }
    awaited = {
        "bare": httpx.AsyncClient(),
        "transport": httpx.AsyncClient(transport=async_transport(view, routes)),
    }
    url = f"{base_url}/chat/completions"

    async def each(client: httpx.AsyncClient, count: int) -> None:
        for _ in range(count):
            (await client.post(url, json=ASKED)).raise_for_status()

    def block(client: httpx.Client, count: int) -> None:
        for _ in range(count):
            client.post(url, json=ASKED).raise_for_status()

    def run(client: httpx.AsyncClient, count: int) -> None:
        loop.run_until_complete(each(client, count))

    figures = {
        "blocking": beside(blocking, block, rounds),
        "awaited": beside(awaited, run, rounds),
    }
    for one in awaited.values():
        loop.run_until_complete(one.aclose())
    loop.run_until_complete(engine.close())
    loop.close()
    return figures


def beside(
    clients: dict[str, Any], run: Callable[[Any, int], None], rounds: int, count: int = 50
) -> dict[str, float]:
    """Milliseconds a request, and of CPU, that the transport needs more than the bare client."""
    wall: dict[str, list[float]] = {name: [] for name in clients}
    cpu: dict[str, list[float]] = {name: [] for name in clients}
    for turn in range(10 * rounds + 1):
        for name, client in clients.items():
            start, used = time.perf_counter(), time.process_time()
            run(client, count)
            if turn:
                wall[name].append(1000 * (time.perf_counter() - start) / count)
                cpu[name].append(1000 * (time.process_time() - used) / count)
    return {
        "bare": median(wall["bare"]),
        "added": median(wall["transport"]) - median(wall["bare"]),
        "added_cpu": median(cpu["transport"]) - median(cpu["bare"]),
    }


def print_gateways(gateways: dict[str, Figures]) -> None:
    direct = median(gateways["direct"].ms[1])
    print("\n| | requests/s at " + ", ".join(map(str, CONNECTIONS)), end="")
    print(" connections | added ms at 1 | CPU ms a request |\n|---|---|---|---|")
    for name, figures in gateways.items():
        rates = " / ".join(f"{median(figures.per_second[it]):,.0f}" for it in CONNECTIONS)
        added = f"{median(figures.ms[1]) - direct:.2f}" if name != "direct" else ""
        cpu = [median(figures.cpu_ms[it]) for it in CONNECTIONS]
        needed = f"{min(cpu):.2f} to {max(cpu):.2f}" if name != "direct" else ""
        print(f"| {name} | {rates} | {added} | {needed} |")


def print_transports(transports: dict[str, dict[str, float]]) -> None:
    print("\n| a request through httpx | bare ms | added ms | added CPU ms |\n|---|---|---|---|")
    for name, one in transports.items():
        print(f"| {name} | {one['bare']:.2f} | {one['added']:.2f} | {one['added_cpu']:.2f} |")


if __name__ == "__main__":
    main()
