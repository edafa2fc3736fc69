#!/usr/bin/env bash
# What kestrix_mpi reaches:
#   bench/clusters.sh [BUILD]                                               (default: build)
# Two ranks of one thread over one rank of one thread, 40 micrographs of 4096 x 4096 with eight templates, by turns, best of
# ROUNDS=3 (at least 1.95; needs two free cores: the load is printed beside it, the work of the processors, which other work
# disturbs less, and what two processes of kestrix reach side by side, each on its half of the list); 200 micrographs of very different cost over four ranks, over the best possible division of the costs that were
# measured in that run (at most 1.1), with the time spent waiting for the next index (below 1 per cent); memory of a rank; and a
# simulation that says what more ranks reach on 30,000 micrographs with these costs, and where the leader or a file system ends
# it. Parts by name: PARTS="two uneven memory simulation".
set -eu
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
[ -x "$build/kestrix_mpi" ] || { echo "skipped: kestrix_mpi is not built"; exit 77; }
rounds=${ROUNDS:-3}
parts=${PARTS:-two uneven memory simulation}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
export OMP_NUM_THREADS=1 OMP_WAIT_POLICY=passive
export OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1 OMPI_MCA_rmaps_base_oversubscribe=1

# seconds COMMAND...: wall time; its standard error goes to the file err
seconds() {
  local begin=$EPOCHREALTIME
  "$@" >out 2>err || { tail -n 3 out err >&2; return 1; }
  awk -v a="$begin" -v b="$EPOCHREALTIME" 'BEGIN { printf "%.3f\n", b - a }'
}
# cpu_of COMMAND...: leaves the processor time of the command and its children, seconds, in the file cpu
cpu_of() {
  local TIMEFORMAT='%U %S' status=0
  { time "$@" 2>err_of_command || status=$?; } 2>cpu_times
  awk '{ print $1 + $2 }' cpu_times >cpu
  cat err_of_command >&2
  return $status
}
ranks() { mpirun --bind-to none -n "$1" "$build/kestrix_mpi" "${@:2}"; }
load() { cut -d' ' -f1 /proc/loadavg; }

# links N NAME FILE...: a list of N names for the files by turns, each with lists of its own
links() {
  local n=$1 name=$2 i link
  shift 2
  mkdir -p "$name"
  for ((i = 0; i < n; i++)); do
    printf -v link '%s/%s_%05d.mrc' "$name" "$name" "$i"
    ln -f "${@:i % $# + 1:1}" "$link"
    echo "$link"
  done
}

# Two processes of kestrix beside one another, each on its half: what two ranks can reach at best on this machine, now.
two_processes() {
  "$build/kestrix" "$@" --odir halves --shard 1/2 &
  "$build/kestrix" "$@" --odir halves --shard 2/2
  wait
}

two_ranks() {
  echo "== two ranks of one thread over one, 40 micrographs of 4096 x 4096, eight templates"
  "$build/kestrix_simulate" --prefix big_ --number 2 --nx 4096 --ny 4096 --apix 1.34 --templates 8 --seed 4 >/dev/null
  links 40 same big_001.mrc big_002.mrc >same.txt
  local options=(--apixM 1.34 --diameter 260 --T big_templates.mrcs --apixT 2.68 --cc_cutoff 0.25 --micrographs same.txt) round
  for ((round = 0; round < rounds; round++)); do
    echo "1 $(seconds cpu_of ranks 1 "${options[@]}" --odir one) $(cat cpu) $(load)"
    echo "0 $(seconds cpu_of two_processes "${options[@]}") $(cat cpu) $(load)"
    echo "2 $(seconds cpu_of ranks 2 "${options[@]}" --odir two --progress 1) $(cat cpu) $(load)"
  done |
    awk 'BEGIN { name[1] = "1 rank"; name[0] = "2 processes"; name[2] = "2 ranks" }
         { printf "%-12s %.2f s, of processors %.2f s, load %.1f\n", name[$1], $2, $3, $4 }
         !($1 in best) || $2 < best[$1] { best[$1] = $2 }
         !($1 in cpu) || $3 < cpu[$1] { cpu[$1] = $3 }
         END { printf "best times: 1 rank over 2 ranks %.3f, 2 processes over 2 ranks %.3f; work of the processors, 1 rank over 2 ranks %.3f\n",
                 best[1] / best[2], best[0] / best[2], cpu[1] / cpu[2] }'
  grep "ranks took" err
  diff -r one two >/dev/null && echo "the same lists" || echo "lists DIFFER"
}

