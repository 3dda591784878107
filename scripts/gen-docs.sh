#!/usr/bin/env bash
# Man pages and bash completion made from a program's own --help, so they cannot drift from it:
#   scripts/gen-docs.sh man PROGRAM VERSION   a section 1 man page on standard output
#   scripts/gen-docs.sh completion PROGRAM    a bash completion script on standard output
# Commands are found under "Subcommands:" in the help texts, options under "Options:".
set -euo pipefail
mode=$1
program=$2
name=$(basename "$program")

help_of() { "$program" "$@" --help; }
# The command names, or the option names, listed in a help text.
commands_in() { awk '/^Subcommands:/ { on = 1; next } /^$/ { on = 0 } on && /^  [a-z]/ { print $1 }'; }
options_in() {
  awk '/^Options:/ { on = 1; next } /^$/ { on = 0 } on { print $1 }' | tr ',' '\n' | grep -E '^-' || true
}
# Every command path below the program, depth first: "device", "device add", ...
paths() {
  local prefix=("$@") command
  for command in $(help_of "${prefix[@]}" | commands_in); do
    echo "${prefix[*]} $command" | sed 's/^ //'
    # shellcheck disable=SC2046
    paths "${prefix[@]}" "$command"
  done
}
roff() { sed -e 's/\\/\\e/g' -e "s/^\\([.']\\)/\\\\\\&\\1/"; }

case $mode in
man)
  version=$3
  text=$(help_of)
  # The first sentence of the description.
  summary=$(grep -v -e '^Usage:' -e '^$' <<<"$text" | head -1 | sed 's/[.:] .*//; s/[.:]$//')
  echo ".TH $(tr '[:lower:]' '[:upper:]' <<<"$name") 1 \"\" \"$name $version\" \"User Commands\""
  echo ".SH NAME"
  printf '%s \\- %s\n' "$name" "$(roff <<<"$summary")"
  echo ".SH SYNOPSIS"
  grep '^Usage:' <<<"$text" | head -1 | sed 's/^Usage: //' | roff
  echo ".SH DESCRIPTION"
  echo ".nf"
  roff <<<"$text"
  echo ".fi"
  all=$(paths)
  if [[ -n $all ]]; then
    echo ".SH COMMANDS"
    while read -r path; do
      echo ".SS $name $path"
      echo ".nf"
      # shellcheck disable=SC2086
      help_of $path | roff
      echo ".fi"
    done <<<"$all"
  fi
  ;;
completion)
  function=_${name//-/_}
  echo "# bash completion for $name, generated from its --help."
  echo "$function() {"
  echo '  local cur=${COMP_WORDS[COMP_CWORD]} path="" word words'
  echo '  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do'
  echo '    case "$path $word" in'
  paths | sed 's/^/ /; s/.*/      "&") path="$path $word" ;;/'
  echo '    esac'
  echo '  done'
  echo '  case "$path" in'
  while read -r path; do
    # shellcheck disable=SC2086
    text=$(help_of $path)
    words=$( (commands_in <<<"$text"; options_in <<<"$text") | tr '\n' ' ' | sed 's/ $//')
    echo "    \"${path:+ $path}\") words=\"$words\" ;;"
  done < <(echo; paths)
  echo '  esac'
  echo '  COMPREPLY=($(compgen -W "$words" -- "$cur"))'
  echo "}"
  echo "complete -F $function $name"
  ;;
*)
  echo "usage: $0 man PROGRAM VERSION | completion PROGRAM" >&2
  exit 64
  ;;
esac
