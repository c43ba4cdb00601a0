#!/usr/bin/env bash
# Builds the Python package into a virtual environment and runs its tests against build/release/qvx_read.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

install_packages "${QVX_PACKAGES[@]}"
build release qvx_read
python_package test || fail "the package could not be built"
say "Running the tests of the Python package"
quietly "The Python test run" env QVX_READ="$PWD/build/release/qvx_read" build/venv/bin/python -m pytest -q python/tests
tail -n 1 "$QVX_SCRATCH/log"
