#!/usr/bin/env bash
# Times whole runs on simulated micrographs and prints a table of ratios to what was measured in the same run:
#   bench/picking.sh [--quick] [--no-relion] [OUTPUT]        (default output: build/bench/picking.txt)
# --quick leaves out the larger sizes and the other speeds. RELION (Debian package relion) is timed beside it on the
# same micrograph with the same references where it is installed. Lists are of 3 micrographs, and those of a session of 30.
#
# Columns: READ NORM PICK are the program's own stage times per micrograph in seconds (median of the last three), then
#   norm/pair   NORM over one transform pair of the padded image (same threads)
#   pick/floor  PICK over the inverse transforms of all angles and templates, each core running its own, planned by FFTW
#               as well as it can (automatic template: one transform)
#   all/read    READ + NORM + PICK over reading the file and averaging its blocks
#   peak MiB    largest resident size of the run
set -eu
cd "$(dirname "$0")/.."

quick=0
relion=1
out=build/bench/picking.txt
for argument in "$@"; do
  case $argument in
    --quick) quick=1 ;;
    --no-relion) relion=0 ;;
    *) out=$argument ;;
  esac
done

tools/install_packages.sh build test >/dev/null
cmake -S . -B build -DKESTRIX_BENCH=ON >/dev/null
cmake --build build -j "$(nproc)" --target kestrix kestrix_simulate kestrix_floors >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# simulate NAME NX NY MODE: three micrographs and the templates
simulate() {
  build/kestrix_simulate --prefix "$work/$1_" --number 3 --nx "$2" --ny "$3" --mode "$4" --apix 1.34 --diameter 260 \
    --apixT 2.68 --seed 7 >/dev/null
}

# The same micrographs again and again: session NAME OF COUNT
session() {
  local i
  for ((i = 0; i < $3; i++)); do ln -s "$2_00$((i % 3 + 1)).mrc" "$work/$1_$(printf %03d $((i + 1))).mrc"; done
}

# median of the last values of one stage in a log
stage() { awk -v stage="$1:" '$2 == stage { print $3 + 0 }' "$2" | tail -n 3 | sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

# row LABEL NAME SPEED SHRINK THREADS TRANSFORMS OPTIONS...
row() {
  local label=$1 name=$2 speed=$3 shrink=$4 threads=$5 transforms=$6
  shift 6
  export OMP_NUM_THREADS=$threads
  /usr/bin/time -f %M -o "$work/peak" build/kestrix --apixM 1.34 --diameter 260 --speed "$speed" "$@" \
    "$work/$name"_0??.mrc >"$work/log"
  build/bench/kestrix_floors "$work/${name}_001.mrc" "$shrink" "$transforms" "$work/wisdom" >"$work/floors"
  awk -v label="$label" -v threads="$threads" -v r="$(stage READING "$work/log")" \
    -v n="$(stage NORMALIZATION "$work/log")" -v p="$(stage PICKING "$work/log")" -v peak="$(cat "$work/peak")" '
    { floor[$1] = $2 }
    END { printf "%-34s %7d %7.3f %7.3f %7.3f %9.2f %10.2f %9.2f %9.0f\n", label, threads, r, n, p, n / floor["padded_pair"],
          p / floor["inverse_transforms"], (r + n + p) / floor["read_and_average"], peak / 1024 }' "$work/floors" | tee -a "$out"
}

# seconds COMMAND...: wall time
seconds() {
  local start
  start=$(date +%s.%N)
  "$@" >/dev/null 2>&1
  awk -v a="$start" -v b="$(date +%s.%N)" 'BEGIN { print b - a }'
}

# Per micrograph without start-up: what two more micrographs take beyond one, halved; in a session what eighteen take beyond
# twelve. The seconds for 1 and 3 of RELION's, for 1, 3, 12 and 30 of ours.
peer_row() {
  awk -v label="$1" -v one="$2" -v three="$3" -v ours_one="$4" -v ours_three="$5" -v twelve="$6" -v thirty="$7" 'BEGIN {
    peer = (three - one) / 2; ours = (ours_three - ours_one) / 2; session = (thirty - twelve) / 18
    printf "%-24s %7.2f s per micrograph, ours %.3f s: %.0f times; in a session %.3f s: %.0f times; with start-up %.0f times\n",
      label, peer, ours, peer / ours, session, peer / session, one / ours_one }' | tee -a "$out"
}

