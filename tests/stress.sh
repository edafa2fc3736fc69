#!/usr/bin/env bash
# Two runs at once in one folder, and kills at random moments, many times over:
#   tests/stress.sh [ROUNDS [KILLS]]        (default: 200 rounds of two runs, 100 kills)
# No run may die, no list may ever be seen empty, and a resumed run must leave the files of an undisturbed one, byte for byte.
set -eu
cd "$(dirname "$0")/.."
rounds=${1:-200} kills=${2:-100}
tools/install_packages.sh build >/dev/null
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc)" --target kestrix kestrix_simulate >/dev/null
program=$PWD/build/kestrix
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
"$OLDPWD/build/kestrix_simulate" --number 4 --nx 1024 --ny 900 --apix 4 --dose 10 --templates 0 --seed 3 >/dev/null
inputs=(sim_00?.mrc)
options=(--apixM 4 --diameter 260 --speed 1 --cc_cutoff 0.25 --extract_raw 1 --write_pref_mic 1 --write_mic_mask 1 --write_bgfree_mic 1
  --write_ccmax_mic 1 --write_bg_mic 1 --write_lsigma_mic 1)

# sums: of all outputs; unfinished files and marks don't count
sums() { find . -maxdepth 1 -type f -name 'sim_*_*' ! -name '*_truth.star' ! -name '*~' -exec md5sum {} + | sort -k 2; }
outputs() { find . -maxdepth 1 -type f \( -name 'sim_*_*' -o -name '.kx_*' \) ! -name '*_truth.star' "$@"; }

"$program" "${options[@]}" "${inputs[@]}" >/dev/null
clean=$(sums)

deaths=0 empty=0 looks=0 different=0
for ((round = 0; round < rounds; round++)); do
  outputs -delete
  "$program" "${options[@]}" "${inputs[@]}" >/dev/null & first=$!
  "$program" "${options[@]}" "${inputs[@]}" >/dev/null & second=$!
  while kill -0 $first 2>/dev/null || kill -0 $second 2>/dev/null; do
    looks=$((looks + 1))
    empty=$((empty + $(find . -maxdepth 1 -name '*_quorlin.*' ! -name '*~' -empty | wc -l)))
  done
  wait $first || deaths=$((deaths + 1))
  wait $second || deaths=$((deaths + 1))
  [ "$(sums)" = "$clean" ] || different=$((different + 1))
done
echo "$rounds rounds of two runs: $deaths runs died, $different rounds with other files, $empty empty lists in $looks looks"

killed=0 unequal=0
for ((kill = 0; kill < kills; kill++)); do
  outputs -delete
  "$program" "${options[@]}" "${inputs[@]}" >/dev/null & run=$!
  sleep "0.$(printf '%03d' $((RANDOM % 350)))"
  kill -9 $run 2>/dev/null && killed=$((killed + 1))
  wait $run 2>/dev/null || true
  "$program" "${options[@]}" --do_unfinished 1 "${inputs[@]}" >/dev/null
  [ "$(sums)" = "$clean" ] || unequal=$((unequal + 1))
done
echo "$kills kills at random moments ($killed in time): $unequal resumed runs with other files"
[ $((deaths + different + empty + unequal)) -eq 0 ]
