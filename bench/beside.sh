#!/usr/bin/env bash
# The stage times of two builds of the program on the same micrographs, run by turns, so that both meet the same machine:
#   bench/beside.sh BEFORE AFTER [OUTPUT]        (programs; default output: build/bench/beside.txt)
# Each figure is the median of the last three micrographs of fifteen, three of them five times over, in three rounds, in
# seconds: what a run keeps of the first ones to do later ones faster counts. `times` is what BEFORE takes over AFTER.
set -eu
cd "$(dirname "$0")/.."
before=$1 after=$2 out=${3:-build/bench/beside.txt}
tools/install_packages.sh build >/dev/null
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc)" --target kestrix_simulate >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$(dirname "$out")"
printf '%-34s %7s %8s %8s %8s %8s %8s %8s %7s\n' run threads READ NORM PICK READ NORM PICK times | tee "$out"

# last_three PROGRAM OPTIONS...: the stage times of the last three micrographs of a run
last_three() { "$@" 2>/dev/null | grep -E '(READING|NORMALIZATION|PICKING):' | tail -n 9; }

# stages LOG: medians of READING, NORMALIZATION and PICKING
stages() {
  for stage in READING NORMALIZATION PICKING; do
    awk -v stage="$stage:" '$2 == stage { print $3 + 0 }' "$1" | sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'
  done | xargs
}

# row LABEL SIZE THREADS OPTIONS...
row() {
  local label=$1 size=$2 threads=$3
  shift 3
  : >"$work/before.log"
  : >"$work/after.log"
  local mics=("$work/m$size"_00[123].mrc)
  mics=("${mics[@]}" "${mics[@]}" "${mics[@]}" "${mics[@]}" "${mics[@]}")
  cat "${mics[@]}" >/dev/null
  export OMP_NUM_THREADS=$threads
  for _ in 1 2 3; do
    last_three "$before" --apixM 1.34 --diameter 260 "$@" "${mics[@]}" >>"$work/before.log"
    last_three "$after" --apixM 1.34 --diameter 260 "$@" "${mics[@]}" >>"$work/after.log"
  done
  echo "$(stages "$work/before.log") $(stages "$work/after.log")" |
    awk -v label="$label" -v threads="$threads" '{ printf "%-34s %7d %8.3f %8.3f %8.3f %8.3f %8.3f %8.3f %7.2f\n", label,
      threads, $1, $2, $3, $4, $5, $6, ($1 + $2 + $3) / ($4 + $5 + $6) }' | tee -a "$out"
}

for size in 4096x4096 3838x3710; do
  build/kestrix_simulate --prefix "$work/m${size}_" --number 3 --nx ${size%x*} --ny ${size#*x} --apix 1.34 --diameter 260 \
    --apixT 2.68 --seed 7 >/dev/null
  for threads in 1 2; do
    row "automatic, $size" $size $threads
    row "8 templates, $size" $size $threads --T "$work/m${size}_templates.mrcs" --apixT 2.68
  done
done
echo "Written to $out"
