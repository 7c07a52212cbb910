#!/usr/bin/env bash
# Prints the Python to build for: 3.10 if there is one, else the newest.
# With VERSION, such as 3.12: one of that version. With --other VERSION: the newest that is not VERSION.
# Exits with 1 when there is none.
set -euo pipefail

# A name on the PATH proves little: version managers put a stub there for every version they know of.
# Extension modules need a released CPython with its headers; a virtual environment needs ensurepip.
probe='
import ensurepip, os, sys, sysconfig, venv
ready = (
    sys.implementation.name == "cpython"
    and sys.version_info >= (3, 10)
    and sys.version_info.releaselevel == "final"
    and not sysconfig.get_config_var("Py_GIL_DISABLED")
    and os.path.exists(os.path.join(sysconfig.get_path("include"), "Python.h"))
)
if ready:
    print("%d.%d" % sys.version_info[:2], sys.executable)
'

candidates() {
    local minor
    for minor in {10..20}; do
        type -ap "python3.$minor" || true
        compgen -G "${PYENV_ROOT:-$HOME/.pyenv}/versions/3.$minor.*/bin/python3.$minor" || true
    done
    type -ap python3 || true
}

found=$(candidates | while read -r python; do "$python" -c "$probe" 2>/dev/null || true; done | sort -Vu)
of_version() { grep "^$1 " <<<"$found" | tail -1; }
case ${1-} in
    '') chosen=$(of_version 3.10 || tail -1 <<<"$found") ;;
    --other) chosen=$(grep -v "^$2 " <<<"$found" | tail -1) || true ;;
    *) chosen=$(of_version "$1") || true ;;
esac
[[ -n $chosen ]] && echo "${chosen#* }"
