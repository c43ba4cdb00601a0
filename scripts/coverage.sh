#!/usr/bin/env bash
# Counts which lines and branches of qvx/ run in the tests, prints a table by room and compares what does not run with
# tests/trust/not_covered.txt, which tells why. Replays of the fuzz corpora and sweeps over damaged files do not count.
#
#   scripts/coverage.sh [--refresh]     --refresh writes the list anew, with a question mark where a reason is missing
#
# Branches that only an exception takes are left out, since the compiler makes one for each call that may throw, and so is that
# of a message whose level is off, which is one in QVX_LOG.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

# What counts nothing: replays and sweeps; programs built around the library, which lack the counters.
left_out='_replay$|^trust_|^install$|^exported_symbols$|^symbols$'

install_packages "${QVX_PACKAGES[@]}" gcovr
# The programs of those that count.
targets=(qvx_read number_proof_tests log_threads_tests page_lines)
mapfile -t -O ${#targets[@]} targets < <(sed -n 's/^ *qvx_test(\([a-z_]*\)$/\1_tests/p' tests/CMakeLists.txt)
build coverage "${targets[@]}"
find build/coverage -name '*.gcda' -delete
say "Running the tests of build/coverage"
quietly "The test run" ctest --preset coverage -E "$left_out"
grep -E 'tests passed|Total Test time' "$QVX_SCRATCH/log"
quietly "Reading the counters" gcovr --root . --filter 'qvx/' --exclude-throw-branches --exclude-unreachable-branches \
  --exclude-branches-by-pattern '.*(QVX_LOG\(|catch \().*' --json build/coverage/coverage.json \
  build/coverage/qvx build/coverage/tests build/coverage/examples
python3 tests/trust/coverage.py build/coverage/coverage.json "$@"
