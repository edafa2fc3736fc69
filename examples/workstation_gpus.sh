#!/bin/bash
# Picks a list of micrographs on all GPUs of a workstation, or on so many ranks:
#   workstation_gpus.sh micrographs.star Picks --diameter 180 --auto 1
#   RANKS=4 workstation_gpus.sh ...
# Rank K takes GPU K modulo their number; CUDA_VISIBLE_DEVICES=0,2 hides others. The same command after an interruption goes on
# where it was.
set -eu
list=$1 picks=$2
shift 2
gpus=$(gpu_probe 2>/dev/null | grep -c . || true)
ranks=${RANKS:-$((gpus > 0 ? gpus : 1))}
mkdir -p "$picks"
exec mpirun --bind-to none -n "$ranks" kestrix_mpi --micrographs "$list" --odir "$picks" --summary "$picks/summary.star" \
  --keep_going 1 --do_unfinished 1 --progress 1 "$@"
