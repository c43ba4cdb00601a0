#!/usr/bin/env bash
# Installs what is missing, builds, and shows what qvx_read makes of the sample data and of this machine; and what qvx
# makes of it, where the registry of Python packages can be reached.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

# Wider lines are cut, not folded.
width=110
[ ! -t 1 ] || width=$(tput cols 2>/dev/null || echo "$width")

# show <head|tail> <lines> <argument of qvx_read...>
show() {
  local end=$1 lines=$2 total
  shift 2
  { printf '\n$ qvx_read' && printf ' %q' "$@" && printf '\n'; } | sed "s#$QVX_SCRATCH/##g"
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

# sample <name> <what> <argument of host_sampler...>: samples this machine into a folder of this name and shows
# the files and what is in them. The text table is for counters, so the events have none.
sample() {
  local folder=$QVX_SCRATCH/$1 what=$2 counters events
  shift 2
  printf '\n'
  say "This machine, sampled for three seconds, $what"
  quietly "Sampling" build/release/examples/host_sampler --interval 100 --seconds 3 --output "$folder" "$@"
  printf '\n$ find %s -type f\n' "${folder##*/}"
  (cd "$QVX_SCRATCH" && find "${folder##*/}" -type f | sort)
  counters=$(find "$folder" -name 'counters_*.bin')
  events=$(find "$folder" -name 'events_*.bin')
  show head 3 -s "$folder/schema" -f ndjson "$events"
  show head 2 -s "$folder/schema" -f ndjson "$counters"
  show tail 4 -s "$folder/schema" -f txt "$counters"
}

sample plain "its pages saved as they are" --source node7
sample gzip "its pages compressed" --source node7 --compress gzip

printf '\n'
python_package cli || exit 0
PATH=$PWD/build/venv/bin:$PATH

# show_qvx <argument of qvx...>
show_qvx() {
  local argument line='$ qvx'
  for argument in "$@"; do
    [[ $argument =~ ^[A-Za-z0-9_./-]+$ ]] || argument="'$argument'"
    line+=" ${argument#"$QVX_SCRATCH"/}"
  done
  printf '\n%s\n' "$line"
  qvx "$@" || fail "qvx failed"
}

say "This machine, as tables, in SQL and drawn"
show_qvx info "$QVX_SCRATCH/gzip"
show_qvx sql "$QVX_SCRATCH/gzip" \
  'select count(*) samples, round(avg("host.cpu_busy_percent"), 1) busy, max("host.load_1m") load from counters'
show_qvx plot "$QVX_SCRATCH/gzip" -c host.memory_used host.cpu_busy_percent
