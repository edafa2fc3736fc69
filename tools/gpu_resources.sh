#!/usr/bin/env bash
# What the kernels of the CUDA build take of a GPU: registers, stack, spills and shared memory of each, by compiling the
# sources that launch kernels once more with the compiler's report. Needs nvcc and readelf, no GPU.
#   tools/gpu_resources.sh [-B BUILD] [ARCHITECTURE ...]
# BUILD (build-cuda): the folder of the CUDA build. ARCHITECTURE: such as 80 90; without any, those of the build.
# Exit status 1 if a kernel spills registers, has a stack or calls a function, 77 if nvcc is not here. A call that counts
# is one to code of ours that was not inlined; the slow paths of an exact division or root, which the compiler keeps as
# subroutines of its own, are told but allowed.
set -euo pipefail
cd "$(dirname "$0")/.."
PATH=$PATH:/usr/local/cuda/bin
build="build-cuda"
if [ "${1:-}" = -B ]; then
  build=$2
  shift 2
fi
commands=$build/compile_commands.json

command -v nvcc >/dev/null || { echo "gpu_resources: nvcc is not here"; exit 77; }
[ -e "$commands" ] || { echo "gpu_resources: no CUDA build in $build; run: cmake --preset cuda"; exit 1; }
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

architectures=("$@")
if [ ${#architectures[@]} -eq 0 ]; then
  mapfile -t architectures < <(grep -o 'code=\[*[^" ]*sm_[0-9]*' "$commands" | grep -o '[0-9]*$' | sort -nu)
fi

# The compiler's commands for the sources of src/ that launch kernels, less architectures and output.
nvcc_commands() {
  grep '"command":.*nvcc.*/src/[a-z]*/[a-z0-9_]*\.cpp' "$commands" | grep -v kestrix_tests |
    sed -E 's/^ *"command": "//; s/",?$//; s/\\"/"/g; s/ (--generate-code=|-gencode[ =])[^ ]*//g; s/ -o [^ ]+//; s/ -MD//; s/ -MT [^ ]+ -MF [^ ]+//'
}

# One line a kernel: name registers stack spilled shared
report() {
  c++filt | awk '
    /Compiling entry function/ {
      name = $0
      sub(/.*<&\(?/, "", name); sub(/.*anonymous namespace\)::/, "", name); sub(/[^A-Za-z0-9_].*/, "", name)
      if ($0 ~ /grid_block_sums/) name = "sum of " name
    }
    /bytes stack frame/ { stack = $1; spilled = $5 + $9 }
    /Used [0-9]+ registers/ {
      shared = match($0, /[0-9]+ bytes smem/) ? substr($0, RSTART, RLENGTH) + 0 : 0
      match($0, /Used [0-9]+/)
      printf "%s\t%d\t%d\t%d\t%d\n", name, substr($0, RSTART + 5, RLENGTH - 5), stack, spilled, shared
    }'
}

bad=0
for architecture in "${architectures[@]}"; do
  echo "== compute capability ${architecture%?}.${architecture: -1}"
  rows=$scratch/rows; functions=$scratch/functions; : >"$rows"; : >"$functions"
  while read -r command; do
    (cd "$build" && eval "$command -arch=sm_$architecture -cubin -Xptxas=-v -o $scratch/one.cubin") >"$scratch/log" 2>&1 ||
      { cat "$scratch/log"; exit 1; }
    report <"$scratch/log" >>"$rows"
    readelf -sW "$scratch/one.cubin" 2>/dev/null | awk '$4 == "FUNC" { print $NF }' | c++filt >>"$functions"
  done < <(nvcc_commands)
  printf '%-44s %9s %6s %8s %7s\n' kernel registers stack spilled shared
  sort "$rows" | awk -F'\t' '{ printf "%-44s %9d %6d %8d %7d\n", $1, $2, $3, $4, $5 }'
  kernels=$(wc -l <"$rows")
  subroutines=$(grep -c '^[$]__internal' "$functions" || true)
  calls=$(($(wc -l <"$functions") - kernels - subroutines))
  faults=$(awk -F'\t' '$3 + $4 > 0' "$rows" | wc -l)
  echo "$kernels kernels: $faults with a stack or spills, $calls functions not inlined, $subroutines slow paths of exact" \
    "division and root"
  [ "$kernels" -gt 0 ] && [ "$faults" -eq 0 ] && [ "$calls" -eq 0 ] || bad=1
done
exit "$bad"
