"""The rules file: its letters, what is read of a bad one, and writers that share or lose it."""

from __future__ import annotations

import json
import os
import resource
import shutil
import time
from pathlib import Path
from typing import Any

import pytest

from tarvomeldric import FlywheelLearner


def rule(action: str = "a", **fields: Any) -> dict[str, Any]:
    return {"pattern": "p", "action": action, "confidence": 0.7, "last_seen": time.time(), **fields}


def learner_on(path: Path, content: Any) -> Any:
    path.write_text(content if isinstance(content, str) else json.dumps(content))
    return FlywheelLearner(str(path))


def beside(path: Path) -> set[str]:
    return {file.name for file in path.parent.iterdir()} - {path.name, "home"}


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
        kept = list(learner_on(path, text)._rules)
        assert kept == ["p:kept"] if text in good else len(kept) == 84
        for content in ("{ another", "{}"):
            learner_on(path, text)._persist()
            assert len(json.loads(path.read_text())) == (1 if text in good else 84)
            assert learner_on(path, content)._bootstrap_loaded
            assert (path.parent / "rules.json.corrupt").read_text() == text
        assert beside(path) == {"rules.json.corrupt"}


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
