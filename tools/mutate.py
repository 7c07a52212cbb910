"""Breaks the code on purpose, one small way at a time, and looks whether the tests notice.

    python tools/mutate.py                            # a sample of the default files
    python tools/mutate.py --all src/guards           # every mutant of a room, a file or FILE:LINE
    python tools/mutate.py --list src/engine/cascade.cpp

A mutant is killed when the tests fail, crash or do not end. One that survives is either a gap in the
tests or changes nothing that can be seen; the closing table counts both alike. Ctrl-C ends a run early.
The core is judged by the C++ tests, the contracts of src/host by their Python tests. Works on a copy of
the sources in build/mutate.
"""

from __future__ import annotations

import argparse
import collections
import contextlib
import dataclasses
import os
import random
import re
import shutil
import subprocess
import sys
import time
from collections.abc import Iterator
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "mutate"
TREE = BUILD / "tree"


@dataclasses.dataclass(frozen=True)
class Judge:
    """What is built, and which tests are run on it."""

    objects: Path
    target: str
    options: tuple[str, ...]
    tests: tuple[str | Path, ...]
    patience: float  # seconds for the tests


CORE = Judge(
    BUILD / "objects",
    "core_tests",
    ("-DTARVOMELDRIC_TESTS=ON",),
    (BUILD / "objects" / "core_tests", "--gtest_brief=1", "--gtest_fail_fast"),
    15.0,
)
MODULE = Judge(
    BUILD / "module",
    "_engine",
    ("-DTARVOMELDRIC_MODULE=ON", f"-DPython_EXECUTABLE={sys.executable}"),
    (sys.executable, "-m", "pytest", "-qx", ROOT / "tests" / "python", "-k", "contracts"),
    60.0,
)

DEFAULT = [
    "src/guards",
    *(f"src/engine/{name}.cpp" for name in ("admission", "cascade", "failover")),
    *(f"src/flywheel/{name}.cpp" for name in ("learned_rule", "learner")),
    "src/semantic/json_pieces.cpp",
    "src/host/contract.cpp",
]

# What stands there and what is put in its place. The formatter sets blanks around a binary operator
# and none around the brackets of a template.
SWAPS = [(" < ", " <= "), (" <= ", " < "), (" > ", " >= "), (" >= ", " > "), (" == ", " != ")]
SWAPS += [(" != ", " == "), (" + ", " - "), (" - ", " + "), (" * ", " / "), (" / ", " * ")]
SWAPS += [(" += ", " -= "), (" -= ", " += "), ("++", "--"), ("--", "++")]
SWAPS += [(" && ", " || "), (" || ", " && "), ("true", "false"), ("false", "true")]
SWAPS += [("std::min", "std::max"), ("std::max", "std::min")]

NUMBER = re.compile(r"(?<![\w.])(\d[\d']*)(\.\d+)?(?![\w.])")
NOT = re.compile(r"!(?=[\w(])")
TWO_ARGUMENTS = re.compile(r"(?<=\w\()([\w.>-]+), ([\w.>-]+)(?=\))")
PLAIN_CONDITION = re.compile(r"\b(?:if|while) \((?!const |auto )([^!&|<>=;]+)\)(?= [\w{+*(-]|$)")
STATEMENT = re.compile(r"^(?:co_await |\+\+|--)?[\w.:>\[\]*-]+(?:\(.*\))*(?: [+-]?= .*|\(.*\)|)$")
NO_STATEMENT = re.compile(r"^(?:return|co_return|break|continue|using|public|private)\b|^[\w:]+$")


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str
    line: int  # from 1
    before: str
    after: str

    def __str__(self) -> str:
        return f"{self.file}:{self.line}\n    - {self.before.strip()}\n    + {self.after.strip()}"


def code_of(line: str) -> str:
    """The line with texts and comments blanked out, at its length."""
    blank = re.sub(r'"(?:[^"\\]|\\.)*"', lambda text: "_" * len(text[0]), line)
    return re.sub(r"//.*", lambda text: " " * len(text[0]), blank)


def changes(line: str) -> Iterator[tuple[int, int, str]]:
    """Every small change of a line: what stretch of it, and what is put there."""
    code = code_of(line)
    for old, new in SWAPS:
        if old == " + " and '"' in line:  # texts have no difference
            continue
        for found in re.finditer(r"(?<!\w)" * old.isalpha() + re.escape(old), code):
            yield found.start(), found.end(), new
    for found in NUMBER.finditer(code):
        whole, fraction = int(found[1].replace("'", "")), found[2] or ""
        yield found.start(), found.end(), f"{whole + 1}{fraction}"
    for found in NOT.finditer(code):
        yield found.start(), found.end(), ""
    for found in TWO_ARGUMENTS.finditer(code):
        yield found.start(), found.end(), f"{found[2]}, {found[1]}"
    for found in PLAIN_CONDITION.finditer(code):
        yield found.start(1), found.end(1), f"!({line[found.start(1) : found.end(1)]})"
    end = code.rstrip()
    start = max(code.find(") ") + 2 if re.match(r"\s*(?:if|for|while) \(", code) else 0, 0)
    start += len(code[start:]) - len(code[start:].lstrip())
    statement = end[start:-1]
    if end.endswith(";") and STATEMENT.match(statement) and not NO_STATEMENT.match(statement):
        yield start, len(end) - 1, "(void)0"


