#!/usr/bin/env bash
# Builds the fuzzers and runs them from the kept seeds, one after another:
#   tests/fuzz/run.sh                 every target for 600 seconds
#   tests/fuzz/run.sh 60 box star     those targets for 60 seconds
# New inputs gather in build-fuzz/corpus/, findings in build-fuzz/findings/. A finding that is mended is kept as a seed
# under tests/fuzz/seeds/, which the tests replay.
set -eu
cd "$(dirname "$0")/../.."
seconds=${1:-600}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(mrc image tiff box star command_line)

tools/install_packages.sh fuzz
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)" >/dev/null

# Every run of a target writes files: in memory they cost a fortieth of the time.
[ ! -w /dev/shm ] || export TMPDIR=/dev/shm

status=0
for target in "${targets[@]}"; do
  mkdir -p "build-fuzz/corpus/$target" "build-fuzz/findings/$target"
  options=(-max_total_time="$seconds" -timeout=10 -max_len=4096 -print_final_stats=1 -close_fd_mask=3)
  options+=(-artifact_prefix="build-fuzz/findings/$target/")
  [ ! -e "tests/fuzz/$target.dict" ] || options+=(-dict="tests/fuzz/$target.dict")
  log=build-fuzz/$target.log
  echo "== $target: $seconds seconds, log in $log"
  OMP_NUM_THREADS=1 nice -n 19 "build-fuzz/tests/fuzz/fuzz_$target" "${options[@]}" "build-fuzz/corpus/$target" \
    "tests/fuzz/seeds/$target" >"$log" 2>&1 || { status=1; echo "   a finding: see the end of $log"; }
  grep -E '^stat::(number_of_executed_units|new_units_added)|cov: ' "$log" | tail -n 3
done
exit $status
