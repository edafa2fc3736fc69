#!/usr/bin/env bash
# The scripts of examples/ on a Slurm cluster of this one machine, against a run of one process; by hand:
#   tests/slurm.sh [BUILD]                                                  (default: build)
# An array, an MPI job, RELION's submission template; scancel and requeue in the middle, then a resume. Takes a few minutes. Exit
# status 77 where Slurm or kestrix_mpi is missing.
set -u
here=$(cd "$(dirname "$0")" && pwd)
examples=$here/../examples
build=$(cd "${1:-build}" && pwd)
PATH=$build:$PATH:/usr/sbin
for program in slurmctld slurmd munged sbatch kestrix_mpi; do
  command -v $program >/dev/null || { echo "skipped: $program is not here"; exit 77; }
done
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root can start a cluster"; exit 77; }
work=$(mktemp -d)
chmod 755 "$work"
trap '"$here/slurm_node.sh" down "$work/slurm"; rm -rf "$work"' EXIT
cd "$work" || exit 1
eval "$("$here/slurm_node.sh" up "$work/slurm" 2>/dev/null)"
. "$here/checks.sh"

rows() { sed -E 's/ +[0-9.]+ (picked|finished_before|failed)$/ \1/' "$1"; }
lists() { diff -r -x '*summary*' -x 'kestrix_failed*' -x '.kx_*' clean "$1"; }

# --- Micrographs, and what one process makes of them ---
kestrix_simulate --prefix mic_ --number 4 --nx 1024 --ny 1024 --apix 4 --dose 10 --templates 8 --seed 3 >/dev/null || exit 1
mkdir links
for i in {01..40}; do ln "mic_00$((10#$i % 4 + 1)).mrc" "links/m_$i.mrc"; done
echo "a letter" >links/m_99.mrc
ls links/*.mrc >list.txt
options=(--apixM 4 --diameter 260 --cc_cutoff 0.25 --T mic_templates.mrcs --apixT 8 --extract_raw 1)
OMP_NUM_THREADS=1 kestrix --micrographs list.txt --odir clean --summary clean/summary.star --keep_going 1 "${options[@]}" >clean.out 2>&1
sizes=(--cpus-per-task=1)

submit() { timeout 120 sbatch --parsable "${sizes[@]}" "$@"; }

array() {
  submit --wait --array=3-7:2 --mem=500M "$examples/slurm_array.sh" list.txt array "${options[@]}"
  is $? 3 && lists array &&
    kestrix_lists join_summaries --out joined.star array/summary_*.star && diff <(rows clean/summary.star) <(rows joined.star) &&
    diff <(cat array/kestrix_failed_*) clean/kestrix_failed.txt
}
check "an array of 3 tasks" array

# mpi_job NAME: what a finished job has left is that of one process
mpi_job() { lists "$1" && diff <(rows clean/summary.star) <(rows "$1/summary.star") && diff "$1/kestrix_failed.txt" clean/kestrix_failed.txt; }
job() {
  submit --wait --ntasks=2 --mem-per-cpu=500M --output=job.log "$examples/slurm_mpi.sh" list.txt job "${options[@]}"
  is $? 3 && mpi_job job && grep "2 ranks took" job.log
}
check "an MPI job of 2 ranks" job
if [ -x "$build/tests/kestrix_mpich" ]; then
  mkdir mpich
  ln -s "$build/tests/kestrix_mpich" mpich/kestrix_mpi
  mpich_job() {
    PATH=$work/mpich:$PATH KESTRIX_PMI=pmi2 submit --wait --ntasks=2 --mem-per-cpu=500M --output=job.log "$examples/slurm_mpi.sh" list.txt job_mpich "${options[@]}"
    is $? 3 && mpi_job job_mpich && grep "2 ranks took" job.log
  }
  check "an MPI job of MPICH's program" mpich_job
  refused() { # OpenMPI refuses by itself
    srun --mpi=pmix --ntasks=2 "$build/tests/kestrix_mpich" --micrographs list.txt --odir wrong "${options[@]}" >refusal 2>&1
    is $? 1 && is "$(grep -c "don't know of each other" refusal)" 1 && [ ! -e wrong ]
  }
  check "srun with another library's plugin is refused" refused
fi

# --- Ended in the middle, then submitted again ---
# wait_for FOLDER: until some lists are there
wait_for() {
  for _ in {1..600}; do
    [ "$(find "$1" -name '*_quorlin.star' 2>/dev/null | wc -l)" -ge 6 ] && return 0
    sleep 0.05
  done
  echo "no lists in $1"
  return 1
}
# state JOB, and wait until it is one of those
state_of() { scontrol show job "$1" | sed -n 's/.*JobState=\([A-Z]*\).*/\1/p' | sort -u | tr '\n' ' '; }
wait_until() {
  for _ in {1..600}; do
    [[ " $2 " == *" $(state_of "$1")"* ]] && return 0
    sleep 0.1
  done
  echo "job $1 is $(state_of "$1")"
  return 1
}
is_part() { [ "$(find "$1" -name '*_quorlin.star' | wc -l)" -lt 40 ] && ! ls "$1"/.kx_* 2>/dev/null; }

