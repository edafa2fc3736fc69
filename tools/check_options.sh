#!/usr/bin/env bash
# Holds the options that the programs have against their man pages and against what the shell's completion offers:
#   tools/check_options.sh [BUILD]                                             (default: build)
# Ends with 1 where a page lacks an option or tells of one that isn't there, or where the completion offers anything else.
set -eu
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
root=$PWD
failed=0

fail() {
  echo "$1"
  failed=1
}

# what PROGRAM [COMMAND]: its options
options_of() { "$build/$1" "${@:2}" --list_options | awk '$2 != "command" { print $1 }' | sort -u; }

options_on_page() {
  sed 's/\\-/-/g' "docs/$1.1" | grep -oE -- '--[A-Za-z][A-Za-z0-9_]*' | tr '[:upper:]' '[:lower:]' | sort -u
}

check_page() {
  local there documented
  there=$({ options_of "$1"
            "$build/$1" --list_options | awk '$2 == "command" { print $1 }' | while read -r c; do options_of "$1" "$c"; done
          } | tr '[:upper:]' '[:lower:]' | sort -u)  # options may be written in any case
  documented=$(options_on_page "$1")
  while read -r option; do
    [ -z "$option" ] || fail "docs/$1.1 doesn't tell of $option"
  done < <(comm -23 <(echo "$there") <(echo "$documented") | grep -vE '^--(help|version)$')
  # A page may name options of the other programs that it speaks of.
  while read -r option; do
    [ -z "$option" ] || fail "docs/$1.1 tells of $option, which $1 doesn't have"
  done < <(comm -13 <(echo "$there") <(echo "$documented") | comm -23 - <(echo "$all_options"))
}

# offered WORD...: what the completion offers for the last word of a command line
offered() {
  (
    cd "$work"
    compopt() { :; }
    . "$root/packaging/kestrix.bash"
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    _kestrix "$build/$1" "${!#}" "${COMP_WORDS[COMP_CWORD - 1]}"
    printf '%s\n' "${COMPREPLY[@]}" | sort
  )
}

expect_offer() {
  local want=$1
  shift
  [ "$(offered "$@")" = "$want" ] || fail "completing '$*' offers $(offered "$@" | tr '\n' ' '), not $(tr '\n' ' ' <<<"$want")"
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/folder"
touch "$work/with blank.mrc" "$work/file.star"
everything=$(printf '%s\n' file.star folder 'with blank.mrc' | sort)

programs="kestrix kestrix_lists kestrix_report kestrix_simulate kestrix_score gpu_probe"
all_options=$(for p in $programs; do options_of "$p"; done
              "$build/kestrix_lists" --list_options | awk '$2 == "command" { print $1 }' |
                while read -r c; do options_of kestrix_lists "$c"; done)
all_options=$(tr '[:upper:]' '[:lower:]' <<<"$all_options" | sort -u)

for program in $programs; do
  check_page "$program"
  [ "$program" = kestrix_lists ] || expect_offer "$(options_of "$program")" "$program" --
done
for command in $("$build/kestrix_lists" --list_options | awk '$2 == "command" { print $1 }'); do
  expect_offer "$(options_of kestrix_lists "$command")" kestrix_lists "$command" --
done
expect_offer "$("$build/kestrix_lists" --list_options | awk '$2 == "command" { print $1 }' | sort)" kestrix_lists ""
expect_offer "$everything" kestrix --auto 1 ""
expect_offer "$everything" kestrix --T ""
expect_offer "with blank.mrc" kestrix --T "wi"
expect_offer folder kestrix --ODIR ""
expect_offer "" kestrix --apixM ""
expect_offer "--do_bandpass
--do_ctf
--do_local_ctf
--do_pre_filter
--do_unfinished" kestrix --do_
expect_offer "$everything" kestrix_lists select --selection ""

[ "$failed" -ne 0 ] || echo "The options of $(wc -w <<<"$programs") programs stand on their man pages and are offered by the completion."
exit $failed