def mutants_of(file: Path) -> Iterator[Mutant]:
    name = str(file.relative_to(ROOT))
    for number, line in enumerate(file.read_text().splitlines(), 1):
        if line.lstrip().startswith(("#", "//", "static_assert", "template")):
            continue
        seen = {line}
        for start, end, new in changes(line):
            after = line[:start] + new + line[end:]
            if after not in seen:
                seen.add(after)
                yield Mutant(name, number, line, after)


def mutants_in(place: str) -> list[Mutant]:
    name, _, line = place.partition(":")
    path = ROOT / name
    files = sorted(path.glob("*.cpp")) if path.is_dir() else [path]
    mutants = [mutant for file in files for mutant in mutants_of(file)]
    return [mutant for mutant in mutants if not line or mutant.line == int(line)]


def judge_of(mutant: Mutant) -> Judge:
    return MODULE if mutant.file.startswith("src/host/") else CORE


def build(judge: Judge) -> bool:
    ended = subprocess.run(["ninja", "-C", str(judge.objects), judge.target], capture_output=True)
    return ended.returncode == 0


def copy_sources() -> None:
    names = ("CMakeLists.txt", "cmake", "src", "tests/core", "fuzz")
    wanted = [file for name in names for file in [ROOT / name, *(ROOT / name).rglob("*")]]
    copies = {TREE / file.relative_to(ROOT): file for file in wanted if file.is_file()}
    for copy in TREE.rglob("*"):
        if copy.is_file() and copy not in copies:
            copy.unlink()
    for copy, file in copies.items():  # what is the same keeps its time, and its object
        if not copy.exists() or copy.read_bytes() != file.read_bytes():
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(file, copy)


def prepare(judge: Judge) -> None:
    options = ["-DCMAKE_BUILD_TYPE=None", "-DCMAKE_CXX_FLAGS=-O0", *judge.options]
    subprocess.run(
        ["cmake", "-S", str(TREE), "-B", str(judge.objects), "-G", "Ninja", *options],
        check=True,
        stdout=subprocess.DEVNULL,
    )
    package = judge.objects / "package"  # what is Python joins the module there
    shutil.copytree(ROOT / "python", package, dirs_exist_ok=True)
    if not build(judge) or not tests_pass(judge):
        sys.exit("mutate: the tests do not pass as they are")


def tests_pass(judge: Judge) -> bool:
    environment = {**os.environ, "PYTHONPATH": str(judge.objects / "package")}
    try:
        ended = subprocess.run(
            judge.tests, capture_output=True, timeout=judge.patience, env=environment
        )
    except subprocess.TimeoutExpired:
        return False
    return ended.returncode == 0


def verdict(mutant: Mutant) -> str:
    file = TREE / mutant.file
    original = file.read_text()
    lines = original.splitlines(keepends=True)
    lines[mutant.line - 1] = mutant.after + "\n"
    file.write_text("".join(lines))
    try:
        if not build(judge_of(mutant)):
            return "not compiled"
        return "survived" if tests_pass(judge_of(mutant)) else "killed"
    finally:
        file.write_text(original)


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("places", nargs="*", default=DEFAULT, help="folders, files or FILE:LINE")
    parser.add_argument("--sample", type=int, default=60, help="how many mutants")
    parser.add_argument("--all", action="store_true", help="every mutant, however long it takes")
    parser.add_argument("--seed", type=int, default=1, help="of the sample")
    parser.add_argument("--list", action="store_true", help="shows the mutants and runs none")
    options = parser.parse_args()
    mutants = [mutant for place in options.places for mutant in mutants_in(place)]
    if not options.all and len(mutants) > options.sample:
        mutants = sorted(
            random.Random(options.seed).sample(mutants, options.sample),
            key=lambda mutant: (mutant.file, mutant.line),
        )
    if options.list:
        print(*mutants, sep="\n")
        print(f"{len(mutants)} mutants")
        return 0
    copy_sources()
    for judge in {judge_of(mutant): None for mutant in mutants}:
        prepare(judge)
    run(mutants)
    return 0


def run(mutants: list[Mutant]) -> None:
    table: dict[str, collections.Counter[str]] = {}
    began = time.monotonic()
    with contextlib.suppress(KeyboardInterrupt):  # ends it early
        for mutant in mutants:
            end = verdict(mutant)
            table.setdefault(mutant.file, collections.Counter())[end] += 1
            if end == "survived":
                print(f"survived: {mutant}", flush=True)
    print(f"\n{'file':40}{'killed':>8}{'survived':>10}{'not compiled':>14}")
    total = sum(table.values(), collections.Counter[str]())
    for file, counts in {**table, "all": total}.items():
        print(f"{file:40}{counts['killed']:8}{counts['survived']:10}{counts['not compiled']:14}")
    tried = total["killed"] + total["survived"]
    score = 100 * total["killed"] / max(tried, 1)
    print(f"score {score:.1f} % of {tried}, in {time.monotonic() - began:.0f} s")


if __name__ == "__main__":
    sys.exit(main())
