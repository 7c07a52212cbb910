"""The simulator from a shell: ``python -m tarvomeldric.simulator``."""

from __future__ import annotations

import argparse
import sys
import time

from .provider import ProviderSimulator
from .replies import Reply

_DESCRIPTION = """\
Serve a simulated LLM provider on this machine until Ctrl-C.

It speaks the OpenAI-compatible dialect (chat, completions, embeddings, images,
audio; streamed when asked to) and needs no key."""

_EXAMPLES = """\
examples:
  a provider that always works:
    python -m tarvomeldric.simulator

  a bad day, the same one every time: one request in five is answered with
  429, 500, 503 or garbage, is reset, or never answered at all:
    python -m tarvomeldric.simulator --fault-rate 0.2 --seed 7

  a slow provider with one answer to everything:
    python -m tarvomeldric.simulator --delay 1.5 --answer "Ask me later."

try it:
  curl http://127.0.0.1:8765/v1/chat/completions \\
    -d '{"model": "any", "messages": [{"role": "user", "content": "Hi"}]}'

or point an engine at it:
  engine.add_provider(ProviderConfig("mine", "http://127.0.0.1:8765/v1", "any-key"))
"""


def main(arguments: list[str] | None = None) -> int:
    """Serve until interrupted; return the exit status, 1 when the port cannot be had."""
    options = _parser().parse_args(arguments)
    provider = ProviderSimulator(
        default=Reply(options.answer, delay=options.delay),
        fault_rate=options.fault_rate,
        seed=options.seed,
        port=options.port,
        keep=0,
    )
    try:
        with provider:
            print(provider.base_url, flush=True)
            while True:
                time.sleep(3600)
    except KeyboardInterrupt:
        return 0
    except (OSError, OverflowError) as error:
        print(f"cannot serve on port {options.port}: {error}", file=sys.stderr)
        return 1


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="python -m tarvomeldric.simulator",
        description=_DESCRIPTION,
        epilog=_EXAMPLES,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    add = parser.add_argument
    add("--port", type=int, default=8765, help="port to serve on, 0 for a free one (default: 8765)")
    add("--fault-rate", type=share, default=0.0, metavar="P", help="share of faults, 0 to 1")
    add("--seed", type=int, default=0, help="the same seed gives the same faults (default: 0)")
    add("--delay", type=seconds, default=0.0, metavar="S", help="seconds before each answer")
    add("--answer", metavar="TEXT", help="answer everything with TEXT instead of an echo")
    return parser


def share(text: str) -> float:
    value = float(text)
    if not 0.0 <= value <= 1.0:
        raise argparse.ArgumentTypeError("must be within 0 and 1")
    return value


def seconds(text: str) -> float:
    value = float(text)
    if not 0.0 <= value < float("inf"):
        raise argparse.ArgumentTypeError("must be a number of seconds")
    return value


if __name__ == "__main__":
    sys.exit(main())
