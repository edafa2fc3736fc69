# Completion of Kestrix's programs for bash: commands, options, and files or folders where an option takes them. The
# programs tell their options themselves (--list_options), so that none can be missing here.

_kestrix_files() {
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen "$1" -- "$2")
}

_kestrix() {
  local program=$1 current=$2 previous=$3 table word
  COMPREPLY=()
  local -a ask=("$program")
  case ${program##*/} in
    kestrix_mpi) ask=("${program%_mpi}") ;;  # the same options, without starting MPI
    kestrix_lists) [ "$COMP_CWORD" -eq 1 ] || ask+=("${COMP_WORDS[1]}") ;;
  esac
  table=$("${ask[@]}" --list_options 2>/dev/null) || return 0
  if [[ $previous == -* ]]; then
    word=${previous#-}
    case $(awk -v word="--${word#-}" 'tolower($1) == tolower(word) { print $2 }' <<<"$table") in
      file) _kestrix_files -f "$current"; return 0 ;;
      folder) _kestrix_files -d "$current"; return 0 ;;
      number | text) return 0 ;;
    esac
  fi
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(awk '$2 != "command" { print $1 }' <<<"$table")" -- "$current")
  elif grep -q ' command$' <<<"$table"; then
    mapfile -t COMPREPLY < <(compgen -W "$(awk '$2 == "command" { print $1 }' <<<"$table")" -- "$current")
  else
    _kestrix_files -f "$current"
  fi
}

complete -F _kestrix kestrix kestrix_mpi kestrix_lists kestrix_report kestrix_simulate kestrix_score gpu_probe
