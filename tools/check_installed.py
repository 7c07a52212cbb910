"""Checks an installed package: complete, and independent of the machine it was built on."""

from __future__ import annotations

import importlib.metadata
from pathlib import Path

import tarvomeldric
import tarvomeldric._engine


def main() -> None:
    package = Path(tarvomeldric.__file__).parent
    files = {path.name for path in package.iterdir()}
    assert {"_engine.pyi", "py.typed"} <= files, files

    distribution = importlib.metadata.distribution("tarvomeldric")
    licences = set(distribution.metadata.get_all("License-File", []))
    assert licences == {"LICENSE", "licenses/RE2.txt"}, licences

    mapped = {line.split()[-1] for line in Path("/proc/self/maps").read_text().splitlines()}
    re2 = {path for path in mapped if "libre2" in path}
    assert {Path(path).parent for path in re2} == {package}, re2

    print(f"wheel: tarvomeldric {distribution.version} works on its own")


if __name__ == "__main__":
    main()
