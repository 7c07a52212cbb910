#!/usr/bin/env bash
# Builds a wheel from SOURCE, a folder or a source distribution, for PYTHON; puts the libraries it needs into it, RE2
# above all, so that it runs on any Linux of the age that its name tells; tries it in a fresh virtual environment, where
# there is no compiler; and leaves it in DIR. What follows DIR are options for pip.
# usage: tools/wheel.sh SOURCE PYTHON DIR [PIP_OPTION...]
set -euo pipefail
cd "$(dirname "$0")/.."
source=$1 python=$2 dir=$3
shift 3

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
bin=$PWD/.venv/bin

"$bin/pip" --python "$python" wheel --quiet --no-deps --wheel-dir "$scratch/built" "$@" "$source"
PATH=$bin:$PATH "$bin/auditwheel" repair --strip --wheel-dir "$scratch/repaired" "$scratch"/built/*.whl \
    &>"$scratch/log" || { cat "$scratch/log" >&2; exit 1; }

"$python" -m venv --without-pip "$scratch/venv"
"$bin/pip" --python "$scratch/venv/bin/python" install --quiet --only-binary :all: "$scratch"/repaired/*.whl
alone() { env -i HOME="$scratch/home" PATH="$scratch/venv/bin" "$@"; }
alone python -I tools/check_installed.py
alone python -I -m tarvomeldric diagnose timeout >"$scratch/diagnosis"
alone tarvomeldric diagnose timeout | cmp - "$scratch/diagnosis"

mkdir -p "$dir"
mv "$scratch"/repaired/*.whl "$dir"
