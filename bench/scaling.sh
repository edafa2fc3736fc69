#!/usr/bin/env bash
# How the time of PICKING grows with the number of templates, the number of angles and the working side:
#   bench/scaling.sh [OUTPUT]        (default output: build/bench/scaling.txt)
# One thread, micrographs from kestrix_simulate at 1.34 Å, 260 Å particles, templates of about 122 pixels at 2.68 Å.
# Each row is the least of three micrographs; `relative` is the time for each unit of what should be proportional
# (templates, angles, N² log N of the working side N) over that of the table's middle row: 1 where growth is linear.
set -eu
cd "$(dirname "$0")/.."
out=${1:-build/bench/scaling.txt}
tools/install_packages.sh build >/dev/null
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc)" --target kestrix kestrix_simulate >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$(dirname "$out")"
: >"$out"
export OMP_NUM_THREADS=1

simulate() { # SIDE TEMPLATES
  build/kestrix_simulate --prefix "$work/s$1_$2_" --number 3 --nx "$1" --ny "$1" --apix 1.34 --diameter 260 \
    --apixT 2.68 --templates "$2" --seed 7 >/dev/null
}

picking() { # SIDE TEMPLATES ANG_STEP: seconds of PICKING
  build/kestrix --apixM 1.34 --diameter 260 --T "$work/s4096_$2_templates.mrcs" --apixT 2.68 --ang_step "$3" \
    "$work/s$1_"*_00[123].mrc | awk '$2 == "PICKING:" { print $3 + 0 }' | sort -n | head -n 1
}

# table TITLE MIDDLE: rows "value units seconds" from standard input
table() {
  awk -v title="$1" -v middle="$2" '
    { value[NR] = $1; units[NR] = $2; seconds[NR] = $3; if ($1 == middle) unit = $3 / $2 }
    END { printf "%-24s %10s %10s\n", title, "PICKING s", "relative"
          for (i = 1; i <= NR; i++) printf "%-24s %10.3f %10.2f\n", value[i], seconds[i], seconds[i] / units[i] / unit
          print "" }' | tee -a "$out"
}

for templates in 1 2 4 8 16; do simulate 4096 $templates; done
for side in 1024 2048 3072 6144 8192; do simulate $side 2; done
rm -f "$work"/s4096_{1,4,8,16}_00[123].mrc  # the micrographs of the two templates serve them all

for templates in 1 2 4 8 16; do echo "$templates $templates $(picking 4096 $templates 5)"; done | table templates 4
for step in 40 20 10 5 2.5 1; do
  echo "$step $(awk -v step=$step 'BEGIN { for (a = 0; a < 359; a += step) n++; print n }') $(picking 4096 2 $step)"
done | table "angle step, degrees" 5
for side in 1024 2048 3072 4096 6144 8192; do
  echo "$((side / 4)) $(awk -v n=$((side / 4)) 'BEGIN { print n * n * log(n) }') $(picking $side 2 5)"
done | table "working side, pixels" 1024
echo "Written to $out"
