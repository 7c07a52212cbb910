#!/usr/bin/env bash
# Makes the virtual environment DIR for PYTHON, with everything the build, the tests and the linters use.
# usage: tools/venv.sh DIR PYTHON
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1 python=$2

echo "$dir: preparing for $("$python" --version)"
[[ -x $dir/bin/python ]] || "$python" -m venv "$dir"
"$dir/bin/pip" install --quiet 'pip>=25.1'  # the first that knows --group
"$dir/bin/pip" install --quiet --group dev
touch "$dir/ready"
