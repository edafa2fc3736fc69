#!/usr/bin/env bash
# From a fresh Debian machine to picked particles: installs what is missing, builds, simulates two micrographs with
# known particles, picks them once with the automatic template and once with templates, and scores the picks.
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
if [ ! -e "$data/mic_templates.mrcs" ]; then
  echo "Simulating two 4096 x 4096 micrographs ($data/) ..."
  build/kestrix_simulate --prefix "$data/mic_" --micrographs 2 --apix $apix --diameter $diameter --seed 1 \
    --templates 8 --template_apix 2.68 >/dev/null
fi

# pick LABEL OPTIONS...: runs the picker, prints one row of the table for each micrograph
pick() {
  local label=$1
  shift
  build/kestrix --apixM $apix --diameter $diameter "$@" "$data"/mic_0*[0-9].mrc >"$data/$label.log"
  local seconds
  seconds=$(awk '/READING|NORMALIZATION|PICKING/ { s += $2 } END { printf "%.2f", s / 2 }' "$data/$label.log")
  for mic in "$data"/mic_0*[0-9].mrc; do
    cp "${mic%.mrc}_quorlin.star" "${mic%.mrc}_$label.star"
    read -r true_n picks precision recall < <(build/kestrix_score --brief "${mic%.mrc}_truth.star" \
      "${mic%.mrc}_quorlin.star" --apix $apix --diameter $diameter)
    printf '%-14s %-16s %6s %6s %10s %8s %10s\n' "$(basename "$mic")" "$label" "$true_n" "$picks" "$precision" \
      "$recall" "$seconds"
  done
}

echo "Picking ..."
printf '\n%-14s %-16s %6s %6s %10s %8s %10s\n' micrograph templates true picks precision recall 's each'
pick automatic --cc_cutoff 0.15
pick 8_templates --cc_cutoff 0.15 --T "$data/mic_templates.mrcs" --apixT 2.68

echo
echo "Micrographs, lists and logs lie in $data/: NAME_quorlin.box (EMAN), NAME_quorlin.star (RELION) and more."
