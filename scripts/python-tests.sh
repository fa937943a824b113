#!/usr/bin/env bash
# Tests the Python package (python/) as a user installs it: builds the library and the pellix
# simulator (release preset: a sanitizer build cannot be loaded into a plain Python), installs
# the package with pip into a fresh virtual environment of Debian's Python (which can see
# Debian's pytest), and runs its tests against the real simulator with PELLIX_LIBRARY
# pointing at the built library.
# Usage: scripts/python-tests.sh [pytest arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target pellix_library pellix

python=/usr/bin/python3
venv=$(mktemp -d)
trap 'rm -rf "$venv"' EXIT
"$python" -m venv --system-site-packages "$venv"
"$venv/bin/pip" install --quiet --no-build-isolation --no-index "$root/python"
# From outside the source tree, so that the installed package is the one imported.
cd "$venv"
PELLIX_LIBRARY="$root/build/release/bin/libpellix_library.so" \
    "$venv/bin/python" -m pytest -q -p no:cacheprovider "$root/python/tests" "$@"
