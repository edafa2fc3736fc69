#!/usr/bin/env bash
# What --learn_from finds in sessions of sparse micrographs, beside --auto 1 alone:
#   bench/learn_from.sh [--seed N] [--data FOLDER] [--from N] [BUILD]     (seed 1, ../shared/data, 24, build)
# Simulated: sessions of 24 micrographs of 2560 x 2400 pixels of 2 Å, 20 with 8 to 12 particles of 200 Å and 4 empty ones,
# of four shapes, at low and very low signal, clean and with ice and carbon; sessions of empty ones; ordinary sessions.
# Real: the micrographs of FOLDER, where it is; without it this part is skipped, which is said. Columns: F1, precision and
# recall over all micrographs of the session, and picks on its empty ones, by --auto 1 and with --learn_from.
set -eu
# shellcheck source=bench/quality.sh
. "$(dirname "$0")/quality.sh"

# pooled: scores of micrographs, a line each, as F1 (precision / recall), and picks on empty ones
pooled() {
  awk '{ marks += $1 - $10; picks += $2; right += $3; if ($1 == 0) empty += $2 }
    END { printf "%.3f (%.2f / %.2f) | %d", marks + picks ? 2 * right / (marks + picks) : 0, picks ? right / picks : 1,
      marks ? right / marks : 1, empty }'
}

# score_session FOLDER OPTIONS...: picks the micrographs of the folder work and scores them
score_session() {
  "$build/kestrix" --apixM 2 --diameter 200 --auto 1 --odir "$work/out" "$@" "$work"/m??_001.mrc >"$work/log" 2>"$work/errors"
  for mic in "$work"/m??_001.mrc; do
    local stem areas=""
    stem=$(basename "$mic" .mrc)
    [ -e "$work/${stem}_areas.star" ] && areas="--areas $work/${stem}_areas.star"
    # shellcheck disable=SC2086
    "$build/kestrix_score" --brief --apix 2 --diameter 200 $areas "$work/${stem}_truth.star" \
      "$work/out/${stem}_quorlin.star"
  done | pooled
}

session_row() {
  printf '| %s | %s |' "$1" "$(score_session)"
  printf ' %s |\n' "$(score_session --learn_from "$from")"
  rm -f "$work"/m??_* "$work"/out/*
}

# sparse SHAPE SNR OPTIONS...: a session
sparse() {
  number=$((number + 1))
  for i in $(seq 1 24); do
    local count=$((8 + i * 7 % 5))
    case $i in 4 | 10 | 15 | 21) count=0 ;; esac
    make "m$(printf %02d "$i")" $((100000 * seed + 100 * number + i)) --shape "$1" --snr "$2" --count $count "${@:3}"
  done
}

simulated() {
  local dirt="--ice 6 --carbon 0.08" snr shape
  number=0
  for shape in body barrel shell rod; do
    for snr in 0.012 0.006; do
      sparse $shape $snr
      session_row "$shape, $snr"
      # shellcheck disable=SC2086
      [ $shape = rod ] || { sparse $shape $snr $dirt && session_row "$shape, $snr, ice and carbon"; }
    done
  done
  sparse body 0.012 --count 0
  session_row "all empty"
  # shellcheck disable=SC2086
  sparse body 0.012 --count 0 $dirt
  session_row "all empty, ice and carbon"
  for shape in body barrel; do
    for i in 1 2 3 4 5 6 7 8; do
      make "m0${i}" $((100000 * seed + 9000 + i)) --shape $shape --snr 0.025 --coverage 0.2
    done
    session_row "ordinary, some 140 particles, $shape"
  done
}

# real_scores NAME APIX DIAMETER OPTIONS...
real_scores() {
  local name=$1 apix=$2 diameter=$3 box
  shift 3
  box=$(awk "BEGIN { print int($diameter / $apix) }")
  "$build/kestrix" --apixM "$apix" --diameter "$diameter" --boxsize "$box" --auto 1 --keep_going 1 --odir "$work/out" "$@" \
    "$data/$name"/*.mrc >"$work/log" 2>"$work/errors"
  for mic in "$data/$name"/*.mrc; do
    local stem
    stem=$(basename "$mic" .mrc)
    "$build/kestrix_score" --brief --apix "$apix" --diameter "$diameter" "$data/$name/${stem}_truth.star" \
      "$work/out/${stem}_quorlin.star"
  done | pooled
  rm -f "$work"/out/*
}

real_row() { printf '| %s | %s | %s |\n' "$1" "$(real_scores "$@")" "$(real_scores "$@" --learn_from "$from")"; }

# Picks on each kind of micrograph; the pixel size is not known.
kinds() {
  local options kind
  echo
  echo "Picks by kind (0 great, 1 decent, 2 contamination, 3 empty, 4 crystalline ice, 5 vitreous ice), D 128:"
  for options in "" "--learn_from $from"; do
    # shellcheck disable=SC2086
    "$build/kestrix" --apixM 8 --diameter 128 --auto 1 --keep_going 1 --odir "$work/out" $options \
      "$data"/micrograph_kinds/*.mrc >"$work/log" 2>"$work/errors"
    printf '%s:' "--auto 1${options:+ $options}"
    for kind in 0 1 2 3 4 5; do
      printf ' %d: %d' $kind "$(cat "$work"/out/${kind}*_quorlin.box 2>/dev/null | wc -l)"
    done
    echo
    rm -f "$work"/out/*
  done
}

echo "Seed $seed, learned from $from micrographs."
echo
echo "| session | --auto 1: F1 (precision / recall) | on empty | --learn_from $from | on empty |"
echo "|---|---|---|---|---|"
simulated
if [ -d "$data/apoferritin" ]; then
  real_row apoferritin 1.5 125
  real_row ribosome 5.36 300
  real_row beta_galactosidase 3.54 180
  kinds
else
  echo "SKIPPED: no real micrographs, as there is no folder --data."
fi
