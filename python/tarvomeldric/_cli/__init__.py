"""The shell's way in: chooses the verb, and sees to it that every ending is an orderly one.

Each verb is a module of its own, loaded when it is asked for.
"""

from __future__ import annotations

import importlib
import io
import os
import signal
import sys

# What a shell reports of a program that such a signal ended.
_INTERRUPTED = 128 + signal.SIGINT
_TERMINATED = 128 + signal.SIGTERM
_NOBODY_READS = 128 + signal.SIGPIPE


def main(arguments: list[str] | None = None) -> int:
    """Carry out a command line (``sys.argv`` by default) and return the exit status.

    0: all is well; 1: a negative finding, or something that cannot be had; 2: the command line is
    not understood; 130, 141 and 143: ended by Ctrl-C, by a reader that went away, by a request to
    terminate.
    """
    try:
        # What has been started is stopped and cleared away first.
        signal.signal(signal.SIGTERM, lambda *_: sys.exit(_TERMINATED))
        for stream in (sys.stdout, sys.stderr):
            if isinstance(stream, io.TextIOWrapper):
                stream.reconfigure(errors="replace")
        try:
            return _carry_out(arguments)
        finally:
            print(end="", flush=True)
    except KeyboardInterrupt:
        return _INTERRUPTED
    except BrokenPipeError:
        # The interpreter flushes once more on its way out.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return _NOBODY_READS
    except OSError as error:
        print(f"tarvomeldric: {error}", file=sys.stderr)
        return 1


def _carry_out(arguments: list[str] | None) -> int:
    from .arguments import parse

    options = parse(arguments)
    status: int = importlib.import_module(f"{__name__}.{options.verb}").main(options)
    return status
