# shellcheck shell=bash
# For the scripts that judge picks on simulated and real micrographs. Sourcing it reads their arguments, goes to the
# repository's root and sets
#   seed, data (empty where the folder isn't there), from (micrographs that teach a session), build, work (removed at the end)
seed=1
data=../shared/data
from=24
build=build
while [ $# -gt 0 ]; do
  case $1 in
    --seed) seed=$2; shift ;;
    --data) data=$2; shift ;;
    --from) from=$2; shift ;;
    *) build=$1 ;;
  esac
  shift
done
cd "$(dirname "$0")/.."
build=$(cd "$build" && pwd)
data=$(cd "$data" 2>/dev/null && pwd || true)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export OMP_NUM_THREADS=${OMP_NUM_THREADS:-1}

# make NAME SEED OPTIONS...: one micrograph, $work/NAME_001.mrc, of 2560 x 2400 pixels of 2 Å with particles of 200 Å;
# where ice would be darker than black, of another seed
make() {
  local name=$1 first=$2
  shift 2
  for other in 0 10000 20000 30000 40000; do
    "$build/kestrix_simulate" --prefix "$work/${name}_" --number 1 --nx 2560 --ny 2400 --apix 2 --diameter 200 --mode 6 \
      --templates 0 --seed $((first + other)) "$@" >/dev/null 2>"$work/refused" && return
  done
  cat "$work/refused" >&2
  return 1
}
