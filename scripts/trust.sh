#!/usr/bin/env bash
# Looks for faults in every way there is, each for its share of the time, and writes the table of docs/trust.md.
#
#   scripts/trust.sh [minutes, 10 if not given [seed, 1 if not given]]
#
# QVX_TRUST_TALLY names a file to which each run adds its figures; the table holds their sums. Without it only this run
# counts. The fuzz targets are built with clang where there is one.
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

# Half of the time is for the fuzz targets, and those that read whole files get three shares; a third is for the sweeps.
share() { awk -v minutes="$minutes" -v part="$1" -v of="$2" 'BEGIN { printf "%d", 60 * minutes * part / of + 1 }'; }
fuzz_seconds=$(share 0.5 $((${#targets[@]} + 4)))
sweep_seconds=$(share 0.33 $((${#sweeps[@]} + ${#tests[@]} / 2)))

cmake --preset release >/dev/null
cmake --build build/release --target qvx_read trust_sweeps write_tests bin_output_tests data_tests \
  "${targets[@]/%/_replay}" >/dev/null
fuzz_build=build/release
if command -v clang++ >/dev/null; then
  fuzz_build=build/fuzz
  cmake -B $fuzz_build -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DQVX_BUILD_FUZZERS=ON -DQVX_BUILD_TESTS=OFF \
    -DQVX_BUILD_EXAMPLES=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build $fuzz_build --target "${targets[@]}" >/dev/null
fi

# run_test <program> <filter>
run_test() {
  QVX_TRUST_SECONDS=$sweep_seconds QVX_TRUST_SEED=$seed build/release/tests/"$1" --gtest_filter="$2" \
    >"$QVX_SCRATCH/test" 2>&1 || tail -n 30 "$QVX_SCRATCH/test" >&2
  # A test that ended without its line failed altogether.
  grep -a '^result' "$QVX_SCRATCH/test" || printf 'result\t%s\t0\t1\t0\n' "$2"
}

# run_fuzzer <target> <seconds>: a crash is a finding, and its input stays in build/findings.
run_fuzzer() {
  local target=$1 seconds=$2 log=$QVX_SCRATCH/fuzz corpus=build/corpus/$1 findings=0 cases
  mkdir -p "$corpus" build/findings
  if [ $fuzz_build = build/fuzz ]; then
    build/fuzz/fuzz/"$target" -seed="$seed" -max_total_time="$seconds" -entropic=0 -max_len=4096 -timeout=10 -rss_limit_mb=1024 \
      -print_final_stats=1 -artifact_prefix=build/findings/"$target"- "$corpus" "fuzz/corpus/$target" >"$log" 2>&1 || findings=1
    cases=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  else
    build/release/fuzz/"${target}_replay" --seed="$seed" --seconds="$seconds" "fuzz/corpus/$target" >"$log" 2>&1 || findings=1
    cases=$(sed -n 's/ inputs$//p' "$log")
  fi
  [ $findings = 0 ] || tail -n 30 "$log" >&2
  printf 'result\tfuzz %s\t%s\t%s\t%s\n' "${target%_fuzz}" "${cases:-0}" $findings "$seconds" | tee -a "$tally"
}

# run_memcheck <target>: the corpus under valgrind, which sees every byte that was never set.
run_memcheck() {
  local began=$SECONDS findings=0
  valgrind -q --error-exitcode=99 build/release/fuzz/"$1_replay" "fuzz/corpus/$1" >"$QVX_SCRATCH/log" 2>&1 ||
    { findings=1; tail -n 30 "$QVX_SCRATCH/log" >&2; }
  printf 'result\tmemcheck\t%s\t%s\t%s\n' "$(find "fuzz/corpus/$1" -type f | wc -l)" $findings $((SECONDS - began)) | tee -a "$tally"
}

for kind in "${sweeps[@]}"; do
  build/release/tests/trust_sweeps --seed="$seed" --seconds="$sweep_seconds" "$kind" | tee -a "$tally" || true
done
for ((at = 0; at < ${#tests[@]}; at += 2)); do
  run_test "${tests[at]}" "${tests[at + 1]}" | tee -a "$tally"
done
for target in "${targets[@]}"; do
  case $target in
    whole_file_fuzz | typed_file_fuzz) run_fuzzer "$target" $((3 * fuzz_seconds)) ;;
    *) run_fuzzer "$target" "$fuzz_seconds" ;;
  esac
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
