#!/usr/bin/env bash
# Picks eleven micrographs of different sizes and settings by the host's own ways and by the device's (batched FFTW
# transforms of the whole images, what the program started from), and compares the final lists pick by pick:
#   bench/compare_ways.sh [MICROGRAPH APIX DIAMETER]
# The micrograph, where one is given, is picked as well. Exit status 0 if all picks are the same but for ties.
set -eu
cd "$(dirname "$0")/.."
tools/install_packages.sh build test >/dev/null
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DKESTRIX_TESTS=ON >/dev/null
cmake --build build -j "$(nproc)" --target kestrix_faulty kestrix_simulate >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/own" "$work/device"
declare -A switch=([own]= [device]=gpu_road)  # of the program whose device does as a test says

# pick NAME OPTIONS...: both ways, each in its own folder
pick() {
  local name=$1
  shift
  for way in own device; do
    ln -sf "$work/$name.mrc" "$work/$way/$name.mrc"
    KESTRIX_TEST_FAULTS=${switch[$way]} build/tests/kestrix_faulty "$@" "$work/$way/$name.mrc" >"$work/$way/$name.log" || tail -n 3 "$work/$way/$name.log"
  done
  printf '%s: %s\n' "$name" "$*" | sed "s|$work/||g"
}

# simulate NAME NX NY MODE DIAMETER SEED
simulate() {
  build/kestrix_simulate --prefix "$work/$1_" --number 1 --nx "$2" --ny "$3" --mode "$4" --apix 1.34 \
    --diameter "$5" --apixT 2.68 --dose 90 --seed "$6" --ice 4 >/dev/null
  mv "$work/$1_001.mrc" "$work/$1.mrc"
}

# both NAME NX NY MODE DIAMETER SEED OPTIONS...: with the eight templates that belong to the micrograph
both() {
  simulate "${@:1:6}"
  pick "$1" --apixM 1.34 --diameter "$5" --T "$work/$1_templates.mrcs" --apixT 2.68 "${@:7}"
}

both square 4096 4096 2 260 1
both square_int16 4096 4096 1 260 2
both awkward 3838 3710 2 260 3
both wide 5760 4092 2 260 4 --ang_step 10
both fine 2048 2048 2 180 5 --speed 1
both coarse 4096 4096 2 400 6 --speed 4
both many_angles 2500 2400 2 190 11 --ang_step 3
both wide_band 3000 3000 2 200 8 --lp 15 --hp 500
both unfiltered 2400 2000 2 220 9 --do_bandpass 0
simulate automatic 4096 4000 2 260 10
pick automatic --apixM 1.34 --diameter 260
if [ $# -eq 3 ]; then
  cp "$1" "$work/given.mrc"
  pick given --apixM "$2" --diameter "$3" --speed 1
fi
tools/compare_picks.sh "$work/own" "$work/device" 0.00002
