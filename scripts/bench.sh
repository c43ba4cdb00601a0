#!/usr/bin/env bash
# Builds the release preset, makes its own inputs and prints the table of docs/performance.md.
#
#   scripts/bench.sh [MiB of data per file, 256 if not given [events|counters|metrics...|columns]]
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset release > /dev/null
cmake --build --preset release --target qvx_read qvx_files_bench qvx_columns_bench \
  qvx_perfect_writer qvx_hand_decoder qvx_tree_decoder > /dev/null

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
lscpu | sed -n 's/^Model name: */processor: /p'
echo "compiler: $(c++ --version | head -n 1)"
echo "date: $(date -u +%F)"
echo
if [ "${2:-}" = columns ]; then
  build/release/bench/qvx_columns_bench "$folder" "$1"
  exit
fi
build/release/bench/qvx_files_bench build/release/qvx_read build/release/bench "$folder" "${@:-256}"
