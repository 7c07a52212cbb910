"""The rules file: its letters, what is read of a bad one, and writers that share or lose it."""

from __future__ import annotations

import json
import math
import os
import resource
import shutil
import signal
import time
from pathlib import Path
from typing import Any

import pytest

from support import start_child, until
from tarvomeldric import FlywheelLearner, LearnedRule


def rule(action: str = "a", **fields: Any) -> dict[str, Any]:
    return {"pattern": "p", "action": action, "confidence": 0.7, "last_seen": time.time(), **fields}


def learner_on(path: Path, content: Any) -> Any:
    path.write_text(content if isinstance(content, str) else json.dumps(content))
    return FlywheelLearner(str(path))


def beside(path: Path) -> set[str]:
    return {file.name for file in path.parent.iterdir()} - {path.name, "home"}


def test_the_file_is_what_the_host_would_write(tmp_path: Path) -> None:
    path = tmp_path / "rules.json"
    learner: Any = FlywheelLearner(str(path))
    texts = ["é\u2028", "\U0001f600", "\ud800", "\udfff\ud83d", "\x00\x1f\x7f~", '"\\/\b\f\n\r\t']
    for text in texts:
        learner.record(text, text[:1], True, 0.1)
    floats = [1e16, 1e15, 1e-5, 1e-4, 5e-324, -0.0, 0.1, 123456789.125, 1.7976931348623157e308]
    for number, value in enumerate([*floats, math.inf, -math.inf, math.nan]):
        learner._rules[f"{number}"] = LearnedRule("p", "a", -number, 2**63 - 1, value, value, value)
    rules = {key: rule.to_dict() for key, rule in learner._rules.items()}
    for _ in range(2):
        learner._persist()
        assert path.read_text("ascii") == json.dumps(rules, indent=2)
        learner = FlywheelLearner(str(path))


def test_the_first_learner_seeds_the_file_and_the_next_one_reads_it(home: Path) -> None:
    path = home / ".tarvomeldric" / "flywheel_rules.json"
    first: Any = FlywheelLearner("")
    assert first.get_stats()["bootstrap_rules_loaded"]
    assert list(json.loads(path.read_text())) == list(first._rules)
    for number in range(41):
        before = path.read_bytes()
        first.record("p", f"a{number}", True)
        assert (path.read_bytes() != before) == (number in (19, 39))
    second: Any = FlywheelLearner()
    assert list(second._rules) == list(first._rules)[: 84 + 40]
    assert not second.get_stats()["bootstrap_rules_loaded"]
    assert beside(path) == set()


