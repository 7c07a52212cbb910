"""Runs a check on random cases until the time is up; every case is remade from its own seed.

python fuzz/contracts.py --seconds 60
python fuzz/contracts.py --only 1234        # the one case on which it failed
"""

from __future__ import annotations

import argparse
import random
import time
from collections.abc import Callable


def drive(check: Callable[[random.Random], None]) -> None:
    """Raises what the check raises, after it told the seed of the case."""
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=float, default=60)
    parser.add_argument("--seed", type=int, default=time.time_ns() // 1000 % 10**9)
    parser.add_argument("--only", type=int, help="the seed of a single case")
    options = parser.parse_args()
    if options.only is not None:
        check(random.Random(options.only))
        return
    end = time.monotonic() + options.seconds
    seed = options.seed
    while time.monotonic() < end:
        try:
            check(random.Random(seed))
        except BaseException:
            print(f"failed on --only {seed}", flush=True)
            raise
        seed += 1
    print(f"cases: {seed - options.seed}", flush=True)


PIECES = [
    *'{}[]":,\\ \n',
    *("{}", "[]", "null", "true", "-1", "0.5", "1e999", "NaN", "-Infinity", "9" * 40),
    *('"name"', '"age": 3', '{"name": 1, "age": null}', '[{"name": "x"}, 2]', '{"a": {"b": [1]}}'),
    *("Sure, here you are:", "as an AI", "The cat sat", "ÉTÉ", "\u2003", "İı", "\ufeff", "\x00"),
    *("\ud800", "\udfff", "\U0001f600", "\\ud83d", "\\u00e9", "ß", "\u1e9e"),
]


def text(random: random.Random, most: int = 12) -> str:
    """Pieces of JSON, prose and odd characters."""
    return "".join(random.choices(PIECES, k=random.randint(0, most)))


def mangled(random: random.Random, text: str) -> str:
    """The text with a few pieces cut out, doubled, put in or nested deeply."""
    for _ in range(random.choice((0, 0, 1, 1, 2, 5))):
        start = random.randint(0, len(text))
        end = min(len(text), start + int(random.expovariate(0.1)))
        change = random.randrange(6)
        if change == 0:
            text = text[:start] + text[end:]
        elif change == 1:
            text = text[:end] + text[start:]
        elif change == 2:
            text = text[:start] + random.choice(PIECES) + text[end:]
        elif change == 3:
            text = text[:start]
        elif change == 4:
            text = text[start:]
        else:
            opening = random.choice(("[", "{", '{"a":', "[{"))
            text = text[:start] + opening * random.choice((1, 900, 5000)) + text[start:]
    return text
