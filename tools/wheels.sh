#!/usr/bin/env bash
# Fills dist/ with the source distribution and, built from that, a wheel for every CPython that is at hand.
set -euo pipefail
cd "$(dirname "$0")/.."

rm -rf dist
.venv/bin/python -m build --quiet --sdist --no-isolation --outdir dist .
for version in 3.10 3.11 3.12 3.13 3.14; do
    if python=$(tools/find_python.sh "$version"); then
        echo "wheels: building for $("$python" --version)"
        tools/wheel.sh dist/*.tar.gz "$python" dist
    else
        echo "wheels: no Python $version here: skipped"
    fi
done
ls -sh dist
