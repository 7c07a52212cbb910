"""Rules files of any content: reading fails nobody, and what was accepted is written and read back.

Every text that is written, the file and what goes to a fleet, is held to the letter against the
interpreter's own encoder.
"""

from __future__ import annotations

import json
import os
import random
import struct
import tempfile
from pathlib import Path
from typing import Any

from drive import PIECES, drive, mangled, text

from tarvomeldric import FlywheelLearner, _fleet

NUMBERS: list[Any] = [0, 1, -1, 2**63 - 1, 2**63, -(2**63), 10**400, 0.5, 1.0, -0.0, 1e308, 5e-324]
ODD: list[Any] = [
    *NUMBERS,
    float("nan"),
    float("inf"),
    True,
    None,
    "",
    "7",
    [],
    {},
    [[1]],
    {"a": 1},
]
MEMBERS = {
    "pattern": str,
    "action": str,
    "success_count": int,
    "fail_count": int,
    "confidence": float,
    "last_seen": float,
    "avg_heal_time_ms": float,
    "source": str,
}
SEEDED = 84
folder = Path(tempfile.mkdtemp(prefix="tarvomeldric-fuzz-"))


def characters(random: random.Random) -> str:
    """Of ASCII, controls included, and of all there are, half characters included."""
    return "".join(chr(random.randrange(random.choice((128, 0x110000)))) for _ in range(3))


def number(random: random.Random) -> float:
    """Any at all."""
    return struct.unpack("d", random.randbytes(8))[0]  # type: ignore[no-any-return]


def value(random: random.Random, kind: type, odd: float = 0.05) -> Any:
    if random.random() < odd:
        return random.choice(ODD)
    if kind is str:
        known = "timeout", "timeout:azure", "retry"
        return random.choice((*known, text(random, 3), characters(random)))
    if kind is int:
        return random.choice((0, 3, 2**63 - 1, -(2**63), random.getrandbits(64) - 2**63))
    nan, small = float("nan"), random.uniform(-1, 1)
    return random.choice((0, 0.9, 0.65, 1.76e9, 1e308, nan, small, number(random)))


def rule(random: random.Random, odd: float = 0.05) -> Any:
    if random.random() < odd:
        return random.choice(ODD)
    fields = {name: value(random, kind, odd) for name, kind in MEMBERS.items()}
    name = random.choice((*MEMBERS, "unknown"))
    if random.random() < odd:
        fields[name] = random.choice(ODD)
    if random.random() < odd:
        fields.pop(name, None)
    return fields


def content(random: random.Random) -> bytes:
    odd = random.choice((0, 0, 0.01, 0.1))
    many = random.choice((0, 1, 2, 5, 30))
    rules = [(value(random, str, odd), rule(random, odd)) for _ in range(many)]
    indent = random.choice((None, 2))
    ascii_only = random.random() < 0.5
    members = [
        f"{json.dumps(str(key))}: {json.dumps(rule, indent=indent, ensure_ascii=ascii_only)}"
        for key, rule in rules
    ]
    written = "{" + ", ".join(members) + "}"
    if random.random() < 0.6:
        written = mangled(random, written)
    raw = bytearray(written, "utf-8", random.choice(("surrogatepass", "replace")))
    for _ in range(random.choice((0, 0, 0, 1, 3))):
        raw.insert(random.randint(0, len(raw)), random.randrange(256))
    return bytes(raw)


def rules_of(learner: Any) -> str:
    return json.dumps({key: rule.to_dict() for key, rule in learner._rules.items()}, indent=2)


def check(random: random.Random) -> None:
    path = folder / "rules.json"
    raw = content(random)
    path.write_bytes(raw)
    learner: Any = FlywheelLearner(str(path))
    seeded = learner.get_stats()["bootstrap_rules_loaded"]
    assert learner._rules, raw
    assert not seeded or len(learner._rules) == SEEDED, raw
    accepted = rules_of(learner)
    learner._persist()
    assert path.read_text("ascii") == accepted, raw
    again: Any = FlywheelLearner(str(path))
    assert rules_of(again) == accepted, raw
    for pattern in ("timeout:azure", text(random, 2)):
        for user in (learner, again):
            user.record(pattern, "retry", random.random() < 0.5, random.choice(NUMBERS[-5:]))
            user.match_best_action(pattern)
            user.get_stats()
    merge(random, again, raw)
    publish(random, again)
    again._persist()
    assert path.read_text("ascii") == rules_of(again), raw
    path.with_name("rules.json.corrupt").unlink(missing_ok=True)


def merge(random: random.Random, learner: Any, raw: bytes) -> None:
    """The same material as a fleet's message, which is one rule."""
    message = {"key": value(random, str), "rule": rule(random), "source": random.choice(PIECES)}
    known = len(learner._rules)
    for payload in (json.dumps(message), mangled(random, json.dumps(message)), raw, None):
        _fleet.merge(learner, payload)
    assert known <= len(learner._rules) <= known + 4


class Fleet:
    """In place of a Redis client: keeps the last texts."""

    rule = message = ""

    def pipeline(self, transaction: bool) -> Fleet:
        return self

    def hset(self, _: str, key: str, rule: str) -> None:
        self.rule = rule

    def publish(self, _: str, message: str) -> None:
        self.message = message

    def execute(self) -> None:
        pass


def publish(random: random.Random, learner: Any) -> None:
    """What a learner tells its fleet of a rule, whatever it is made of."""
    fleet, action = Fleet(), characters(random)
    learner._redis_client, learner._sync_mode = fleet, "redis"
    for pattern in ("timeout", characters(random)):
        learner.record(pattern, action, True, number(random))
        key = f"{pattern}:{action}"
        rule = learner._rules[key].to_dict()
        assert fleet.rule == json.dumps(rule)
        message = {"key": key, "rule": rule, "source": os.environ["HOSTNAME"]}
        assert fleet.message == json.dumps(message)
    learner._sync_mode = "local"


if __name__ == "__main__":
    os.environ["HOME"] = str(folder)
    os.environ["HOSTNAME"] = "café \U0001f600"
    os.environ.pop("TARVOMELDRIC_REDIS_URL", None)
    drive(check)
