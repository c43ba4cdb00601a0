#!/usr/bin/env bash
# Installs what is missing, builds everything and runs all tests: ./scripts/test.sh [release|debug|asan]
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

preset=${1:-release}
install_packages "${QVX_PACKAGES[@]}"
build "$preset"
run_tests "$preset"
