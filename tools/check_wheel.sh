#!/usr/bin/env bash
# Builds the wheel and tries it in a fresh virtual environment: nothing of the build may be needed there.
set -euo pipefail
cd "$(dirname "$0")/.."

where=build/wheel
rm -rf "$where"
.venv/bin/pip wheel --quiet --no-build-isolation --no-deps --wheel-dir "$where" .
.venv/bin/python -m venv "$where/venv"
"$where/venv/bin/pip" install --quiet "$where"/*.whl
env -i HOME="$PWD/$where/home" "$where/venv/bin/python" -I tools/check_installed.py
env -i HOME="$PWD/$where/home" "$where/venv/bin/tarvomeldric" diagnose timeout > "$where/diagnosis"
