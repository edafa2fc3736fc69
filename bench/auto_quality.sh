#!/usr/bin/env bash
# How good the picks of --auto are, beside those of the defaults and, where templates are given, of the best cutoff that
# marks would let one choose:
#   bench/auto_quality.sh [--seed N] [--data FOLDER] [BUILD]     (seed 1, ../shared/data, build)
# Simulated: micrographs of 2560 x 2400 pixels of 2 Å with particles of 200 Å of five shapes, at two noise levels, clean
# and with ice and carbon; empty, sparse and crowded ones; with templates. Real: the micrographs of FOLDER, where it is;
# without it this part is skipped, which is said. F1 is the mean over micrographs; a pick is right within a quarter of the
# particle's diameter, one pick a mark. Last, what is left when parts of --auto are switched off.
set -eu
# shellcheck source=bench/quality.sh
. "$(dirname "$0")/quality.sh"
shapes="body ball shell barrel rod"
dirty="--ice 10 --carbon 0.12"

simulate() {
  for dirt in clean dirty; do
    local extra=""
    [ $dirt = dirty ] && extra=$dirty
    for shape in $shapes; do
      for snr in 0.05 0.025; do make "cases_${shape}_${snr}_$dirt" "$seed" --shape "$shape" --snr $snr $extra; done
    done
    for i in 1 2 3 4 5 6 7 8 9; do make "empty_${i}_$dirt" $((100 * seed + i)) --count 0 $extra; done
    for i in 1 2 3; do make "sparse-${dirt}_$i" $((100 * seed + i)) --count 15 --snr 0.1 $extra; done
    make "crowded-$dirt" "$seed" --coverage 0.4 --min_spacing 190 --snr 0.05 $extra
  done
  for shape in body barrel; do
    make "templates_$shape" "$seed" --shape $shape --snr 0.01 --templates 8 --apixT 4 --boxT 64
  done
}

# score GROUP APIX DIAMETER TRUTH LIST [AREAS]: GROUP picks F1
score() {
  "$build/kestrix_score" --brief --apix "$2" --diameter "$3" ${6:+--areas "$6"} "$4" "$5" |
    awk -v group="$1" '{ print group, $2, $6 }'
}

# pick_simulated GROUP OPTIONS...: picks the micrographs of a group; their scores, a line each
pick_simulated() {
  local group=$1
  shift
  for mic in "$work/$group"_*001.mrc; do
    local stem=${mic%.mrc} templates=""
    [ "$group" = templates ] && templates="--T ${stem%001}templates.mrcs --apixT 4"
    # shellcheck disable=SC2086
    "$build/kestrix" --apixM 2 --diameter 200 "$@" $templates "$mic" >"$work/log" 2>&1
    areas=""
    [ -e "${stem}_areas.star" ] && areas=${stem}_areas.star
    score "$group" 2 200 "${stem}_truth.star" "${stem}_quorlin.star" $areas
  done
}

mean() { awk '{ picks += $2; f1 += $3; n++ } END { if (n) printf "%.3f (%d)", f1 / n, n; else printf "-" }'; }
picks() { awk '{ picks += $2; n++ } END { printf "%d on %d", picks, n }'; }

simulated_row() {
  local label=$1 group=$2
  printf '| %s | %s | %s | %s | %s |\n' "$label" "$(pick_simulated "$group" | mean)" \
    "$(pick_simulated "$group" --auto 1 | mean)" "$(pick_simulated "$group" --auto 1 --diameter 160 | mean)" \
    "$(pick_simulated "$group" --auto 1 --diameter 250 | mean)"
}

