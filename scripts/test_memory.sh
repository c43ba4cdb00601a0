#!/usr/bin/env bash
# Builds the program and the replays of the fuzz targets with the memory sanitizer and runs the tests that they are for:
# no byte is used, printed or written that was never set. Installs what is missing. Tests written with gtest are left out,
# because it is compiled without the sanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

install_packages "${QVX_PACKAGES[@]}" clang
targets=(fuzz/corpus/*/)
targets=("${targets[@]%/}")
targets=("${targets[@]##*/}")
build msan qvx_read "${targets[@]/%/_replay}"
say "Running the tests of build/msan"
quietly "The test run" ctest --preset msan -R '^cli$|^cli_process$|^streams$|_replay$'
grep -E 'tests passed|Total Test time' "$QVX_SCRATCH/log"
python3 tests/trust/run.py --bin build/msan/qvx_read --unlimited memcheck