def test_a_home_that_is_no_utf8_is_read_where_it_was_written(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("HOME", os.fsdecode(os.fsencode(tmp_path) + b"/caf\xe9"))
    FlywheelLearner()
    assert not FlywheelLearner().get_stats()["bootstrap_rules_loaded"]
    assert {*os.listdir(os.fsencode(tmp_path))} == {b"caf\xe9", b"home"}


WRONG: list[Any] = [{"pattern": "p"}, ["p", "a"], None, rule(pattern=5), rule(confidence="0.9")]
WRONG += [rule(success_count=1.0), rule(fail_count=2**63), rule(last_seen=10**400)]
WRONG += [rule(source=None), rule(_heal_times=["x"])]
BROKEN = ["", "[]", "{", '{"a:b": {"pattern": "a"', "[" * 10**5, "\ufeff{}"]


def test_a_file_is_read_up_to_what_is_wrong_and_kept_once(tmp_path: Path) -> None:
    good = [json.dumps({"p:kept": rule(), "wrong": wrong, "late": rule()}) for wrong in WRONG]
    bad = [json.dumps({"wrong": wrong, "late": rule()}) for wrong in WRONG]
    for number, text in enumerate([*good, *bad, *BROKEN]):
        path = tmp_path / f"{number}" / "rules.json"
        path.parent.mkdir()
        assert (list(learner_on(path, text)._rules) == ["p:kept"]) == (text in good)
        for content in ("{ another", "{}"):
            learner_on(path, text)._persist()
            assert len(json.loads(path.read_text())) == (1 if text in good else 84)
            assert learner_on(path, content)._bootstrap_loaded
            assert (path.parent / "rules.json.corrupt").read_text() == text
        assert beside(path) == {"rules.json.corrupt"}


def test_odd_values_never_fail_or_advise(tmp_path: Path) -> None:
    odd = {
        "p:nan": rule("nan", confidence=math.nan, last_seen=math.nan),
        "p:most": rule("most", confidence=0.1, success_count=2**63 - 1, fail_count=2**63 - 1),
        "p:least": rule("least", confidence=-1, success_count=-(2**63), fail_count=-(2**63)),
        "p:times": rule("times", confidence=0.2, _heal_times=[math.inf] * 1000),
    }
    learner = learner_on(path := tmp_path / "rules.json", odd)
    assert learner.match("p:any") is learner.match("p") is None
    learner._rules["good"] = LearnedRule("p", "good", 9, 1, 0.9, time.time())
    assert learner.match_best_action("p:any") == "good"
    for key in [*odd] * 10:
        learner.record("p", key[2:], True, 1.5)
        learner.record("p", key[2:], False)
    assert learner._rules["p:most"].fail_count == 2**63 - 1
    assert [*json.loads(path.read_text())] == [*learner._rules] == [*odd, "good"]


def test_a_file_that_cannot_be_written_costs_nothing(tmp_path: Path) -> None:
    folder, pipe, path = tmp_path / "folder", tmp_path / "pipe", tmp_path / "rules.json"
    (folder / "inside").mkdir(parents=True)
    os.mkfifo(pipe)
    assert FlywheelLearner(str(pipe)).get_stats()["bootstrap_rules_loaded"]
    for full in (folder, Path("/dev/null/x"), Path("/proc/x"), path):
        learner, limits = FlywheelLearner(str(full)), resource.getrlimit(resource.RLIMIT_FSIZE)
        resource.setrlimit(resource.RLIMIT_FSIZE, (5000, limits[1]))
        for _ in range(20):
            learner.record("p", "a", True)
        resource.setrlimit(resource.RLIMIT_FSIZE, limits)
        assert len(learner.get_rules()) == 85
    assert (folder / "inside").is_dir()
    assert len(json.loads(path.read_text())) == 84
    assert beside(path) == {"folder", "pipe"}


def test_a_rewritten_file_keeps_its_mode_and_a_lost_folder_is_made_again(tmp_path: Path) -> None:
    path = tmp_path / "deep" / "rules.json"
    learner: Any = FlywheelLearner(str(path))
    assert path.stat().st_mode & 0o777 == 0o644
    path.chmod(0o640)
    learner._persist()
    assert path.stat().st_mode & 0o777 == 0o640
    shutil.rmtree(path.parent)
    learner._persist()
    assert len(json.loads(path.read_text())) == 84
    assert beside(path) == set()


def test_what_killed_writers_left_is_swept_after_an_hour(tmp_path: Path) -> None:
    theirs = {"rules.json.before-update.tmp", "notes.tmp", "rules.json.fresh1.tmp"}
    for name in [*theirs, "rules.json.aB3dE5.tmp"]:
        (tmp_path / name).write_text("{")
        if "fresh" not in name:
            os.utime(tmp_path / name, (time.time() - 3700,) * 2)
    FlywheelLearner(str(tmp_path / "rules.json"))
    assert beside(tmp_path / "rules.json") == theirs


WRITER = """
import sys
from tarvomeldric import FlywheelLearner
learner = FlywheelLearner(sys.argv[1])
for number in range(int(sys.argv[2])):
    learner.record("p", sys.argv[3] + str(number % 50), True)
    learner._persist()
"""


def test_readers_see_whole_files_under_two_writers_and_a_killed_one(tmp_path: Path) -> None:
    path = tmp_path / "rules.json"
    FlywheelLearner(str(path))
    killed = start_child(WRITER, str(path), "1000000", "k")
    until(lambda: "p:k49" in json.loads(path.read_text()), 30)
    writers = [start_child(WRITER, str(path), "200", name) for name in "ab"]
    until(lambda: {"p:a9", "p:b9"} & {*json.loads(path.read_text())} != set(), 30)
    killed.send_signal(signal.SIGKILL)
    killed.communicate()
    while any(writer.poll() is None for writer in writers):
        assert len(json.loads(path.read_text())) >= 84
    assert [writer.communicate() for writer in writers] == [("", "")] * 2
    assert [writer.returncode for writer in writers] == [0, 0]
    assert len(beside(path)) <= 1, beside(path)  # at most what the killed one was writing
