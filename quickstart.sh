#!/usr/bin/env bash
# From a fresh Debian machine to picked particles: installs what is missing, builds, simulates two micrographs with
# known particles, picks them with settings by hand and without tuning (--auto), with templates and without, scores the
# picks, and makes a page to look at the last ones.
# Safe to run again; everything it makes lies in build/ and quickstart-data/.
set -eu
cd "$(dirname "$0")"
data=quickstart-data
apix=1.34
diameter=260

tools/install_packages.sh build

echo "Building (build/) ..."
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DKESTRIX_TESTS=OFF -DKESTRIX_BENCH=OFF >/dev/null
cmake --build build -j "$(nproc)" >/dev/null

mkdir -p "$data"
if [ ! -e "$data/mic_templates.mrcs" ] || [ ! -e "$data/mic_002_truth.star" ]; then
  echo "Simulating two 4096 x 4096 micrographs ($data/) ..."
  build/kestrix_simulate --prefix "$data/mic_" --number 2 --apix $apix --diameter $diameter --apixT 2.68 --boxT 128 --seed 1 \
    >"$data/simulate.log"
fi

# pick LABEL OPTIONS...: runs the picker and prints one row of the table for each micrograph
pick() {
  local label=$1
  shift
  build/kestrix --apixM $apix --diameter $diameter "$@" "$data/mic_001.mrc" "$data/mic_002.mrc" >"$data/$label.log"
  local seconds
  seconds=$(awk '/(READING|NORMALIZATION|PICKING):/ { s += $NF } END { printf "%.2f", s / 2 }' "$data/$label.log")
  for name in mic_001 mic_002; do
    cp "$data/${name}_quorlin.star" "$data/${name}_$label.star"
    build/kestrix_score --brief "$data/${name}_truth.star" "$data/${name}_quorlin.star" --apix $apix \
      --diameter $diameter |
      awk -v name="$name.mrc" -v label="$label" -v seconds="$seconds" \
        '{ printf "%-12s %-12s %6d %6d %10.2f %8.2f %18s\n", name, label, $1, $2, $4, $5, seconds }'
  done
}

echo "Picking ..."
printf '\n%-12s %-12s %6s %6s %10s %8s %18s\n' micrograph templates true picks precision recall 's per micrograph'
pick eight --cc_cutoff 0.35 --T "$data/mic_templates.mrcs" --apixT 2.68
pick automatic --cc_cutoff 0.25
pick auto-eight --auto 1 --T "$data/mic_templates.mrcs" --apixT 2.68
pick auto --auto 1
build/kestrix_report --apixM $apix --diameter $diameter --out "$data/report" "$data/mic_001.mrc" "$data/mic_002.mrc" \
  >"$data/report.log"

echo
echo "Micrographs, lists and logs lie in $data/: NAME_quorlin.box (EMAN), NAME_quorlin.star (RELION) and more;"
echo "NAME_auto.star, NAME_auto-eight.star, NAME_automatic.star and NAME_eight.star keep the lists of the runs."
echo "The page of the last picks, for any browser: $PWD/$data/report/index.html"
