#!/usr/bin/env bash
# Debian packages that the build, the linters and the tests stand on: installs the missing ones.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(g++ cmake ninja-build pkg-config libre2-dev libgtest-dev
          clang clang-tidy clang-format libclang-rt-dev redis-server chromium openssl)

# A Python of one's own brings venv and headers; Debian's has them in packages of their own.
[[ -x .venv/bin/python ]] || tools/find_python.sh >/dev/null || packages+=(python3 python3-venv python3-dev)

if ! command -v dpkg-query >/dev/null; then
    echo "packages: not a Debian system; what is needed goes there by the names ${packages[*]} promtool"
    exit 0
fi

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null) || true
    [[ $status == installed ]] || missing+=("$package")
done

if [[ ${#missing[@]} -gt 0 ]]; then
    if [[ $EUID -ne 0 ]]; then
        echo "packages: please run this once, then try again:" >&2
        echo "    sudo apt-get install --no-install-recommends ${missing[*]}" >&2
        exit 1
    fi
    echo "packages: installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# One file of a package that would also start a server; only a test needs it, so the build goes on without.
fetch_promtool() {
    (cd "$1" && apt-get download -qq -o APT::Sandbox::User=root prometheus) &&
        dpkg-deb --fsys-tarfile "$1"/prometheus_*.deb | tar -xO ./usr/bin/promtool >"$1/promtool" &&
        install -D "$1/promtool" build/tools/promtool
}
if [[ ! -x build/tools/promtool ]] && ! command -v promtool >/dev/null; then
    echo "packages: fetching promtool (19 MB)"
    scratch=$(mktemp -d)
    trap 'rm -rf "$scratch"' EXIT
    [[ $EUID -ne 0 || ${#missing[@]} -gt 0 ]] || apt-get update -qq || true
    fetch_promtool "$scratch" || echo "packages: no promtool; the test of /metrics will fail" >&2
fi
