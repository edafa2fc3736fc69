#!/bin/bash
# RELION's submission template for Slurm: "Standard submission script" of the Running tab, or the variable RELION_QSUB_TEMPLATE.
# RELION puts in what stands between three X. Number of MPI procs: ranks; number of threads: those of each. Jobs of the kind
# External, which have no MPI procs, take their ranks from the first extra field (export RELION_QSUB_EXTRA_COUNT=1
# RELION_QSUB_EXTRA1="Ranks" RELION_QSUB_EXTRA1_DEFAULT=16).
#SBATCH --job-name=XXXnameXXX
#SBATCH --partition=XXXqueueXXX
#SBATCH --ntasks=XXXextra1XXX
#SBATCH --cpus-per-task=XXXthreadsXXX
#SBATCH --mem-per-cpu=1G
#SBATCH --time=04:00:00
#SBATCH --requeue
#SBATCH --open-mode=append
#SBATCH --output=XXXoutfileXXX
#SBATCH --error=XXXerrfileXXX
exec XXXcommandXXX
