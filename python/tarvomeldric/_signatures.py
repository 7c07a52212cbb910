"""What `inspect` says of the engine's functions: read in what the binding library kept of them."""

from __future__ import annotations

import ast
import asyncio
import collections.abc
import inspect
import re
import typing
from typing import Any

from tarvomeldric import _engine

_NAMES = {"collections": collections, "typing": typing, **vars(_engine)}


def of_function(function: Any) -> inspect.Signature:
    """The signature of a bound function, or of a method with its first parameter."""
    text, _, defaults = function.__nb_signature__[0]
    source = re.sub(r"\\(\d+)", r"_defaults[\1]", text)
    definition = ast.parse(source + ": ...").body[0]
    assert isinstance(definition, ast.FunctionDef)
    parameters = list(_parameters(definition.args, {"_defaults": defaults}))
    return inspect.Signature(parameters, return_annotation=_annotation(definition.returns))


def of_bound_method(method: Any) -> inspect.Signature:
    """The signature of a method on an instance."""
    return _without_self(of_function(method))


def of_class(cls: type) -> inspect.Signature:
    """The signature of a class: that of its constructor, which a subclass may have written."""
    constructor: Any = cls.__init__  # type: ignore[misc]
    if not hasattr(constructor, "__nb_signature__") and not inspect.isfunction(constructor):
        raise AttributeError("__signature__")
    return _without_self(inspect.signature(constructor))


def asyncio_mark(function: Any) -> object:
    """What `asyncio.iscoroutinefunction`, and with it `unittest.mock`, looks for."""
    _require_awaitable(function)
    library: Any = asyncio.coroutines
    return library._is_coroutine


def inspect_mark(function: Any) -> object:
    """What `inspect.iscoroutinefunction` looks for since Python 3.12."""
    _require_awaitable(function)
    mark: Any = getattr(inspect, "markcoroutinefunction", lambda unmarked: unmarked)

    def marked() -> None:
        """A function of Python's own, to see what the mark is."""

    return mark(marked)._is_coroutine_marker


def _require_awaitable(function: Any) -> None:
    if "-> collections.abc.Coroutine[" not in function.__nb_signature__[0][0]:
        raise AttributeError("not a coroutine function")


def _without_self(signature: inspect.Signature) -> inspect.Signature:
    return signature.replace(parameters=list(signature.parameters.values())[1:])


def _parameters(
    arguments: ast.arguments, defaults: dict[str, Any]
) -> collections.abc.Iterator[inspect.Parameter]:
    positional: list[tuple[ast.arg, Any]]
    positional = [(one, inspect.Parameter.POSITIONAL_ONLY) for one in arguments.posonlyargs]
    positional += [(one, inspect.Parameter.POSITIONAL_OR_KEYWORD) for one in arguments.args]
    required = len(positional) - len(arguments.defaults)
    given: list[ast.expr | None] = [None] * required + list(arguments.defaults)
    for (one, kind), default in zip(positional, given, strict=True):
        yield _parameter(one, kind, default, defaults)
    if arguments.vararg:
        yield _parameter(arguments.vararg, inspect.Parameter.VAR_POSITIONAL, None, defaults)
    for one, default in zip(arguments.kwonlyargs, arguments.kw_defaults, strict=True):
        yield _parameter(one, inspect.Parameter.KEYWORD_ONLY, default, defaults)
    if arguments.kwarg:
        yield _parameter(arguments.kwarg, inspect.Parameter.VAR_KEYWORD, None, defaults)


def _parameter(
    one: ast.arg, kind: Any, default: ast.expr | None, defaults: dict[str, Any]
) -> inspect.Parameter:
    value = inspect.Parameter.empty if default is None else _value(default, defaults)
    return inspect.Parameter(one.arg, kind, default=value, annotation=_annotation(one.annotation))


def _value(default: ast.expr, defaults: dict[str, Any]) -> Any:
    return eval(
        compile(ast.Expression(default), "<default>", "eval"), {"__builtins__": {}}, defaults
    )


def _annotation(annotation: ast.expr | None) -> Any:
    """The annotation's object, or its text where this Python cannot make one of it."""
    if annotation is None:
        return inspect.Signature.empty
    text = ast.unparse(annotation)
    try:
        return eval(text, dict(_NAMES))
    except (AttributeError, NameError, TypeError):
        return text
