#!/usr/bin/env bash
# Compares the final lists (*_quorlin.box) that two runs wrote in two folders, of a GPU and of the host for instance:
# every pick must have a partner of the same box, template and angle whose score is as good as equal.
#   tools/compare_picks.sh FOLDER1 FOLDER2 [BOUND [CUTOFF]]
# BOUND (0.00001): the most that two scores may differ. CUTOFF: the --cc_cutoff of the runs.
# A pick whose partner stands elsewhere in the same box, or has another template or angle, at a score within BOUND is a
# tie that fell the other way; so is one without a partner whose score is within BOUND of CUTOFF. Ties are shown and
# counted. Exit status 0 if each pick has a partner or is a tie, 1 if not, 2 if there is nothing to compare.
set -eu

if [ $# -lt 2 ] || [ $# -gt 4 ]; then
  sed -n '2,10s/^# \{0,1\}//p' "$0" >&2
  exit 2
fi
first=$1 second=$2 bound=${3:-0.00001} cutoff=${4:-}

# Prints the ties and differences of one pair of lists, then "same ties different largest-difference-of-scores".
compare_lists() {
  awk -v bound="$bound" -v cutoff="$cutoff" '
    function size(v) { return v < 0 ? -v : v }
    function within(a, b) { return size(a - b) <= bound + 0 }
    function at_cutoff(score) { return cutoff != "" && within(score, cutoff) }
    function show(what, line) { gsub(/[ \t]+/, " ", line); print "    " what ": " line }
    FILENAME == ARGV[1] { line[$1, $2] = $0; score[$1, $2] = $5; turn[$1, $2] = $6 " " $7; left[$1, $2] = 1; next }
    {
      here = $1 SUBSEP $2
      if (here in left) {
        difference = size(score[here] - $5)
        if (difference > largest) largest = difference
        if (!within(score[here], $5)) { different++; show("scores differ", line[here] " | " $0) }
        else if (turn[here] != $6 " " $7) { ties++; show("tie", line[here] " | " $0) }
        else same++
        delete left[here]
        next
      }
      alone[++n_alone] = $0
    }
    END {
      for (i = 1; i <= n_alone; i++) {
        split(alone[i], pick)
        partner = ""
        for (here in left) {
          split(here, place, SUBSEP)
          near = size(place[1] - pick[1]) <= pick[3] && size(place[2] - pick[2]) <= pick[4]
          if (near && within(score[here], pick[5])) partner = here
        }
        if (partner != "") { ties++; show("tie", line[partner] " | " alone[i]); delete left[partner] }
        else if (at_cutoff(pick[5])) { ties++; show("at the cutoff, in the second only", alone[i]) }
        else { different++; show("in the second only", alone[i]) }
      }
      for (here in left) {
        if (at_cutoff(score[here])) { ties++; show("at the cutoff, in the first only", line[here]) }
        else { different++; show("in the first only", line[here]) }
      }
      print same + 0, ties + 0, different + 0, largest + 0
    }' "$1" "$2"
}

lists=0 same=0 ties=0 different=0
for list in "$first"/*_quorlin.box; do
  [ -e "$list" ] || continue
  name=$(basename "$list")
  if [ ! -e "$second/$name" ]; then
    echo "$name: missing in $second"
    different=$((different + 1))
    continue
  fi
  lists=$((lists + 1))
  found=$(compare_lists "$list" "$second/$name")
  read -r s t d largest <<<"${found##*$'\n'}"
  echo "$name: $s the same, $t ties, $d different; scores differ by up to $largest"
  [ "$t $d" = "0 0" ] || echo "${found%$'\n'*}"
  same=$((same + s)) ties=$((ties + t)) different=$((different + d))
done
if [ "$lists" -eq 0 ] && [ "$different" -eq 0 ]; then
  echo "No list *_quorlin.box in $first" >&2
  exit 2
fi
echo "All $lists lists: $same picks the same, $ties ties, $different different"
[ "$different" -eq 0 ]
