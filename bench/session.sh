#!/usr/bin/env bash
# What the options for whole sessions cost:
#   bench/session.sh [BUILD]                                                (default: build)
# Checking 30,000 micrographs, beside 3,000 (under 20 s, memory that doesn't grow with the list but for its names); picking
# 200 micrographs of 1024 x 1024 with --keep_going, --summary and --progress over the same without, in turn, least of five
# rounds (at most 1.01); the time from the end of writing a micrograph to its lists with --watch, over its picking time (at
# most 3 s); 20 kills at random moments and a resume, whose files are held against an undisturbed session's.
set -eu
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
export OMP_NUM_THREADS=${OMP_NUM_THREADS:-1}
program=$build/kestrix
fixed=(--apixM 4 --diameter 260 --cc_cutoff 0.25)
"$build/kestrix_simulate" --prefix mic_ --number 4 --nx 1024 --ny 1024 --apix 4 --dose 10 --templates 8 --seed 3 >/dev/null

# seconds COMMAND...: the time that it takes
seconds() {
  local begin=$EPOCHREALTIME
  "$@" >/dev/null 2>&1 || true
  awk -v a="$begin" -v b="$EPOCHREALTIME" 'BEGIN { printf "%.3f\n", b - a }'
}

# named N: a list of N names for the four micrographs, each with lists of its own
named() {
  mkdir -p many
  for ((i = 0; i < $1; i++)); do
    printf -v name 'many/m_%05d.mrc' "$i"
    [ -e "$name" ] || ln "mic_00$((i % 4 + 1)).mrc" "$name"
    echo "$name"
  done
}

peak() { /usr/bin/env python3 -c '
import resource, subprocess, sys
subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)' "$@"; }

echo "== --check"
for n in 3000 30000; do
  named "$n" >"list_$n"
  "$program" "${fixed[@]}" --check 1 --micrographs "list_$n" >/dev/null
  printf '%6d micrographs: %s s, %s KiB at most\n' "$n" "$(seconds "$program" "${fixed[@]}" --check 1 --micrographs "list_$n")" \
    "$(peak "$program" "${fixed[@]}" --check 1 --micrographs "list_$n")"
done

echo "== --keep_going --summary --progress, 200 micrographs"
head -n 200 list_3000 >list_200
# compare NAME OPTIONS...: both ways by turns
compare() {
  local name=$1
  shift
  rm -rf plain all plain_times all_times
  for _ in 1 2 3 4 5; do
    seconds "$program" "${fixed[@]}" "$@" --micrographs list_200 --odir plain >>plain_times
    seconds "$program" "${fixed[@]}" "$@" --micrographs list_200 --odir all --keep_going 1 --summary s.star --progress 1 >>all_times
  done
  diff -r plain all >/dev/null || echo "lists DIFFER"
  paste <(sort -n plain_times) <(sort -n all_times) |
    awk -v n="$name" 'NR == 1 { printf "%s: %.3f s, %.3f s, ratio %.3f\n", n, $1, $2, $2 / $1 }'
}
compare "automatic template" --speed 2
compare "eight templates" --T mic_templates.mrcs --apixT 8

echo "== --watch"
mkdir in out
"$program" "${fixed[@]}" --watch 6 --odir out in >/dev/null 2>&1 &
sleep 1
for i in 1 2 3 4; do
  size=$(stat -c %s "mic_00$i.mrc")
  head -c $((size / 2)) "mic_00$i.mrc" >"in/w_$i.mrc"
  sleep 0.7
  tail -c +$((size / 2 + 1)) "mic_00$i.mrc" >>"in/w_$i.mrc"
  begin=$EPOCHREALTIME
  until [ -e "out/w_${i}_quorlin.star" ]; do sleep 0.02; done
  awk -v a="$begin" -v b="$EPOCHREALTIME" 'BEGIN { printf "lists %.2f s after the micrograph\n", b - a }'
done
wait

echo "== 20 kills"
head -n 40 list_3000 >list_40
options=("${fixed[@]}" --extract_raw 1 --do_unfinished 1 --keep_going 1 --micrographs list_40)
whole=$(seconds "$program" "${options[@]}" --odir clean)
ended=0
for ((i = 0; i < 20; i++)); do
  ((i % 5)) || rm -rf killed
  delay=$(awk -v s="$RANDOM" -v w="$whole" 'BEGIN { printf "%.3f", 0.4 * w * s / 32768 }')
  timeout -s "$( ((i % 2)) && echo TERM || echo INT)" "$delay" "$program" "${options[@]}" --odir killed --summary k.star \
    >/dev/null 2>&1 || ended=$((ended + 1))
done
"$program" "${options[@]}" --odir killed --summary k.star >/dev/null
diff -r clean killed >/dev/null && same="the same files" || same="OTHER FILES"
echo "$ended ended by signals; resumed: $same, $(grep -c '^many/' k.star) rows"
