#!/usr/bin/env bash
# Counts which lines and branches of qvx/ run in the tests, prints a table by room and compares what does not run with
# tests/trust/not_covered.txt, which tells why. Replays of the fuzz corpora and sweeps over damaged files do not count.
#
#   scripts/coverage.sh [--refresh]     --refresh writes the list anew, with a question mark where a reason is missing
#
# The preset maps the file of counters into every process, one file for all processes of a program, so that those that are
# killed count too.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

# What counts nothing: replays and sweeps; programs built around the library, which lack the counters.
left_out='_replay$|^trust_|^install$|^exported_symbols$|^symbols$'

install_packages "${QVX_PACKAGES[@]}" clang llvm
# The programs of those that count.
targets=(qvx_read number_proof_tests log_threads_tests page_lines)
mapfile -t -O ${#targets[@]} targets < <(sed -n 's/^ *qvx_test(\([a-z_]*\)$/\1_tests/p' tests/CMakeLists.txt)
build coverage "${targets[@]}"
rm -rf build/coverage/counters
say "Running the tests of build/coverage"
quietly "The test run" ctest --preset coverage -E "$left_out"
grep -E 'tests passed|Total Test time' "$QVX_SCRATCH/log"
quietly "Reading the counters" llvm-profdata merge -o build/coverage/counters/all build/coverage/counters/*.profraw
programs=("${targets[@]/#/--object=build/coverage/tests/}")
programs[0]=--object=build/coverage/qvx_read
llvm-cov export --instr-profile build/coverage/counters/all "${programs[@]}" --skip-functions --skip-expansions \
  --ignore-filename-regex '/(build|examples|tests|usr)/' >build/coverage/coverage.json
python3 tests/trust/coverage.py build/coverage/coverage.json "$@"
