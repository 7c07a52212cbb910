"""What may be said on the command line, and the help that teaches it."""

from __future__ import annotations

import argparse
import math
import re
import sys
from pathlib import Path
from typing import NoReturn

from tarvomeldric import __version__, _engine

_DESCRIPTION = """\
Calls to hosted model providers that heal themselves: what a shell can do with them."""

_EPILOG = """\
examples:
  %(prog)s demo                          a bad day against simulated providers
  %(prog)s serve                         the same kind of day, live on a dashboard
  %(prog)s diagnose --status 429 "slow down"
  %(prog)s gateway --rehearse            an OpenAI-compatible server
  %(prog)s run                           do the keys at hand work?
  %(prog)s run "Why is the sky blue?"    ask the providers behind them

environment:
  TARVOMELDRIC_REDIS_URL   shares what is learned with a fleet through this Redis
  NO_COLOR                 when set, nothing is printed in colour
  keys of the providers:
{keys}

state:
  ~/.tarvomeldric/flywheel_rules.json holds what was learned. "run" and "gateway" use it, and the
  Redis. "demo", "serve" and "gateway --rehearse" use no key, and what they learn goes away.

exit status:
  0  all is well              2  the command line is not understood
  1  a negative finding       130, 141, 143  ended by a signal

"%(prog)s VERB --help" tells more about each verb."""

_RUN = """\
Find the providers that a key is at hand for and ask each for a few tokens, to see whether the key
works. With a PROMPT, send that instead of printing what was found: the answer goes to the standard
output, how it came about to the standard error."""

_RUN_EPILOG = """\
exit status: 0 when a provider is healthy, and with a PROMPT when it was answered; else 1.

Other users of the machine can see a command line, and the shell keeps it: the environment is the
better place for a key."""

_DEMO = """\
Live through a bad day: one scene for every way in which a call can end, then one for each thing
that a policy changes, over real HTTP to three simulated providers, with every wait in earnest. It
takes a quarter of a minute, needs no key and leaves nothing behind."""

_SERVE = """\
Have simulated visitors call simulated providers (one healthy, one slow, one failing, one that
refuses its key until its breaker opens) and show it all on the live page, until Ctrl-C."""

_SERVE_EPILOG = """\
  /live     the page; it reads new figures every 2 seconds
  /         the plain page; it reloads itself every 5 seconds
  /metrics  Prometheus text
  /health   JSON
  /stats    JSON

It listens on this machine alone. Nobody is asked for a password: think before you say --host.
Ctrl-C and a request to terminate are good ends: the exit status is 0."""

_GATEWAY = """\
Serve the OpenAI-compatible API: chat completions, completions, embeddings and models, below /v1.
Requests go to the providers that the configuration names, and are healed on their way."""

_GATEWAY_EPILOG = """\
  /health        JSON, for everybody
  /live          the page for a bad day
  /metrics       Prometheus text
  /openapi.json  what is served, for tools

exit status: 0 after Ctrl-C or a request to terminate, when running calls have ended; a second one
ends it at once, with the signal's own status; 1 when it cannot serve.

It needs more packages: pip install 'tarvomeldric[gateway]'. docs/gateway.md shows a configuration."""

_CHECK = """\
Read a gateway's configuration as the gateway would, and tell what it would serve, or everything
that is wrong with it. Nothing is sent, and no key is shown."""

_CHECK_EPILOG = """\
exit status: 0 when it can be served, else 1."""

_DIAGNOSE = """\
What would the engine make of an error? Tells the category and label, what found them, and what a
call that met it would go through ("suggested" is what Diagnoser.suggest_recovery advises those who
heal by themselves). Nothing is sent or learned."""

_DIAGNOSE_EPILOG = """\
exit status: 0 when the error is a known one, 1 when its category is "unknown".

  %(prog)s "Rate limit reached for gpt-4o"
  %(prog)s --status 529 ""
  tail -1 errors.log | %(prog)s - --json"""


def parse(arguments: list[str] | None) -> argparse.Namespace:
    """Return the options of a command line; ``verb`` names the module that carries it out.

    Raises:
        SystemExit: With 2 for a command line that is not understood, with 0 after help.
    """
    parser = _parser()
    options, unknown = parser.parse_known_args(arguments)
    if not options.verb:
        parser.print_help(sys.stderr)
        parser.exit(2)
    if unknown:
        # Named, but not quoted in full: what follows may be a key.
        named = [word.partition("=")[0] for word in unknown if word.startswith("-")]
        options.parser.error(f"unknown: {' '.join(named)}" if named else "too many arguments")
    return options


class _Parser(argparse.ArgumentParser):
    """Says what is wrong without repeating a value, which may be a key."""

    def error(self, message: str) -> NoReturn:
        super().error(re.sub(r"=[^\s']+", "=...", message))


