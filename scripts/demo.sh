#!/usr/bin/env bash
# Installs what is missing, builds, and shows what qvx_read makes of the sample data and of this machine.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

# Lines wider than the terminal are cut, not folded.
width=
[ ! -t 1 ] || width=$(tput cols 2>/dev/null || true)

# show <head|tail> <lines> <argument of qvx_read...>
show() {
  local end=$1 lines=$2 total
  shift 2
  printf '\n$ qvx_read'
  printf ' %q' "$@"
  printf '\n'
  build/release/qvx_read "$@" >"$QVX_SCRATCH/output" || fail "qvx_read failed"
  total=$(wc -l <"$QVX_SCRATCH/output")
  if [ "$end" = tail ] && [ "$total" -gt "$lines" ]; then printf '...\n'; fi
  "$end" -n "$lines" "$QVX_SCRATCH/output" | cut -c "1-$width"
  if [ "$end" = head ] && [ "$total" -gt "$lines" ]; then printf '...\n'; fi
  printf '(%d lines)\n' "$total"
}

install_packages "${QVX_PACKAGES[@]}"
build release qvx_read host_sampler

say "Sample data: events, a line each, and counters as tables"
show head 3 -f ndjson examples/data/events.bin
show head 12 -f txt examples/data/counters.bin

printf "\n"
say "This machine, sampled for three seconds"
quietly "Sampling" build/release/examples/host_sampler --interval 100 --seconds 3 --output "$QVX_SCRATCH"
# Text tables are for counters, so the events are left out of them.
show head 3 -f ndjson "$QVX_SCRATCH/host.bin"
show tail 8 -f txt -e '*' "$QVX_SCRATCH/host.bin"
