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
    *) options+=("$1" "${2-}") ;;
  esac
  shift $(($# > 1 ? 2 : 1))
done
: "${job:?--o names no job folder}" "${list:?give the input micrographs}"
rm -f "$job"/RELION_JOB_EXIT_*
launch=(mpirun --bind-to none)
[ -z "${SLURM_JOB_ID:-}" ] || launch=(srun --mpi="${KESTRIX_PMI:-pmix}" --cpus-per-task="${SLURM_CPUS_PER_TASK:-1}" --kill-on-bad-exit=1)
"${launch[@]}" kestrix_mpi --micrographs "$list" --odir "$job/picks" --summary "$job/summary.star" --keep_going 1 \
  --do_unfinished 1 --progress 1 "${options[@]}" &
trap 'kill -TERM $!' TERM INT    # the signal before a time limit, passed on
wait $!
status=$?
[ "$status" -le 128 ] || wait $!
# 3: all but micrographs that can't be picked, which kestrix_failed.txt names.
if [ "$status" -eq 0 ] || [ "$status" -eq 3 ]; then
  kestrix_lists join --for relion --micrographs "$list" --odir "$job/picks" --out "$job/autopick.star"
  touch "$job/RELION_JOB_EXIT_SUCCESS"
else
  touch "$job/RELION_JOB_EXIT_FAILURE"
  exit "$status"
fi