def _parser() -> argparse.ArgumentParser:
    called = Path(sys.argv[0]).name
    parser = _Parser(
        prog=called if called == "tarvomeldric" else "python -m tarvomeldric",
        description=_DESCRIPTION,
        epilog=_EPILOG.format(keys=_listed(list(_engine._ENV_MAP))),
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("--version", action="version", version=f"tarvomeldric {__version__}")
    verbs = parser.add_subparsers(title="verbs", metavar="VERB", dest="verb")
    for add in (_add_run, _add_gateway, _add_check, _add_demo, _add_serve, _add_diagnose):
        add(verbs)
    return parser


def _add_run(verbs: argparse._SubParsersAction[_Parser]) -> None:
    parser = _verb(verbs, "run", "try the keys at hand, or ask a question", _RUN, _RUN_EPILOG)
    add = parser.add_argument
    add("prompt", nargs="?", metavar="PROMPT", help='what to ask; "-" reads it from standard input')
    add("--model", metavar="NAME", help="the model to ask (default: the provider's own)")
    add("--task", default="", metavar="TYPE", help='what kind of task it is, such as "extraction"')
    add(
        "--key",
        action="append",
        default=[],
        type=key,
        metavar="NAME=KEY",
        help="a provider's key, before the environment's; may be repeated",
    )


def _add_gateway(verbs: argparse._SubParsersAction[_Parser]) -> None:
    summary = "serve an OpenAI-compatible API that heals"
    parser = _verb(verbs, "gateway", summary, _GATEWAY, _GATEWAY_EPILOG)
    source = parser.add_mutually_exclusive_group(required=True)
    source.add_argument("--config", metavar="FILE", help="what is to be served, as TOML")
    source.add_argument(
        "--rehearse", action="store_true", help="serve simulated providers: no key, no file"
    )
    add = parser.add_argument
    add("--host", metavar="H", help="address to listen on, in the place of the file's")
    add("--port", type=port, metavar="N", help="the same for the port; 0 takes a free one")


def _add_check(verbs: argparse._SubParsersAction[_Parser]) -> None:
    summary = "look through a gateway's configuration"
    parser = _verb(verbs, "check", summary, _CHECK, _CHECK_EPILOG)
    parser.add_argument("file", metavar="FILE", help="the configuration, as TOML")


def _add_demo(verbs: argparse._SubParsersAction[_Parser]) -> None:
    ends = "exit status: 0 when the numbers add up."
    parser = _verb(verbs, "demo", "live through a bad day", _DEMO, ends)
    parser.add_argument(
        "--log", action="store_true", help="print each step of a call as it happens"
    )


def _add_serve(verbs: argparse._SubParsersAction[_Parser]) -> None:
    parser = _verb(verbs, "serve", "watch a bad day on the dashboard", _SERVE, _SERVE_EPILOG)
    add = parser.add_argument
    add("--port", type=port, default=9898, metavar="N", help="0 takes a free one (default: 9898)")
    add(
        "--host",
        default="127.0.0.1",
        metavar="H",
        help="address to listen on (default: %(default)s)",
    )
    add("--seconds", type=seconds, metavar="N", help="end by itself after so many seconds")


def _add_diagnose(verbs: argparse._SubParsersAction[_Parser]) -> None:
    parser = _verb(verbs, "diagnose", "explain an error", _DIAGNOSE, _DIAGNOSE_EPILOG)
    add = parser.add_argument
    add("text", metavar="TEXT", help='the error\'s text; "-" reads it from standard input')
    add("--status", type=int, metavar="N", help="the HTTP status that came with it")
    add("--json", action="store_true", help="print a JSON object instead")


def _verb(
    verbs: argparse._SubParsersAction[_Parser],
    name: str,
    summary: str,
    description: str,
    epilog: str,
) -> _Parser:
    parser = verbs.add_parser(
        name,
        help=summary,
        description=description,
        epilog=epilog,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.set_defaults(parser=parser)
    return parser


def key(text: str) -> tuple[str, str]:
    known = [name for name, _ in _engine._ENV_MAP.values()]
    name, _, value = text.partition("=")
    if not value:
        raise argparse.ArgumentTypeError("wanted: a provider's name, '=', and its key")
    if name not in known:
        raise argparse.ArgumentTypeError(f"the name must be one of {', '.join(known)}")
    return name, value


def port(text: str) -> int:
    value = int(text)
    if not 0 <= value <= 65535:
        raise argparse.ArgumentTypeError("must be within 0 and 65535")
    return value


def seconds(text: str) -> float:
    value = float(text)
    if not 0.0 < value < math.inf:
        raise argparse.ArgumentTypeError("must be a number of seconds above 0")
    return value


def _listed(variables: list[str]) -> str:
    lines = [variables[at : at + 3] for at in range(0, len(variables), 3)]
    return ",\n".join("    " + ", ".join(line) for line in lines)