autopick() { # THREADS MICROGRAPHS...
  local n=$1
  shift
  local run=(relion_autopick)
  [ "$n" -eq 1 ] || run=(mpirun --allow-run-as-root --oversubscribe -n "$n" relion_autopick_mpi)
  "${run[@]}" --i "$work/list$#.star" --odir "$work/peer/" --ref "$work/b_templates.mrcs" --angpix 1.34 \
    --angpix_ref 2.68 --particle_diameter 260 --ang 5 --shrink 0.25 --lowpass 40 --invert
}

star_list() { # COUNT: a STAR list of that many micrographs
  {
    printf '\n# version 30001\n\ndata_optics\n\nloop_\n_rlnOpticsGroupName #1\n_rlnOpticsGroup #2\n'
    printf '_rlnMicrographOriginalPixelSize #3\n_rlnVoltage #4\n_rlnSphericalAberration #5\n_rlnAmplitudeContrast #6\n'
    printf '_rlnMicrographPixelSize #7\ngroup1 1 1.34 300 2.7 0.1 1.34\n\n'
    printf '\n# version 30001\n\ndata_micrographs\n\nloop_\n_rlnMicrographName #1\n_rlnOpticsGroup #2\n'
    for mic in "$work"/b_00[123].mrc; do echo "$mic 1"; done | head -n "$1"
  } >"$work/list$1.star"
}

ours() { # THREADS MICROGRAPHS...
  local n=$1
  shift
  OMP_NUM_THREADS=$n build/kestrix --apixM 1.34 --diameter 260 --T "$work/b_templates.mrcs" --apixT 2.68 "$@"
}

mkdir -p "$(dirname "$out")"
: >"$out"
printf '%-34s %7s %7s %7s %7s %9s %10s %9s %9s\n' run threads READ NORM PICK norm/pair pick/floor all/read 'peak MiB' | tee -a "$out"
simulate b 4096 4096 2
session s b 30
templates=(--T "$work/b_templates.mrcs" --apixT 2.68)
for threads in 1 2; do
  row "(a) automatic, 4096 x 4096" b 2 4 $threads 1
  row "(b) 8 templates, 4096 x 4096" b 2 4 $threads 576 "${templates[@]}"
  row "(b) in a session" s 2 4 $threads 576 "${templates[@]}"
done
simulate i 4096 4096 1
row "(b) int16" i 2 4 2 576 "${templates[@]}"
for size in 3838x3710 5760x4092 7676x7420; do
  [ $quick -eq 0 ] || [ $size = 3838x3710 ] || continue
  simulate c ${size%x*} ${size#*x} 2
  for threads in 1 2; do row "(c) 8 templates, $size" c 2 4 $threads 576 "${templates[@]}"; done
done
if [ $quick -eq 0 ]; then
  row "(b) --speed 1" b 1 2 2 576 "${templates[@]}"
  row "(b) --speed 4" b 4 8 2 576 "${templates[@]}"
fi

if [ $relion -eq 1 ] && command -v relion_autopick >/dev/null; then
  for n in 1 3; do star_list $n; done
  mics=("$work"/b_00[123].mrc)
  more=("$work"/s_0??.mrc)
  for threads in 1 2; do
    peer_row "RELION, $threads process(es)" "$(seconds autopick $threads "${mics[0]}")" \
      "$(seconds autopick $threads "${mics[@]}")" "$(seconds ours $threads "${mics[0]}")" \
      "$(seconds ours $threads "${mics[@]}")" "$(seconds ours $threads "${more[@]:0:12}")" \
      "$(seconds ours $threads "${more[@]}")"
  done
else
  echo "RELION: not timed (Debian package relion)" | tee -a "$out"
fi
echo "Written to $out"
