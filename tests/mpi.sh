#!/usr/bin/env bash
# Runs of kestrix_mpi against those of kestrix:
#   tests/mpi.sh BUILD [PROGRAM]          the program of the build folder, and one of another MPI library besides
# Lists, summary, failures, standard output and status for any number of ranks, on two pretended machines and of shards; broken
# files; ranks and the leader killed, then a resume; wrong launchers. Exit status 77 where there is no MPI.
set -u
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
[ -x "$build/kestrix_mpi" ] || { echo "skipped: kestrix_mpi is not built, no MPI library was found"; exit 77; }
command -v mpirun >/dev/null || { echo "skipped: there is no mpirun"; exit 77; }
"$build/gpu_probe" >/dev/null 2>&1 || { echo "skipped: this build needs a GPU, and there is none"; exit 77; }
other=$(realpath -m "${2:-none}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
export OMP_NUM_THREADS=1 OMP_WAIT_POLICY=passive TMPDIR=$work
# The libraries keep memory to the end.
export ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0
. "$here/checks.sh"

# Each library's launcher with its program: ranks KIND N ARGUMENTS...
ranks() {
  local kind=$1 n=$2
  shift 2
  case $kind in
    own) timeout 120 "${launcher[@]}" -n "$n" "$build/kestrix_mpi" "$@" ;;
    other) timeout 120 mpiexec.mpich -n "$n" "$other" "$@" ;;
  esac
}
launcher=(mpirun)
"$build/kestrix_mpi" --help >/dev/null || exit 1
ldd "$build/kestrix_mpi" | grep -q libmpich && launcher=(mpiexec.mpich)
kinds=(own)
[ -x "$other" ] && command -v mpiexec.mpich >/dev/null && kinds+=(other)

# What a run prints, but for times, the program's name and the tip; of a summary all but the seconds.
plain() { sed -E '/TOTAL/,$d; s/[0-9]+\.[0-9]+s$/T/; s/kestrix_mpi[a-z_]*/kestrix/; s/^Error in .*\) *//' "$1"; }
rows() { sed -E 's/ +[0-9.]+ (picked|finished_before|failed)$/ \1/' "$1"; }
# same A B: what two runs have left, under the names of their folders
same() {
  diff -r "$1" "$2" && diff <(rows "$1.star") <(rows "$2.star") && diff <(plain "$1.out") <(plain "$2.out") &&
    diff <(sed 's/^[^\t]*\t//' "$1.failed" 2>/dev/null) <(sed 's/^[^\t]*\t//' "$2.failed" 2>/dev/null) &&
    is "$(cat "$1.status")" "$(cat "$2.status")"
}
# run NAME COMMAND...: with its outputs in folders and files of that name
run() {
  local name=$1
  shift
  mkdir -p "$name.d"
  "$@" --odir "$name" --summary "$name.d/s.star" >"$name.out" 2>"$name.err"
  echo $? >"$name.status"
  mv "$name.d/s.star" "$name.star" 2>/dev/null
  [ ! -e "$name.d/kestrix_failed.txt" ] || mv "$name.d/kestrix_failed.txt" "$name.failed"
}

# --- Micrographs of two sizes, one twice, and what can't be picked ---
simulate() { "$build/kestrix_simulate" --templates 0 --dose 2 "$@" >/dev/null || exit 1; }
simulate --prefix raw_a_ --number 9 --nx 300 --ny 280 --apix 8
simulate --prefix raw_b_ --number 4 --nx 320 --ny 300 --apix 8 --seed 5
head -c 4000 raw_a_001.mrc >raw_z_1.mrc
echo "a letter" >raw_z_2.mrc
printf '%s\n' raw_z_1.mrc raw_a_00{1,2}.mrc raw_b_001.mrc raw_z_2.mrc raw_b_002.mrc raw_a_00{3,4}.mrc raw_z_3.mrc raw_a_005.mrc \
  raw_b_00{3,4}.mrc raw_a_00{6,7,8,9}.mrc raw_a_001.mrc >mixed
