#!/usr/bin/env bash
# Everything that takes a GPU to know: builds the program for it, runs all tests on it, looks for memory faults and
# races, times the scan, and compares its picks with those of the host. Run from anywhere:
#   tools/gpu_check.sh [CMake options of the CUDA build, such as -DCMAKE_CUDA_ARCHITECTURES=native]
# Output of all steps is kept in build-cuda/gpu_check/.
# Exit status 0 if every step passed, 1 if one failed, 77 if there is nothing to check: no nvcc or no GPU here.
# shellcheck disable=SC2317  # the steps are called through `step`
set -euo pipefail
cd "$(dirname "$0")/.."

gpu_build="build-cuda"
host_build="$gpu_build/host"
root=$PWD
jobs=$(nproc)
logs=$root/$gpu_build/gpu_check
summary=()
failed=0

nothing_to_check() {
  echo "gpu_check: $1"
  exit 77
}

# Runs a step, shows and keeps its output and notes how it ended: step NAME COMMAND... A step ends at its first command
# that fails, by `|| return`: in a command whose status is taken, set -e has no effect.
step() {
  local name=$1 status=0
  shift
  echo "== $name"
  "$@" 2>&1 | tee "$logs/$name.log" || status=${PIPESTATUS[0]}
  if [ "$status" -eq 0 ]; then
    summary+=("passed   $name")
  elif [ "$status" -eq 77 ]; then
    summary+=("not run  $name")
  else
    summary+=("FAILED   $name (status $status; see $logs/$name.log)")
    failed=1
  fi
}

build_both() {
  cmake -S . -B "$host_build" -DCMAKE_BUILD_TYPE=Release -DKESTRIX_BENCH=OFF >/dev/null || return
  cmake --build "$host_build" -j "$jobs" || return
  cmake --preset cuda -DKESTRIX_HOST_BUILD="$root/$host_build" "$@" >/dev/null || return
  cmake --build --preset cuda -j "$jobs"
}

# All tests; the one that compares each operation with the host's must not have been skipped.
run_tests() {
  ctest --preset cuda || return
  if ctest --preset cuda -R AgreesWithTheHostDevice | grep Skipped; then
    echo "The comparison of each operation with the host's was skipped."
    return 1
  fi
}

sanitize() {
  command -v compute-sanitizer >/dev/null || { echo "compute-sanitizer is not here"; return 77; }
  compute-sanitizer --tool "$1" --error-exitcode 3 "$gpu_build/tests/kestrix_device_record" "$logs/$1.record"
}

# pick_with BUILD FOLDER: picks the simulated micrographs of a folder with the program of a build.
pick_with() {
  (cd "$2" && "$root/$1/kestrix" sim_00?.mrc --T sim_templates.mrcs --apixM 2 --apixT 4 --diameter 260 --speed 1 \
    --cc_cutoff 0.15 | grep TIME)
}

# The same micrographs of particles and ice picked by both programs.
compare_picks() {
  rm -rf "$logs/host" "$logs/gpu"
  mkdir -p "$logs/host"
  (cd "$logs/host" && "$root/$host_build/kestrix_simulate" --number 4 --nx 3000 --ny 2800 --apix 2 --ice 2 --snr 0.05) ||
    return
  cp -r "$logs/host" "$logs/gpu" || return
  echo "-- host" && pick_with "$host_build" "$logs/host" || return
  echo "-- GPU" && pick_with "$gpu_build" "$logs/gpu" || return
  tools/compare_picks.sh "$logs/host" "$logs/gpu" 0.00001 0.15
}

PATH=$PATH:/usr/local/cuda/bin
command -v nvcc >/dev/null || nothing_to_check "nvcc is not here; nothing was built or checked."
mkdir -p "$logs"
step build build_both "$@"
[ "$failed" -eq 0 ] || exit 1
"$gpu_build/gpu_probe" || nothing_to_check "the CUDA build compiles and links, but there is no GPU here; nothing was run."

step tests run_tests
for tool in memcheck racecheck synccheck initcheck; do step "$tool" sanitize "$tool"; done
step scan "$gpu_build/bench/gpu_scan_bench"
step picks compare_picks

echo "== summary: $("$gpu_build/gpu_probe" | head -1)"
printf '%s\n' "${summary[@]}"
exit "$failed"
