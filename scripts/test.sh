#!/usr/bin/env bash
# Installs what is missing, builds everything and runs all tests: ./scripts/test.sh [release|debug|asan]; with release
# those of the Python package, too, where its package registry can be reached.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

preset=${1:-release}
install_packages "${QVX_PACKAGES[@]}"
install_servers "${QVX_TEST_SERVERS[@]}"
build "$preset"
run_tests "$preset"
[ "$preset" != release ] || ./scripts/test_python.sh
