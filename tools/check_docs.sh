#!/usr/bin/env bash
# Runs the commands of the documents, those in fenced blocks that call a program of ours or one that the guide works with, in
# their order in an empty folder, and prints each with its exit status:
#   tools/check_docs.sh [BUILD]                                             (default: build)
# Ends with 1 if any failed. Programs of others that aren't installed are skipped, visibly. What a reader would bring along
# (class averages, RELION's table of micrographs, a selection made on the page, a Slurm array) is made first.
set -u
cd "$(dirname "$0")/.."
root=$PWD
build=$(cd "${1:-build}" && pwd) || exit 1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export PATH=$build:$PATH SLURM_ARRAY_TASK_ID=1 SLURM_ARRAY_TASK_MIN=0 SLURM_ARRAY_TASK_MAX=1 SLURM_ARRAY_TASK_COUNT=2
# For mpirun where a container's root calls it on few cores.
export OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1 OMPI_MCA_rmaps_base_oversubscribe=1
failed=0 ran=0 skipped=0

# commands FILE: one a line, continued lines joined, comments and prompts left out
commands() {
  awk '/^```/ { inside = !inside; next }
       !inside { next }
       { line = held $0; held = "" }
       line ~ /\\$/ { sub(/\\$/, "", line); held = line; next }
       line ~ /^ *(kestrix|relion_|awk |mkdir |gpu_probe|mpirun )/ { print line }' "$1"
}

# try COMMAND: runs it in the folder
try() {
  local program status
  program=$(awk '{ print $1 }' <<<"$1")
  [ "$program" != mpirun ] || ! command -v mpirun >/dev/null || program=kestrix_mpi
  if ! command -v "$program" >/dev/null; then
    printf 'skipped, %s is not installed: %s\n' "$program" "$1"
    skipped=$((skipped + 1))
    return
  fi
  (cd "$work" && timeout 300 bash -c "$1") >"$work/log" 2>&1 </dev/null
  status=$?
  printf '%3d  %s\n' "$status" "$1"
  ran=$((ran + 1))
  [ "$status" -eq 0 ] && return
  failed=$((failed + 1))
  tail -n 3 "$work/log"
}

# What the guide's reader has made by hand after the first run.
bring_along() {
  cp "$work/Micrographs/mic_templates.mrcs" "$work/averages.mrcs"
  (cd "$work" && kestrix_lists select Micrographs/mic_00?_quorlin.box >/dev/null 2>&1)
  cat >"$work/selection.json" <<'JSON'
{"kestrix_selection": 1, "list": "_quorlin", "odir": "", "boxsize": 258,
 "rules": {"min_score": 0.1, "max_score": null, "min_average": null, "max_average": null,
           "min_sigma": null, "max_sigma": null, "thin": 0, "most": -1},
 "micrographs": [{"name": "Micrographs/mic_001.mrc", "brushed": [[3000.5, 2500, 194.03]]}]}
JSON
  cat >"$work/micrographs.star" <<'STAR'

data_optics

loop_
_rlnOpticsGroup #1
_rlnMicrographPixelSize #2
1 1.34

data_micrographs

loop_
_rlnMicrographName #1
_rlnOpticsGroup #2
Micrographs/mic_001.mrc 1
Micrographs/mic_002.mrc 1
STAR
}

for document in docs/user-guide.md README.md docs/simulate.md docs/clusters.md; do
  echo "== $document"
  while IFS= read -r command; do
    [ -e "$work/averages.mrcs" ] || [ ! -e "$work/Micrographs/mic_001_quorlin.box" ] || bring_along
    try "$command"
  done < <(commands "$root/$document")
done
echo "$ran commands run, $failed failed, $skipped skipped"
[ "$failed" -eq 0 ]
