"""Which providers serve the model that a client names."""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from dataclasses import dataclass
from types import MappingProxyType
from typing import Any

from tarvomeldric._engine import Contract, ProviderConfig


@dataclass(frozen=True)
class Route:
    """A model as clients name it, and who serves it.

    Attributes:
        name: What a client asks for as its model.
        providers: What each provider calls that model, by the provider's name in the engine. The first
            is asked first, the others when it fails, in this order. A model is never replaced by another.
        task_type: What the calls are for, as in `SelfHealingEngine.call`; a request may say otherwise.
        contract: What healed answers must look like.

    Raises:
        TypeError, ValueError: A field that cannot be; the message names it.
    """

    name: str
    providers: Mapping[str, str]
    task_type: str = ""
    contract: Contract | None = None

    def __post_init__(self) -> None:
        for field in ("name", "task_type"):
            _require_text(field, getattr(self, field))
        if not self.name:
            raise ValueError("name must not be empty")
        if not isinstance(self.providers, Mapping):
            raise TypeError(f"providers must be a mapping, not {type(self.providers).__name__}")
        for provider, model in self.providers.items():
            _require_text("a provider's name", provider)
            _require_text(f"the model of {provider!r}", model)
            if not model:
                raise ValueError(f"providers: the model of {provider!r} must not be empty")
        if not self.providers:
            raise ValueError("providers must not be empty")
        if self.contract is not None and not isinstance(self.contract, Contract):
            raise TypeError(
                f"contract must be Contract or None, not {type(self.contract).__name__}"
            )
        object.__setattr__(self, "providers", MappingProxyType(dict(self.providers)))


def _require_text(name: str, value: object) -> None:
    if not isinstance(value, str):
        raise TypeError(f"{name} must be str, not {type(value).__name__}")
    try:
        value.encode()
    except UnicodeEncodeError:
        raise ValueError(f"{name} must be text that UTF-8 has") from None


class Routes:
    """The routes of one transport, and those that providers' own lists of models stand for."""

    def __init__(self, engine: Any, routes: Iterable[Route]) -> None:
        self._engine = engine
        self._by_name: dict[str, Route] = {}
        for route in routes:
            if not isinstance(route, Route):
                raise TypeError(f"routes must hold Route, not {type(route).__name__}")
            if route.name in self._by_name:
                raise ValueError(f"routes: {route.name!r} is there twice")
            unknown = [name for name in route.providers if name not in engine._providers]
            if unknown:
                raise ValueError(f"route {route.name!r}: the engine has no provider {unknown[0]!r}")
            self._by_name[route.name] = route

    def find(self, model: str) -> Route | None:
        """Who serves a model: its route, else the providers that list it."""
        route = self._by_name.get(model)
        if route is not None:
            return route
        serving = {name: model for name, record in self._records() if model in record.models}
        return Route(model, serving) if serving else None

    def models(self) -> dict[str, str]:
        """Every model that can be asked for, and who serves it first."""
        served = {name: next(iter(route.providers)) for name, route in self._by_name.items()}
        for name, record in self._records():
            for model in record.models:
                served.setdefault(model, name)
        return served

    def _records(self) -> list[tuple[str, ProviderConfig]]:
        return list(self._engine._providers.items())