# real_scores NAME APIX DIAMETER FACTOR OPTIONS...: scores of all micrographs of a folder; the box is as large as the
# particle, so that picks near the border count
real_scores() {
  local name=$1 apix=$2 diameter=$3 factor=$4
  shift 4
  local told box
  told=$(awk "BEGIN { print $diameter * $factor }")
  box=$(awk "BEGIN { print int($told / $apix) }")
  for mic in "$data/$name"/*.mrc; do
    local stem truth
    stem=$(basename "$mic" .mrc)
    ln -sf "$mic" "$work/real_$stem.mrc"
    "$build/kestrix" --apixM "$apix" --diameter "$told" --boxsize "$box" "$@" "$work/real_$stem.mrc" >"$work/log" 2>&1
    for truth in truth hand; do
      [ -e "$data/$name/${stem}_$truth.star" ] || continue
      score "$truth" "$apix" "$diameter" "$data/$name/${stem}_$truth.star" "$work/real_${stem}_quorlin.star"
      [ $truth = truth ] || continue
      inner_marks "$mic" "$data/$name/${stem}_truth.star" "$apix" "$diameter" >"$work/inner.star"
      score inner "$apix" "$diameter" "$work/inner.star" "$work/real_${stem}_quorlin.star"
    done
  done
}

# inner_marks MIC STAR APIX DIAMETER: the marks at least half a diameter from the border
inner_marks() {
  od -An -tu4 -N8 "$1" | awk -v margin="$(awk "BEGIN { print $4 / 2 / $3 }")" '
    NR == FNR { nx = $1; ny = $2; next }
    NF < 2 || $1 !~ /^[0-9]/ { print; next }
    $1 >= margin && $2 >= margin && $1 < nx - margin && $2 < ny - margin' - "$2"
}

real_row() {
  local label=$1 kind=$2
  shift 2
  printf '| %s | %s |' "$label" "$(real_scores "$1" "$2" "$3" 1 | grep "^$kind" | mean)"
  for factor in 1 0.8 1.25; do
    printf ' %s |' "$(real_scores "$1" "$2" "$3" $factor --auto 1 | grep "^$kind" | mean)"
  done
  printf '\n'
}

kinds() {
  echo
  echo "Picks on data/micrograph_kinds (first digit: 0 great, 1 decent, 2 contamination, 3 empty, 4 crystalline ice, 5 vitreous ice):"
  echo
  echo "| micrograph | defaults, D 128 | --auto, D 128 | --auto, D 192 |"
  echo "|---|---|---|---|"
  for mic in "$data"/micrograph_kinds/*.mrc; do
    ln -sf "$mic" "$work/kind.mrc"
    printf '| %s |' "$(basename "$mic" | cut -c1-12)"
    for options in "--diameter 128" "--diameter 128 --auto 1" "--diameter 192 --auto 1"; do
      # shellcheck disable=SC2086
      "$build/kestrix" --apixM 8 $options "$work/kind.mrc" >"$work/log" 2>&1
      printf ' %d |' "$(wc -l <"$work/kind_quorlin.box")"
    done
    echo
  done
}

# ablation LABEL OPTIONS...: what is left when a part is switched off
ablation() {
  local label=$1 real="-"
  shift
  [ -d "$data/apoferritin" ] && real=$(real_scores beta_galactosidase 3.54 180 1.25 --auto 1 "$@" | grep ^truth | mean)
  printf '| %s | %s | %s | %s | %s | %s |\n' "$label" "$(pick_simulated cases --auto 1 "$@" | mean)" \
    "$(pick_simulated sparse-dirty --auto 1 "$@" | mean)" "$(pick_simulated crowded-clean --auto 1 "$@" | mean)" \
    "$(pick_simulated empty --auto 1 "$@" | picks)" "$real"
}

ablations() {
  echo
  echo "| left out | 20 cases | 15 alone, dirty | crowded | picks on empty ones | β-galactosidase, D x 1.25 |"
  echo "|---|---|---|---|---|---|"
  ablation "nothing"
  ablation "the map of ice (cells with fixed limits, \`--robust_ice 0\`)" --robust_ice 0
  ablation "sizes and the mean (a ball of D, \`--learn_template 0\`)" --learn_template 0
  ablation "the cutoff (fixed, \`--cc_cutoff 4.5\`)" --cc_cutoff 4.5
}

simulate
echo "Seed $seed."
echo
echo "| micrographs | defaults | --auto 1 | D x 0.8 | D x 1.25 |"
echo "|---|---|---|---|---|"
simulated_row "simulated, 20 cases" cases
for dirt in clean dirty; do simulated_row "15 strong particles alone, $dirt" sparse-$dirt; done
for dirt in clean dirty; do simulated_row "crowded, touching, $dirt" crowded-$dirt; done
simulated_row "eight templates, lumpy and hollow, low signal" templates
if [ -d "$data/apoferritin" ]; then
  real_row "apoferritin, all marks" truth apoferritin 1.5 125
  real_row "apoferritin, marks away from the border" inner apoferritin 1.5 125
  real_row "ribosome" truth ribosome 5.36 300
  real_row "β-galactosidase" truth beta_galactosidase 3.54 180
  real_row "β-galactosidase, the second person's marks" hand beta_galactosidase 3.54 180
fi
echo
echo "18 empty simulated micrographs, clean and with ice: $(pick_simulated empty --auto 1 | picks) with --auto," \
  "$(pick_simulated empty | picks) with the defaults."
if [ -d "$data/micrograph_kinds" ]; then kinds; else echo "SKIPPED: no real micrographs, as there is no folder --data."; fi
ablations