cancelled() { # NAME SCRIPT OPTIONS...
  local name=$1 script=$2 id
  shift 2
  id=$(submit "$@" "$script" list.txt "$name" "${options[@]}")
  wait_for "$name" && scancel "$id" && wait_until "$id" "CANCELLED COMPLETING" && sleep 1 && is_part "$name" || return 1
  submit --wait "$@" "$script" list.txt "$name" "${options[@]}"
  is $? 3 && lists "$name"
}
check "an array cancelled and submitted again" cancelled cancelled_array "$examples/slurm_array.sh" --array=1-2 --mem=500M
check "an MPI job cancelled and submitted again" cancelled cancelled_job "$examples/slurm_mpi.sh" --ntasks=2 --mem-per-cpu=500M
requeued() {
  local name=$1 script=$2 id
  shift 2
  id=$(submit "$@" "$script" list.txt "$name" "${options[@]}")
  wait_for "$name" && scontrol requeue "$id" && sleep 2 && wait_until "$id" "PENDING RUNNING" && is_part "$name" || return 1
  scontrol update "JobId=$id" StartTime=now # Slurm waits two minutes by itself
  wait_until "$id" "FAILED COMPLETED" && lists "$name" && is "$(grep -c '^links' "$name/summary.star")" 41
}
check "an MPI job requeued" requeued requeued_job "$examples/slurm_mpi.sh" --ntasks=2 --mem-per-cpu=500M

# --- RELION's submission template and an External job: from RELION's pipeline, or filled in as RELION does ---
export RELION_QSUB_EXTRA_COUNT=1 RELION_QSUB_EXTRA1=Ranks RELION_QSUB_EXTRA1_DEFAULT=2
relion_job() { # LIST
  local i
  printf '\ndata_pipeline_general\n\n_rlnPipeLineJobCounter 7\n\n' >default_pipeline.star
  {
    printf '\ndata_job\n\n_rlnJobType 99\n_rlnJobIsContinue 0\n\ndata_joboptions_values\n\nloop_\n_rlnJobOptionVariable #1\n'
    printf '_rlnJobOptionValue #2\nfn_exe %s\nin_mic %s\n' "$examples/relion_external.sh" "$1"
    for ((i = 0; i < ${#options[@]}; i += 2)); do
      printf 'param%d_label %s\nparam%d_value %s\n' $((i / 2 + 1)) "${options[i]#--}" $((i / 2 + 1)) "${options[i + 1]}"
    done
    printf 'nr_threads 1\ndo_queue Yes\nqsub sbatch\nqueuename main\nqsubscript %s\nqsub_extra1 2\n' "$1.template"
  } >job.star
  relion_pipeliner --addJobFromStar job.star && timeout 120 relion_pipeliner --RunJobs External/job007/ --overwrite_jobs --sec_wait_after 1
}
filled_in() { # LIST
  local command="$examples/relion_external.sh --o External/job007/ --in_mics $1" i
  mkdir -p External/job007
  for ((i = 0; i < ${#options[@]}; i += 2)); do command+=" ${options[i]} ${options[i + 1]}"; done
  sed -e "s|XXXnameXXX|External/job007/|; s|XXXqueueXXX|main|; s|XXXextra1XXX|2|; s|XXXthreadsXXX|1|; s|XXXmpinodesXXX|1|" \
    -e "s|XXXoutfileXXX|External/job007/run.out|; s|XXXerrfileXXX|External/job007/run.err|" \
    -e "s|XXXcommandXXX|$command --j 1 --pipeline_control External/job007/|" "$1.template" >relion_job.sh
  timeout 120 sbatch --wait relion_job.sh
}
relion() {
  local way=filled_in
  ! command -v relion_pipeliner >/dev/null || way=relion_job
  sed 's/^#SBATCH --mem-per-cpu.*/#SBATCH --mem-per-cpu=500M/' "$examples/relion_slurm.sh" >list.txt.template
  "$way" list.txt
  for _ in {1..600}; do
    ls External/job007/RELION_JOB_EXIT_* 2>/dev/null && break
    sleep 0.1
  done
  cat External/job007/run.err
  [ -e External/job007/RELION_JOB_EXIT_SUCCESS ] && lists External/job007/picks && is "$(grep -c '^links' External/job007/autopick.star)" 40
}
check "RELION's submission template and an External job" relion
workstation() {
  RANKS=2 OMP_NUM_THREADS=1 "$examples/workstation_gpus.sh" list.txt workstation "${options[@]}"
  is $? 3 && mpi_job workstation
}
check "a workstation" workstation
[ "$failed" -eq 0 ] && echo "all passed"
exit $((failed > 0))
