"""Checks an installed wheel: complete, independent of the machine it was built on, and able to call."""

from __future__ import annotations

import importlib.metadata
from pathlib import Path

import tarvomeldric
import tarvomeldric._engine
from tarvomeldric import ProviderConfig, SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator, rehearsal


def main() -> None:
    package = Path(tarvomeldric.__file__).parent
    files = {path.name for path in package.iterdir()}
    assert {"_engine.pyi", "py.typed"} <= files, files

    distribution = importlib.metadata.distribution("tarvomeldric")
    licences = set(distribution.metadata.get_all("License-File", []))
    assert licences == {"LICENSE", "licenses/RE2.txt"}, licences

    mapped = {line.split()[-1] for line in Path("/proc/self/maps").read_text().splitlines()}
    re2 = {path for path in mapped if "libre2" in path}
    assert {Path(path).parent for path in re2} == {package.parent / "tarvomeldric.libs"}, re2

    with rehearsal(), ProviderSimulator(503, "Hello") as provider, SelfHealingEngine({}) as engine:
        engine.add_provider(ProviderConfig("house", provider.base_url, api_key="key", models=["m"]))
        result = engine.call_sync("Is anybody there?")
    assert (result.text, result.heal_level) == ("Hello", "l1_retry"), result

    print(f"wheel: tarvomeldric {distribution.version} works on its own")


if __name__ == "__main__":
    main()
