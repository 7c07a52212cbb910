#!/usr/bin/env bash
# Format, static analysis and types: runs all of them, then tells which failed.
set -uo pipefail
cd "$(dirname "$0")/.."

failed=()
check() {
    local name=$1
    shift
    echo "lint: $name"
    "$@" || failed+=("$name")
}

cpp_files() { find src tests bench fuzz -name '*.h' -o -name '*.cpp'; }

# Clang compiles everything once, with its thread-safety analysis; clang-tidy looks at each file on the way.
clang_build() {
    cmake --preset lint -DPython_EXECUTABLE="$PWD/.venv/bin/python" &&
        cmake --build --preset lint --target tarvomeldric_core _engine -- -k 0
}

check clang-format clang-format --dry-run --Werror --ferror-limit=1 $(cpp_files)
check clang-tidy clang_build
check ruff .venv/bin/ruff check --quiet .
check ruff-format .venv/bin/ruff format --quiet --check .
check mypy .venv/bin/mypy -p tarvomeldric
check mypy-examples .venv/bin/mypy --exclude ^examples/clients/ examples tools fuzz
check mypy-soak .venv/bin/mypy soak

[[ ${#failed[@]} -eq 0 ]] || { echo "lint: failed: ${failed[*]}"; exit 1; }
echo "lint: all clean"
