#!/usr/bin/env bash
# Precision and recall on simulated micrographs with ice and carbon at three signal-to-noise ratios, with and without
# the detection of ice, with the automatic template and with eight templates: ice_and_snr.sh [BUILD [DIR]]
# Each case is picked once at a low --cc_cutoff; the lists are then cut at every cutoff of the scan, which gives the
# list that the picker writes at that cutoff (checked here at the best one). Prints a table as Markdown.
# MICROGRAPHS (3), SIDE (4096), RATIOS ("0.008 0.015 0.03") and CUTOFFS can be set from outside.
set -eu
build=${1:-build}
data=${2:-ice-and-snr-data}
micrographs=${MICROGRAPHS:-3}
side=${SIDE:-4096}
ratios=${RATIOS:-0.008 0.015 0.03}
cutoffs=${CUTOFFS:-0.10 0.15 0.20 0.25 0.30 0.35 0.40 0.45 0.50 0.55 0.60 0.65 0.70}
apix=1.34
diameter=260
lowest=0.05
mkdir -p "$data"

# names of the condition's micrographs, without suffix
names() { for i in $(seq "$micrographs"); do printf '%s/mic_%03d\n' "$data" "$i"; done; }

simulate() {
  "$build/kestrix_simulate" --prefix "$data/mic_" --number "$micrographs" --nx "$side" --ny "$side" --apix $apix \
    --diameter $diameter --apixT 2.68 --boxT 128 --snr "$1" --ice 12 --carbon 0.12 --seed 7 >"$data/simulate.log"
}

# pick CUTOFF OPTIONS...: runs the picker on all micrographs of the condition
pick() {
  local cutoff=$1
  shift
  names | sed 's/$/.mrc/' | xargs "$build/kestrix" --apixM $apix --diameter $diameter --cc_cutoff "$cutoff" "$@" \
    >"$data/pick.log"
}

# totals CUTOFF: particles, picks, matched picks, picks within ice or carbon, sum of offsets, over all micrographs
totals() {
  names | while read -r name; do
    awk -v cutoff="$1" '$5 >= cutoff' "${name}_quorlin.box" >"$data/cut.box"
    "$build/kestrix_score" --brief --apix $apix --diameter $diameter --areas "${name}_areas.star" \
      "${name}_truth.star" "$data/cut.box"
  done | awk '{ particles += $1; picks += $2; matched += $3; on += $12
                if ($3 > 0) { dx += $3 * $7; dy += $3 * $8 } }
              END { print particles, picks, matched, on, dx, dy }'
}

# row LABEL RATIO DETECT: one row of the table from the lists picked at the lowest cutoff
row() {
  for cutoff in $cutoffs; do echo "$cutoff $(totals "$cutoff")"; done |
    awk -v label="$1" -v ratio="$2" -v detect="$3" -v chosen="$data/best_cutoff" '
      function share(part, whole) { return whole > 0 ? part / whole : 0 }
      { precision = share($4, $3); recall = share($4, $2)
        f1 = precision + recall > 0 ? 2 * precision * recall / (precision + recall) : 0
        text = sprintf("%.3f | %.3f | %d | %d", precision, recall, $3, $5)
        if ($1 == "0.15") standard = text
        if (f1 > best) { best = f1; at = $1; shown = text; offset = sprintf("%+.1f %+.1f", share($6, $4), share($7, $4)) } }
      END { printf "| %s | %s | %s | %s | %s | %s | %s |\n", ratio, label, detect, at, shown, offset, standard
            print at >chosen }'
}

# check that the list cut at the best cutoff is the list picked at it
check_cut() {
  local cutoff
  cutoff=$(cat "$data/best_cutoff")
  names | while read -r name; do awk -v cutoff="$cutoff" '$5 >= cutoff' "${name}_quorlin.box" >"${name}_cut.txt"; done
  pick "$cutoff" "$@"
  names | while read -r name; do
    cmp -s "${name}_cut.txt" "${name}_quorlin.box" || echo "$name: cut and picked lists differ at $cutoff" >&2
  done
}

echo "| SNR | templates | --detect_ice | best cutoff | precision | recall | picks | on ice, carbon | offset x y, pixels |" \
  "precision at 0.15 | recall | picks | on ice, carbon |"
echo "|---|---|---|---|---|---|---|---|---|---|---|---|---|"
for ratio in $ratios; do
  simulate "$ratio"
  for detect in 0 1; do
    for templates in automatic eight; do
      options=(--detect_ice $detect)
      [ $templates = eight ] && options+=(--T "$data/mic_templates.mrcs" --apixT 2.68)
      pick $lowest "${options[@]}"
      row $templates "$ratio" $detect
      check_cut "${options[@]}"
    done
  done
done
