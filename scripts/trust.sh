#!/usr/bin/env bash
# Looks for faults in every way there is, each for its share of the time, and writes the table of docs/trust.md.
#
#   scripts/trust.sh [minutes, 10 if not given [seed, 1 if not given]]
#
# QVX_TRUST_TALLY names a file to which each run adds its figures; the table holds their sums. Without it only this run
# counts. Where there is clang, libFuzzer steers the fuzz targets, and they run with the memory sanitizer too.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

minutes=${1:-10}
seed=${2:-1}
tally=${QVX_TRUST_TALLY:-$QVX_SCRATCH/tally}
export TZ=UTC

sweeps=(forms bit-flips cuts-and-growth noise allocations input-faults output-faults numbers inflate soak)
# Kinds that are tests of the ordinary programs and go on for as long as they are told: program, filter.
tests=(
  write_tests "WriterTrust.FailingCalls*"
  write_tests "WriterTrust.KilledAtAnyCall*"
  write_tests "WriterTrust.HostileNames*"
  write_tests "WriterTrust.ProcessesInOneFolder*"
  bin_output_tests "BinSchemas.WhereverTheyChange*"
  data_tests "SharedPageFaults.KilledAtAnyCall*"
  data_tests "SharedPageFaults.ProcessesThatStartAtOnce*"
)
targets=()
for folder in fuzz/corpus/*/; do targets+=("$(basename "$folder")"); done

# Half of the time is for the fuzz targets, a fifth of it with the memory sanitizer, and those that read whole files get three
# shares; a third is for the sweeps.
share() { awk -v minutes="$minutes" -v part="$1" -v of="$2" 'BEGIN { printf "%d", 60 * minutes * part / of + 1 }'; }
fuzz_seconds=$(share 0.4 $((${#targets[@]} + 4)))
memory_seconds=$(share 0.1 $((${#targets[@]} + 4)))
sweep_seconds=$(share 0.33 $((${#sweeps[@]} + ${#tests[@]} / 2)))

cmake --preset release >/dev/null
cmake --build build/release --target qvx_read trust_sweeps write_tests bin_output_tests data_tests \
  "${targets[@]/%/_replay}" >/dev/null
clang=$(command -v clang++ || true)
if [ -n "$clang" ]; then
  cmake -B build/fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DQVX_BUILD_FUZZERS=ON -DQVX_BUILD_TESTS=OFF \
    -DQVX_BUILD_EXAMPLES=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build build/fuzz --target "${targets[@]}" >/dev/null
  cmake --preset msan >/dev/null
  cmake --build --preset msan --target "${targets[@]/%/_replay}" >/dev/null
fi

# run_test <program> <filter>
run_test() {
  QVX_TRUST_SECONDS=$sweep_seconds QVX_TRUST_SEED=$seed build/release/tests/"$1" --gtest_filter="$2" \
    >"$QVX_SCRATCH/test" 2>&1 || tail -n 30 "$QVX_SCRATCH/test" >&2
  # A test that ended without its line failed altogether.
  grep -a '^result' "$QVX_SCRATCH/test" || printf 'result\t%s\t0\t1\t0\n' "$2"
}

# tell <kind> <cases> <findings> <seconds>: what is found is shown.
tell() {
  [ "$3" = 0 ] || tail -n 30 "$QVX_SCRATCH/log" >&2
  printf 'result\t%s\t%s\t%s\t%s\n' "$1" "${2:-0}" "$3" "$4" | tee -a "$tally"
}

# run_fuzzer <target> <seconds>: a crash is a finding, and its input stays in build/findings.
run_fuzzer() {
  local target=$1 seconds=$2 corpus=build/corpus/$1 findings=0
  mkdir -p "$corpus" build/findings
  build/fuzz/fuzz/"$target" -seed="$seed" -max_total_time="$seconds" -entropic=0 -max_len=4096 -timeout=10 -rss_limit_mb=1024 \
    -print_final_stats=1 -artifact_prefix=build/findings/"$target"- "$corpus" "fuzz/corpus/$target" >"$QVX_SCRATCH/log" 2>&1 ||
    findings=1
  tell "fuzz ${target%_fuzz}" "$(sed -n 's/^stat::number_of_executed_units: *//p' "$QVX_SCRATCH/log")" $findings "$seconds"
}

# run_by_chance <kind> <build> <target> <seconds>: inputs made from the corpus by chance.
run_by_chance() {
  local findings=0
  "build/$2/fuzz/$3_replay" --seed="$seed" --seconds="$4" "fuzz/corpus/$3" >"$QVX_SCRATCH/log" 2>&1 || findings=1
  tell "$1 ${3%_fuzz}" "$(sed -n 's/ inputs$//p' "$QVX_SCRATCH/log")" $findings "$4"
}

# run_memcheck <target>: the corpus under valgrind, which sees every byte that was never set.
run_memcheck() {
  local began=$SECONDS findings=0
  valgrind -q --error-exitcode=99 build/release/fuzz/"$1_replay" "fuzz/corpus/$1" >"$QVX_SCRATCH/log" 2>&1 || findings=1
  tell memcheck "$(find "fuzz/corpus/$1" -type f | wc -l)" $findings $((SECONDS - began))
}

for kind in "${sweeps[@]}"; do
  build/release/tests/trust_sweeps --seed="$seed" --seconds="$sweep_seconds" "$kind" | tee -a "$tally" || true
done
for ((at = 0; at < ${#tests[@]}; at += 2)); do
  run_test "${tests[at]}" "${tests[at + 1]}" | tee -a "$tally"
done
for target in "${targets[@]}"; do
  shares=1
  case $target in whole_file_fuzz | typed_file_fuzz) shares=3 ;; esac
  if [ -n "$clang" ]; then
    run_fuzzer "$target" $((shares * fuzz_seconds))
    run_by_chance memory msan "$target" $((shares * memory_seconds))
  else
    run_by_chance fuzz release "$target" $((shares * fuzz_seconds))
  fi
done
# Short runs do a part of the rest, another one for each seed.
quick=
[ "$minutes" -ge 5 ] || quick=--quick
python3 tests/trust/run.py --bin build/release/qvx_read --optimised --seed "$seed" $quick | tee -a "$tally" || true
if command -v valgrind >/dev/null; then
  for target in "${targets[@]}"; do run_memcheck "$target"; done
fi

machine="One core of $(lscpu | sed -n 's/^Model name: *//p' | head -n 1), $(c++ --version | head -n 1)"
python3 tests/trust/table.py "$tally" docs/trust.md "$machine" "$(date -u +%F)"
awk -F '\t' '$1 == "finding" || ($1 == "result" && $4 > 0) { found = 1 } END { exit found }' "$tally"
