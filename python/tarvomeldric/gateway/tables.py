"""Reading the tables of a configuration: what is made of a table says what may stand in it.

Its keys are the parameters of a class, and their annotations say what the values must be. Nothing
is raised: whatever is wrong is collected, each line beginning with the dotted path of its place,
and none of them repeats a value, which may be a secret.
"""

from __future__ import annotations

import difflib
import inspect
import json
import os
import re
import types
import typing
from collections.abc import Callable, Iterable, Mapping, Sequence
from typing import Any

WRONG: Any = object()  # what a value is read as that cannot be

_VARIABLE = re.compile(r"\$\{([^}]*)(\}?)")
_COMPLAINT = re.compile(r"(?:\w+\.)?(\w+):? (.*)", re.DOTALL)  # of a constructor, about an argument
_BARE = re.compile(r"[\w-]+", re.ASCII)
_KINDS: dict[Any, tuple[tuple[type, ...], str]] = {
    bool: ((bool,), "true or false"),
    int: ((int,), "a whole number"),
    float: ((int, float), "a number"),
    str: ((str,), "a text"),
}
_ANYTHING: dict[type, Any] = {str: str, list: Sequence[Any], dict: dict[str, Any]}


def below(path: str, name: str) -> str:
    """The path of a member, quoted where TOML wants it quoted."""
    shown = name if _BARE.fullmatch(name) else json.dumps(name)
    return f"{path}.{shown}" if path else shown


def reference(text: str) -> str | None:
    """The variable that a text names, if it is nothing but `${NAME}`."""
    found = _VARIABLE.fullmatch(text)
    return found[1] if found and found[2] else None


class Reader:
    """One look through a document.

    Attributes:
        problems: What is wrong with it, a line each.
    """

    def __init__(self, special: Mapping[Any, Callable[[str, str], Any]]) -> None:
        """`special` reads texts that are annotated as such, by what they say and their path."""
        self.problems: list[str] = []
        self._special = special

    def wrong(self, path: str, what: str) -> Any:
        self.problems.append(f"{path}: {what}" if path else what)
        return WRONG

    def unknown(self, path: str, what: str, name: str, known: Iterable[str]) -> Any:
        nearest = difflib.get_close_matches(name, list(known), 1)
        return self.wrong(path, what + (f"; did you mean {nearest[0]!r}?" if nearest else ""))

    def text(self, given: str, path: str) -> Any:
        """A text with the environment's variables in the place of their names."""
        for name, end in _VARIABLE.findall(given):
            if not end or not name.isidentifier():
                return self.wrong(path, "a variable of the environment is written ${NAME}")
            if name not in os.environ:
                return self.wrong(path, f"the environment has no {name}")
        return _VARIABLE.sub(lambda found: os.environ[found[1]], given)

    def value(self, wanted: Any, given: Any, path: str) -> Any:
        """A value as it is wanted."""
        if wanted is Any:
            if not isinstance(given, str | list | dict):
                return given
            wanted = _ANYTHING[type(given)]
        choices = _choices(wanted)
        for choice in choices:
            if type(given) in self._kinds(choice):
                return self._as(choice, given, path)
        return self.wrong(path, "must be " + " or ".join(map(self._described, choices)))

    def members(self, maker: Any, table: dict[str, Any], path: str) -> dict[str, Any]:
        """What a table holds for its maker; WRONG what cannot be, or is missing."""
        known = parameters_of(maker)
        found: dict[str, Any] = {}
        for name, given in table.items():
            place = below(path, name)
            if name in known:
                found[name] = self.value(known[name].annotation, given, place)
            else:
                found[name] = self.unknown(place, "unknown", name, known)
        for name, parameter in known.items():
            if parameter.default is parameter.empty and name not in table:
                found[name] = self.wrong(below(path, name), "is missing")
        return found

    def made(self, maker: Any, table: dict[str, Any], path: str) -> Any:
        """What a table is for, or WRONG."""
        found = self.members(maker, table, path)
        good = {name: value for name, value in found.items() if value is not WRONG}
        if all(it.default is not it.empty for it in parameters_of(maker).values()):
            for name, value in good.items():  # each by itself, so that all that is wrong is told
                if self._call(maker, {name: value}, path) is WRONG:
                    found[name] = WRONG
        if any(value is WRONG for value in found.values()):
            return WRONG
        return self._call(maker, good, path)

    def _call(self, maker: Any, arguments: dict[str, Any], path: str) -> Any:
        try:
            return maker(**arguments)
        except (TypeError, ValueError) as error:
            named = _COMPLAINT.fullmatch(str(error))
            if named and named[1] in arguments:
                return self.wrong(below(path, named[1]), named[2])
            return self.wrong(path, str(error))

    def _as(self, wanted: Any, given: Any, path: str) -> Any:
        origin, arguments = typing.get_origin(wanted), typing.get_args(wanted)
        if wanted in self._special:
            return self._special[wanted](given, path)
        if isinstance(given, str):
            said = self.text(given, path)
            known = said is WRONG or origin is not typing.Literal or said in arguments
            return said if known else self.wrong(path, f"must be {self._described(wanted)}")
        if isinstance(given, int) and abs(given) >= 1 << 63:
            return self.wrong(path, "is out of range")
        if isinstance(given, list):
            read = [self.value(arguments[0], it, f"{path}[{at}]") for at, it in enumerate(given)]
            return WRONG if any(it is WRONG for it in read) else read
        if origin is dict:
            pairs = [self._member(arguments, name, it, path) for name, it in given.items()]
            return WRONG if any(WRONG in pair for pair in pairs) else dict(pairs)
        return self.made(wanted, given, path) if isinstance(given, dict) else given

    def _member(self, wanted: Any, name: str, given: Any, path: str) -> tuple[Any, Any]:
        place = below(path, name)
        key = self._special[wanted[0]](name, place) if wanted[0] in self._special else name
        return key, self.value(wanted[1], given, place)

    def _kinds(self, wanted: Any) -> tuple[type, ...]:
        origin = typing.get_origin(wanted)
        if origin is typing.Literal or wanted in self._special:
            return (str,)
        if isinstance(origin, type) and issubclass(origin, Sequence):
            return (list,)
        return _KINDS[wanted][0] if wanted in _KINDS else (dict,)

    def _described(self, wanted: Any) -> str:
        origin, arguments = typing.get_origin(wanted), typing.get_args(wanted)
        if origin is typing.Literal:
            return " or ".join(f'"{each}"' for each in arguments)
        if self._kinds(wanted) == (list,):
            return "a list"
        return (
            _KINDS[wanted][1]
            if wanted in _KINDS
            else "a text"
            if wanted in self._special
            else "a table"
        )


def parameters_of(maker: Any) -> dict[str, inspect.Parameter]:
    parameters = inspect.signature(maker, eval_str=True).parameters
    return {name: it for name, it in parameters.items() if not name.startswith("_")}


def _choices(wanted: Any) -> tuple[Any, ...]:
    if typing.get_origin(wanted) in (typing.Union, types.UnionType):
        return tuple(it for it in typing.get_args(wanted) if it is not type(None))
    return (wanted,)
