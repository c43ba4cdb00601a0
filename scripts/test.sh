#!/usr/bin/env bash
# Installs what is missing, builds everything and runs all tests, those of the Python package too:
#   ./scripts/test.sh [release|debug|asan]
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

preset=${1:-release}
install_packages "${QVX_PACKAGES[@]}"
build "$preset"
run_tests "$preset"
# Python itself does not run under the sanitizers.
if [ "$preset" != asan ] && python_package test; then
  say "Running the tests of the Python package"
  quietly "The Python test run" env QVX_READ="$PWD/build/$preset/qvx_read" build/venv/bin/python -m pytest -q python/tests
  tail -n 1 "$QVX_SCRATCH/log"
fi
