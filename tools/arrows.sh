#!/usr/bin/env bash
# The rooms of src/ and tools/ and the includes between them, drawn from the sources:
#   tools/arrows.sh           prints the drawing
#   tools/arrows.sh --write   puts it into CONTRIBUTING.md
#   tools/arrows.sh --check   fails where an arrow runs up, where the drawing in CONTRIBUTING.md is not of these sources,
#                             and where a source outside platform/ has a condition on the device
set -eu
cd "$(dirname "$0")/.."

# From the front ends down to the ground; rooms on one line lean on none of each other.
floors='tools main
session
run
templates conditioning matching
particles
formats
compute
transforms
platform'

# "FROM TO" for each include of another room's header. A header in include/ belongs to the room of the source of its name.
arrows() {
  declare -A room_of
  local file from name to
  for file in src/*/*.cpp; do room_of[$(basename "$file" .cpp)]=$(basename "$(dirname "$file")"); done
  while IFS=: read -r file name; do
    case $file in
      tools/*) from=tools ;;
      src/run/kestrix56.cpp) from=main ;;
      src/include/*) name_of=$(basename "$file" .h); from=${room_of[$name_of]} ;;
      *) from=${file#src/}; from=${from%%/*} ;;
    esac
    case $name in
      */*) to=${name%%/*} ;;
      *) to=${room_of[${name%.h}]:-$from} ;;
    esac
    [ "$from" = tools ] && [ ! -d "src/$to" ] && continue
    [ "$from" = "$to" ] || echo "$from $to"
  done < <(git ls-files 'src/*.cpp' 'src/*.h' 'tools/*.cpp' 'tools/*.h' | xargs grep -oE '^#include "[^"]+"' | sed 's/#include "//; s/"$//')
}

# The drawing: rooms from top to bottom, and from left to right how many includes lead to each of the rooms below.
draw() {
  arrows | awk -v floors="$floors" '
    BEGIN {
      lines = split(floors, line, "\n")
      for (i = 1; i <= lines; i++) for (j = 1; j <= split(line[i], room, " "); j++) { order[++n] = room[j]; floor[room[j]] = i }
    }
    !($1 in floor) || !($2 in floor) { printf "arrows.sh: no floor is known for %s -> %s\n", $1, $2 >"/dev/stderr"; bad = 1 }
    { count[$1, $2]++; seen[$1] = seen[$2] = 1 }
    END {
      printf "%-14s", "from \\ to"
      for (j = 1; j <= n; j++) if (seen[order[j]] && floor[order[j]] > 1) printf " %*s", length(order[j]), order[j]
      printf "\n"
      for (i = 1; i <= n; i++) {
        if (!seen[order[i]]) continue
        printf "%-14s", order[i]
        for (j = 1; j <= n; j++) {
          if (!seen[order[j]] || floor[order[j]] == 1) continue
          c = count[order[i], order[j]]
          printf " %*s", length(order[j]), i == j ? "\\" : c ? c : "."
          if (c && floor[order[j]] <= floor[order[i]]) up = up "\n  " order[i] " -> " order[j]
        }
        printf "\n"
      }
      if (up) printf "Arrows that run up:%s\n", up >"/dev/stderr"
      exit up || bad ? 1 : 0
    }' | sed 's/ *$//'
}

in_document() { sed -n '/^<!-- arrows -->$/,/^<!-- end of arrows -->$/p' CONTRIBUTING.md | grep -vE '^(<!--|```)' || true; }

check() {
  local status=0
  drawing=$(draw) || status=1
  if [ "$drawing" != "$(in_document)" ]; then
    echo "The drawing in CONTRIBUTING.md is not of these sources: run tools/arrows.sh --write" >&2
    status=1
  fi
  if git ls-files src | grep -v '^src/platform/' | xargs grep -n KESTRIX_CUDA >&2; then
    echo "Conditions on the device belong in src/platform" >&2
    status=1
  fi
  return $status
}

write() {
  draw >/tmp/arrows.$$
  awk -v drawing=/tmp/arrows.$$ '
    /^<!-- end of arrows -->$/ { print "```text"; while ((getline text <drawing) > 0) print text; print "```"; hidden = 0 }
    !hidden { print }
    /^<!-- arrows -->$/ { hidden = 1 }' CONTRIBUTING.md >/tmp/contributing.$$
  cat /tmp/contributing.$$ >CONTRIBUTING.md
  rm /tmp/arrows.$$ /tmp/contributing.$$
}

set -o pipefail
case ${1:-} in
  '') draw ;;
  --check) check ;;
  --write) write ;;
  *) echo "Usage: tools/arrows.sh [--write|--check]" >&2; exit 2 ;;
esac
