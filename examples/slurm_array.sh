#!/bin/bash
#SBATCH --job-name=kestrix
#SBATCH --array=1-10               # so many shares of the list
#SBATCH --cpus-per-task=4
#SBATCH --mem=2G
#SBATCH --time=04:00:00
#SBATCH --requeue                  # a task that loses its node starts again and goes on where it was
#SBATCH --open-mode=append
#SBATCH --output=kestrix_%A_%a.log
# Picks a list of micrographs in the tasks of a Slurm array, each a share of it:
#   sbatch slurm_array.sh micrographs.star Picks --diameter 180 --auto 1
# After a time limit or scancel submit the same again: what is finished is passed over. When all tasks have ended:
#   kestrix_lists join_summaries --out Picks/summary.star Picks/summary_*.star
set -eu
list=$1 picks=$2
shift 2
export OMP_NUM_THREADS=${SLURM_CPUS_PER_TASK:-1}
mkdir -p "$picks"
# In place of the shell, so that the signal before a time limit reaches it.
exec kestrix --micrographs "$list" --odir "$picks" --shard slurm --summary "$picks/summary_$SLURM_ARRAY_TASK_ID.star" \
  --keep_going 1 --do_unfinished 1 --progress 1 "$@"
