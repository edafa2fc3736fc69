#!/bin/bash
#SBATCH --job-name=kestrix
#SBATCH --ntasks=16                # ranks, on as many nodes as that takes
#SBATCH --cpus-per-task=4          # threads of each
#SBATCH --mem-per-cpu=1G
#SBATCH --time=04:00:00
#SBATCH --requeue                  # a job that loses a node starts again and goes on where it was
#SBATCH --open-mode=append
#SBATCH --output=kestrix_%j.log
# Picks a list of micrographs with one job of many ranks:
#   sbatch slurm_mpi.sh micrographs.star Picks --diameter 180 --auto 1
# After a time limit or scancel submit the same again: what is finished is passed over.
# With GPUs: sbatch --gpus-per-task=1 --cpus-per-task=2 ... With a kestrix_mpi built for MPICH: KESTRIX_PMI=pmi2 sbatch ...
set -eu
list=$1 picks=$2
shift 2
mkdir -p "$picks"
# In place of the shell, so that the signal before a time limit reaches the ranks.
exec srun --mpi="${KESTRIX_PMI:-pmix}" --cpus-per-task="${SLURM_CPUS_PER_TASK:-1}" --kill-on-bad-exit=1 \
  kestrix_mpi --micrographs "$list" --odir "$picks" --summary "$picks/summary.star" \
  --keep_going 1 --do_unfinished 1 --progress 1 "$@"
