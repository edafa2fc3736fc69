#!/usr/bin/env bash
# Installs what is missing, builds and runs every test: the release build, the sanitizers' build and, where nvcc is,
# the CUDA build (compiled and linked; its tests skip themselves without a GPU). Safe to run again.
#   ./run_tests.sh          all of it
#   ./run_tests.sh release  one preset: release, asan or cuda
set -eu
cd "$(dirname "$0")"
jobs=$(nproc)

tools/install_packages.sh build test mpi

run_preset() {
  echo "== $1: configure and build"
  cmake --preset "$1" -DKESTRIX_TESTS=ON "${@:2}" >/dev/null
  cmake --build --preset "$1" -j "$jobs" -- --no-print-directory | grep -vE '^\[|^Scanning|^Consolidate' || true
  cmake --build --preset "$1" -j "$jobs" >/dev/null
  echo "== $1: tests"
  ctest --preset "$1" -j "$jobs"
}

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(release asan cuda)
for preset in "${presets[@]}"; do
  if [ "$preset" = cuda ] && ! command -v nvcc >/dev/null; then
    echo "== cuda: skipped, nvcc is not here"
  elif [ "$preset" = asan ]; then
    run_preset asan -DKESTRIX_BENCH=OFF
  else
    run_preset "$preset" -DKESTRIX_BENCH=ON
  fi
done
echo "== all done"
