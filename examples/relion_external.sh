#!/bin/bash
# The executable of a RELION job of the kind External that picks with kestrix_mpi. RELION calls it in the project folder as
#   relion_external.sh --o External/job007/ --in_mics CtfFind/job003/micrographs_ctf.star --diameter 180 --auto 1 --j 4
# with the labels and values of the Params tab in the middle. What it leaves for the Extract job is External/job007/autopick.star.
set -u
options=()
while [ $# -gt 0 ]; do
  case $1 in
    --o) job=${2%/} ;;
    --in_mics) list=$2 ;;
    --j) export OMP_NUM_THREADS=$2 ;;
    --pipeline_control) ;;
    *) options+=("$1" "${2-}") ;;
  esac
  shift $(($# > 1 ? 2 : 1))
done
: "${job:?--o names no job folder}" "${list:?give the input micrographs}"
rm -f "$job"/RELION_JOB_EXIT_*

end_as() { # SUCCESS, FAILURE or ABORTED, and the status
  touch "$job/RELION_JOB_EXIT_$1"
  exit "$2"
}

for ((i = 0; i < ${#options[@]}; i += 2)); do
  kestrix --list_options | awk '{ print $1 }' | grep -qix -- "${options[i]}" || {
    echo "${options[i]}, a label of the Params tab, is no option of kestrix" >&2
    end_as FAILURE 1
  }
done

launch=(mpirun --bind-to none)
[ -z "${SLURM_JOB_ID:-}" ] ||
  launch=(srun --mpi="${KESTRIX_PMI:-pmix}" --cpus-per-task="${SLURM_CPUS_PER_TASK:-1}" --kill-on-bad-exit=1)
"${launch[@]}" kestrix_mpi --micrographs "$list" --odir "$job/picks" --summary "$job/summary.star" --keep_going 1 \
  --do_unfinished 1 --progress 1 "${options[@]}" &
ranks=$!
trap 'kill -TERM $ranks' TERM INT    # the signal before a time limit, passed on
while kill -0 $ranks 2>/dev/null; do # until they have ended, or RELION's window says so
  [ ! -e "$job/RELION_JOB_ABORT_NOW" ] || kill -TERM $ranks
  sleep 1
done
wait $ranks
status=$?
[ ! -e "$job/RELION_JOB_ABORT_NOW" ] || { rm "$job/RELION_JOB_ABORT_NOW"; end_as ABORTED "$status"; }

# 3: all but micrographs that can't be picked, which kestrix_failed.txt names; those have no lists to join.
[ "$status" -eq 0 ] || [ "$status" -eq 3 ] || end_as FAILURE "$status"
kestrix_lists join --for relion --micrographs "$list" --odir "$job/picks" --out "$job/autopick.star" || [ $? -eq 3 ] ||
  end_as FAILURE 1
end_as SUCCESS 0