printf '%s\n' raw_a_00{1..9}.mrc >alike
options=(--apixM 8 --diameter 260 --speed 0 --cc_cutoff 0.25 --extract_raw 1)

run one "$build/kestrix" "${options[@]}" --micrographs mixed --keep_going 1
run one_alike "$build/kestrix" "${options[@]}" --micrographs alike
is "$(cat one.status)" 3 || exit 1
for kind in "${kinds[@]}"; do
  for n in 1 2 4; do
    run "many" ranks "$kind" "$n" "${options[@]}" --micrographs mixed --keep_going 1
    check "$kind, $n ranks: two sizes and broken files" same one many
    rm -rf many many.*
  done
  run "many" ranks "$kind" 3 "${options[@]}" --micrographs - <alike
  check "$kind, 3 ranks: a list from standard input" same one_alike many
  rm -rf many many.*
done

# --- Shards ---
head -n -1 mixed >once
run one_once "$build/kestrix" "${options[@]}" --micrographs once --keep_going 1
for k in 1 2 3; do
  run "once_$k" ranks own 2 "${options[@]}" --micrographs once --keep_going 1 --shard "$k/3"
  cat "once_$k.d/kestrix_failed_${k}_of_3.txt" 2>/dev/null >>shards.failed
done
joined() {
  "$build/kestrix_lists" join_summaries --out whole.star once_3.star once_1.star once_2.star &&
    diff <(rows one_once.star) <(rows whole.star) && diff <(sort one_once.failed) <(sort shards.failed) && mkdir all &&
    cp once_?/* all && diff -r one_once all
}
check "3 shards of 2 ranks each, joined" joined

# --- A run that ends in the middle, as one process does ---
sed '6i raw_z_2.mrc' alike >cut
run one_cut "$build/kestrix" "${options[@]}" --micrographs cut
for n in 1 3; do
  run many ranks own "$n" "${options[@]}" --micrographs cut
  # Micrographs behind the end may have been under way elsewhere.
  ends() {
    is "$(cat one_cut.status)" "$(cat many.status)" && diff <(plain one_cut.out) <(plain many.out) &&
      diff <(rows one_cut.star) <(rows many.star) && diff -r one_cut many | { ! grep -v '^Only in many: raw_a'; }
  }
  check "$n ranks: an unreadable micrograph ends the run where one process would end" ends
  rm -rf many many.*
done
refused() { ! ranks own 2 "${options[@]}" "$@" >refusal 2>&1 && grep -q -- "$words" refusal; }
words='--watch works in one process' check "--watch is refused" refused --watch 5 .
words='share its devices out by themselves' check "--gid all is refused" refused --gid all --micrographs alike
words='no readable micrograph' check "a list of absent files is refused" refused absent.mrc
looks() {
  ranks own 2 "${options[@]}" --micrographs mixed --check 1 >many.check
  is $? 3 && diff many.check <("$build/kestrix" "${options[@]}" --micrographs mixed --check 1)
}
check "--check looks through the list once" looks

# --- Two pretended machines ---
if [ "${launcher[0]}" = mpirun ] && unshare --uts true 2>/dev/null; then
  launcher=(mpirun --host node1:2,node2:2 --mca plm_rsh_agent "$here/fakessh" --mca plm_rsh_no_tree_spawn 1)
  run many ranks own 4 "${options[@]}" --micrographs mixed --keep_going 1
  check "two machines of 2 ranks each" same one many
  launcher=(mpirun)
else
  echo "skipped: no pretended machines here (OpenMPI, and the right to unshare)"
fi
rm -rf many many.*

# --- Kills ---
# Sets the arguments of the run.
prepare_long_run() {
  "$build/kestrix_simulate" --prefix mic_ --number 3 --nx 1024 --ny 1024 --apix 4 --dose 10 --templates 8 --seed 3 >/dev/null || exit 1
  mkdir links
  for i in {01..24}; do ln "mic_00$((10#$i % 3 + 1)).mrc" "links/m_$i.mrc"; done
  long=(--apixM 4 --diameter 260 --cc_cutoff 0.25 --T mic_templates.mrcs --apixT 8 --extract_raw 1 links/m_??.mrc)
  "$build/kestrix" "${long[@]}" --odir clean >/dev/null 2>&1
}
children() { local c; for c in $(cat "/proc/$1/task/$1/children" 2>/dev/null); do echo "$c"; children "$c"; done; }
# rank_of PID: as the launcher tells it
rank_of() { tr '\0' '\n' <"/proc/$1/environ" 2>/dev/null | sed -nE 's/^(OMPI_COMM_WORLD_RANK|PMI_RANK)=//p'; }
is_gone() { [ ! -d "/proc/$1" ] || grep -q '^State:.*zombie' "/proc/$1/status" 2>/dev/null; }
# killed KIND RANK SIGNAL: a run of 3 ranks ends when one is killed, leaves whole lists, and a resume completes it
killed() {
  local kind=$1 rank=$2 signal=$3 pid status file
  rm -rf killed killed.star
  ranks "$kind" 3 "${long[@]}" --odir killed --summary killed.star >killed.out 2>&1 &
  local job=$!
  for _ in {1..300}; do
    [ "$(find killed -name '*_quorlin.star' 2>/dev/null | wc -l)" -ge 4 ] && break
    sleep 0.02
  done
  local all
  all=$(children "$job")
  for pid in $all; do
    [ "$(cat "/proc/$pid/comm" 2>/dev/null | cut -c1-11)" = kestrix_mpi ] && [ "$(rank_of "$pid")" = "$rank" ] && kill -s "$signal" "$pid"
  done
  wait "$job"
  status=$?
  [ "$status" -ne 0 ] && [ "$status" -ne 124 ] || { echo "status $status"; return 1; }
  for pid in $all; do is_gone "$pid" || { sleep 1; is_gone "$pid"; } || { echo "process $pid is left"; return 1; }; done
  [ "$(find killed -name '*_quorlin.star' | wc -l)" -lt 24 ] || { echo "all was done before the kill"; return 1; }
  for file in killed/m_*; do
    [[ $file == *~ ]] || cmp "$file" "clean/${file#killed/}" || return 1
  done
  ranks "$kind" 2 "${long[@]}" --odir killed --summary killed.star --do_unfinished 1 >killed.out 2>&1 || return 1
  rm -f killed/.kx_*
  diff -r clean killed && is "$(grep -c '^links/' killed.star)" 24
}
# A GPU is done with such a list before a signal reaches it, and an emulated one takes minutes.
if grep -q '^KESTRIX_CUDA:BOOL=ON$' "$build/CMakeCache.txt"; then
  echo "skipped: kills in a GPU build"
else
  prepare_long_run
  for kind in "${kinds[@]}"; do
    check "$kind: rank 2 killed, then resumed" killed "$kind" 2 KILL
    check "$kind: the leader killed, then resumed" killed "$kind" 0 KILL
    check "$kind: rank 1 terminated, then resumed" killed "$kind" 1 TERM
  done
fi

# --- Launchers that don't belong to the program ---
launched() {
  "$@" "${options[@]}" --micrographs alike --odir wrong >refusal 2>&1
  local status=$?
  grep -q "processes that don't know of each other" refusal && is "$(grep -c 'know of each other' refusal)" 1 && is $status 1 &&
    [ ! -e wrong ] || { cat refusal; return 1; }
}
check "srun without its plugin is refused" launched env SLURM_NTASKS=4 SLURM_PROCID=0 "$build/kestrix_mpi"
if [ -x "$other" ] && command -v mpiexec.mpich >/dev/null; then
  check "OpenMPI's program under MPICH's launcher is refused" launched mpiexec.mpich -n 2 "$build/kestrix_mpi"
  check "MPICH's program under OpenMPI's launcher is refused" launched mpirun -n 2 "$other"
else
  echo "skipped: another MPI library beside the one of the build"
fi
[ "$failed" -eq 0 ] && echo "all passed"
exit $((failed > 0))