uneven() {
  echo "== 200 micrographs of very different cost over four ranks"
  local side i=0
  for side in 700 1000 1400 2000 2900; do
    "$build/kestrix_simulate" --prefix "side_${side}_" --number 1 --nx $side --ny $side --apix 2 --dose 20 --apixT 4 --templates 6 \
      --seed $side >/dev/null
  done
  # Sizes come in runs, as sessions of several microscopes do, with the longest near the end, where they hurt.
  for side in 1400 700 2000 1000 2900; do
    links 40 "uneven_$((i++))" "side_${side}_001.mrc"
  done >uneven.txt
  local options=(--apixM 2 --diameter 260 --T side_2900_templates.mrcs --apixT 4 --cc_cutoff 0.1 --speed 1 --keep_going 1
    --micrographs uneven.txt --odir uneven --summary uneven.star --progress 1) wall
  wall=$(seconds ranks 4 "${options[@]}")
  grep "ranks took" err
  # The best division is at least the mean of all ranks' work and at least the longest micrograph; giving out the longest first
  # is within a few parts in a thousand of it here.
  awk -v wall="$wall" -v load="$(load)" '
    /^uneven/ { cost[n++] = $(NF - 1); sum += $(NF - 1); if ($(NF - 1) > most) most = $(NF - 1); if (!least || $(NF - 1) < least) least = $(NF - 1) }
    END {
      for (i = 1; i < n; i++) { c = cost[i]; for (j = i; j > 0 && cost[j - 1] < c; j--) cost[j] = cost[j - 1]; cost[j] = c }
      for (i = 0; i < n; i++) { r = 0; for (k = 1; k < 4; k++) if (busy[k] < busy[r]) r = k; busy[r] += cost[i] }
      best = 0; for (k = 0; k < 4; k++) if (busy[k] > best) best = busy[k]
      printf "costs %.3f to %.3f s; run %.2f s, best division of the costs %.2f s, ratio %.3f, load %.1f\n", least, most, wall, best, wall / best, load
    }' uneven.star
}

memory() {
  echo "== memory of a rank, MiB at most, 4096 x 4096, eight templates"
  [ -e big_001.mrc ] ||
    "$build/kestrix_simulate" --prefix big_ --number 2 --nx 4096 --ny 4096 --apix 1.34 --templates 8 --seed 4 >/dev/null
  local speed threads
  for speed in 2 1; do
    for threads in 1 4; do
      # A rank of its own, so that no launcher stands between.
      OMP_NUM_THREADS=$threads python3 -c '
import resource, subprocess, sys
subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss // 1024)' "$build/kestrix_mpi" --apixM 1.34 --diameter 260 --speed "$speed" \
        --T big_templates.mrcs --apixT 2.68 --ang_step 30 --odir memory big_001.mrc | sed "s/^/--speed $speed, $threads threads: /"
    done
  done
}

# Seconds that the leader takes for one micrograph, from runs in which nothing is picked: all is finished before
leader_cost() {
  "$build/kestrix_simulate" --prefix tiny_ --number 1 --nx 300 --ny 280 --apix 8 --dose 2 --templates 0 >/dev/null
  links 4000 tiny tiny_001.mrc >tiny.txt
  local options=(--apixM 8 --diameter 260 --speed 0 --odir tiny_lists --do_unfinished 1 --micrographs) i name
  mkdir -p tiny_lists
  for ((i = 0; i < 4000; i++)); do printf -v name 'tiny_lists/tiny_%05d_quorlin.box' "$i" && : >"$name"; done
  head -n 40 tiny.txt >few.txt
  echo "$(seconds ranks 2 "${options[@]}" tiny.txt) $(seconds ranks 2 "${options[@]}" few.txt)" |
    awk '{ printf "%.6f\n", ($1 - $2) / 3960 }'
}

simulation() {
  echo "== simulated: 30,000 micrographs with the costs measured above"
  [ -e uneven.star ] || uneven >/dev/null
  local leader
  leader=$(leader_cost)
  echo "the leader takes at most $leader s of a core for a micrograph (4000 that were finished before, two ranks)"
  python3 - "$leader" <<'PYTHON'
import heapq, sys
leader = float(sys.argv[1])
costs = [float(line.split()[-2]) for line in open("uneven.star") if line.startswith("uneven")]
# As many as asked for, in the order of the list, by runs of forty as measured.
costs = [costs[i // 150 % 200] for i in range(30000)]

def run(ranks, block, file_system):
    """Wall time: shared out singly or in fixed blocks; each micrograph takes the leader `leader` s and the file system, which
    serves one at a time, `file_system` s."""
    if block:
        size = len(costs) // ranks
        return max(sum(costs[r * size:(r + 1) * size if r + 1 < ranks else len(costs)]) for r in range(ranks))
    free = [(0.0, r) for r in range(ranks)]
    leads = reads = 0.0
    for cost in costs:
        at, r = heapq.heappop(free)
        leads = max(leads, at - cost) + leader   # asked for ahead
        reads = max(reads, max(at, leads)) + file_system
        heapq.heappush(free, (reads + cost, r))
    return max(at for at, _ in free)

alone = sum(costs)
mean = alone / len(costs)
print(f"one rank {alone / 3600:.2f} h, {mean:.3f} s a micrograph")
print("ranks   best h   shared singly   fixed blocks   a file system of 2 ms a micrograph, one at a time")
for ranks in (4, 16, 64, 256, 1024):
    best = alone / ranks
    print(f"{ranks:5d} {best / 3600:8.4f} {best / run(ranks, 0, 0):14.3f} {best / run(ranks, 1, 0):14.3f} {best / run(ranks, 0, 0.002):12.3f}")
print(f"the leader is full at {mean / leader:.0f} ranks, a file system of 2 ms a micrograph at {mean / 0.002:.0f}")
PYTHON
}

for part in $parts; do
  case $part in
    two) two_ranks ;;
    *) "$part" ;;
  esac
done
