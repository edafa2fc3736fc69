#!/usr/bin/env bash
# How long --auto takes beside the fixed ways, in one run on the same micrographs, reading included:
#   bench/auto_speed.sh [BUILD]                                             (default: build)
# For each number of threads the medians of READING + NORMALIZATION + PICKING per micrograph, in seconds, of five rounds in
# turn, and the ratios: without templates over the automatic template (at most 2.5 is asked for); with eight templates
# over the same scan with maps at the same working pixel (at most 1.25).
set -eu
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$build/kestrix_simulate" --prefix "$work/mic_" --number 3 --nx 4096 --ny 4096 --apix 1.34 --diameter 260 --apixT 2.68 \
  --boxT 128 --seed 7 >/dev/null
templates="--T $work/mic_templates.mrcs --apixT 2.68"

# once NAME OPTIONS...: one round of a way; a line with the seconds of each micrograph
once() {
  local name=$1
  shift
  "$build/kestrix" --apixM 1.34 --diameter 260 "$@" "$work"/mic_00[123].mrc 2>/dev/null |
    awk '/(READING|NORMALIZATION|PICKING):/ { s += $NF } /PICKING:/ { print s; s = 0 }' >>"$work/$name"
}
median() { sort -n "$work/$1" | awk '{ v[NR] = $1 } END { printf "%.3f", v[int((NR + 1) / 2)] }'; }

printf '%7s %10s %10s %7s %12s %12s %7s\n' threads automatic auto ratio 'eight, maps' 'eight, auto' ratio
for threads in 1 $(nproc); do
  export OMP_NUM_THREADS=$threads
  rm -f "$work"/fixed "$work"/auto "$work"/maps "$work"/eight
  for _ in 1 2 3 4 5; do
    once fixed --cc_cutoff 0.25
    once auto --auto 1
    once maps --speed 4 --cc_cutoff 0.35 --write_ccmax_mic 1 $templates
    once eight --auto 1 --speed 4 $templates
  done
  awk -v t="$threads" -v a="$(median fixed)" -v b="$(median auto)" -v c="$(median maps)" -v d="$(median eight)" \
    'BEGIN { printf "%7d %10s %10s %7.2f %12s %12s %7.2f\n", t, a, b, b / a, c, d, d / c }'
done
