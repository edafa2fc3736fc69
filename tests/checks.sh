# What scripts that compare runs have in common; sourced. `failed` counts the checks that have failed.
export OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1 OMPI_MCA_rmaps_base_oversubscribe=1
failed=0

# check TEXT COMMAND...: the command must succeed
check() {
  local text=$1
  shift
  if "$@" >check.log 2>&1; then
    printf 'ok      %s\n' "$text"
  else
    printf 'FAILED  %s\n' "$text"
    tail -n 20 check.log
    failed=$((failed + 1))
  fi
}

# is A B: equal texts
is() { [ "$1" = "$2" ] || { echo "'$1' is not '$2'"; return 1; }; }
