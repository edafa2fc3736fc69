#!/usr/bin/env bash
# READING of eight float micrographs of 4096 x 4096 that the page cache doesn't hold, by one run for all of them, which has
# the next one fetched while one is picked, and by a run for each, which can't:
#   bench/cold_cache.sh [PROGRAM...]        (default: build/kestrix)
# Medians in seconds of three rounds by turns, the first micrograph of each run of all of them left out; beside them the same
# with a warm cache. WORK=folder says where the micrographs are put: the disk to measure.
set -eu
cd "$(dirname "$0")/.."
tools/install_packages.sh build >/dev/null
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc)" --target kestrix kestrix_simulate >/dev/null
programs=("${@:-build/kestrix}")
work=$(mktemp -d -p "${WORK:-${TMPDIR:-/tmp}}")
trap 'rm -rf "$work"' EXIT
build/kestrix_simulate --prefix "$work/m_" --number 8 --nx 4096 --ny 4096 --apix 1.34 --diameter 260 --apixT 2.68 \
  --templates 2 --seed 7 >/dev/null
sync
mics=("$work"/m_00[1-8].mrc)
options=(--apixM 1.34 --diameter 260 --T "$work/m_templates.mrcs" --apixT 2.68)

forget() { for mic in "${mics[@]}"; do dd if="$mic" iflag=nocache count=0 status=none; done; }
readings() { awk '$2 == "READING:" { print $3 + 0 }'; }

for _ in 1 2 3; do
  for program in "${programs[@]}"; do
    name=${program//\//_}
    forget
    "$program" "${options[@]}" "${mics[@]}" | readings | tail -n +2 >>"$work/$name.list"
    forget
    for mic in "${mics[@]:1}"; do "$program" "${options[@]}" "$mic" | readings; done >>"$work/$name.each"
    cat "${mics[@]}" >/dev/null
    "$program" "${options[@]}" "${mics[@]}" | readings | tail -n +2 >>"$work/$name.warm"
  done
done
printf '%-40s %10s %10s %10s\n' 'READING, median seconds' 'one run' 'run each' 'warm'
for program in "${programs[@]}"; do
  printf '%-40s' "$program"
  for kind in list each warm; do
    sort -n "$work/${program//\//_}.$kind" | awk '{ v[NR] = $1 } END { printf " %10.3f", v[int((NR + 1) / 2)] }'
  done
  echo
done
