# Sourced by the scripts in bash, also by debian.bash, before they change their directory and do anything.
# shellcheck shell=bash

# usage: prints how the script's first comment begins, up to the colon, and ends the script.
usage() {
  sed -n '2{s/^# \([^:]*\):.*/usage: \1/p}' "$0" >&2
  exit 2
}

# usage_unless 'LEAST[-MOST] [OPTION...]' ARGUMENT...: when asked for --help, the script prints its first
# comment, and ends. It ends by `usage` where an option in front is none of those named, or where more or
# fewer words than that follow the options; without MOST, as many as one likes.
usage_unless() {
  local limits options least most
  read -r limits options <<<"$1"
  shift
  if [[ ${1:-} == --help ]]; then
    sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
    exit
  fi
  while [[ ${1:-} == -* && " $options " == *" $1 "* ]]; do shift; done
  least=${limits%-*} most=$#
  [[ $limits != *-* ]] || most=${limits#*-}
  if [[ ${1:-} == -* ]] || (($# < least || $# > most)); then
    usage
  fi
}
