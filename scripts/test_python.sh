#!/usr/bin/env bash
# Builds the Python package into a virtual environment and runs its tests against build/release/qvx_read. Where the
# package registry cannot be reached it says so and is done.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

install_packages "${QVX_PACKAGES[@]}"
build release qvx_read
python_package test || exit 0
say "Running the tests of the Python package"
quietly "The Python test run" env QVX_READ="$PWD/build/release/qvx_read" \
  build/venv/bin/python -m pytest -q -rs -p no:cacheprovider python/tests
grep -E '^SKIPPED|passed' "$QVX_SCRATCH/log"
