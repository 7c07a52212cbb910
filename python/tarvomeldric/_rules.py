"""Where the learned rules live between two runs of a program, and how they are read from there."""

from __future__ import annotations

import json
import os
from typing import Any


def default_path() -> str:
    """The rules file of the current user."""
    return os.path.join(os.path.expanduser("~"), ".tarvomeldric", "flywheel_rules.json")


def load(learner: Any) -> None:
    """Reads the learner's file as far as it can be read; a file that breaks off is kept aside later."""
    path = learner._persist_path
    if not os.path.isfile(path):  # reading a pipe would wait for somebody to write
        return
    try:
        with open(path, encoding="utf-8") as file:
            members = json.load(file)
        for key, rule in members.items():
            learner._store(key, rule)
    except Exception:
        learner._keep_unreadable()
