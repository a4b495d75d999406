# Sourced by every script in bash, directly or by debian.bash, before it does anything and changes its directory.
# shellcheck shell=bash

# usage: prints how the script's first comment begins, up to the colon, and ends the script.
usage() {
  sed -n '2{s/^# \([^:]*\):.*/usage: \1/p}' "$0" >&2
  exit 2
}

# usage_unless 'LEAST[-MOST] [OPTION...]' ARGUMENT...: when asked for --help, the script prints its first
# comment, and ends. So it does by `usage` where an option in front is none of those named, or where the
# number of what follows the options is another one.
usage_unless() {
  local limits options least most
  read -r limits options <<<"$1"
  shift
  if [[ ${1:-} == --help ]]; then
    sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
    exit
  fi
  while [[ ${1:-} == -* && " $options " == *" $1 "* ]]; do shift; done
  least=${limits%-*} most=${limits#"$least"}
  if [[ ${1:-} == -* ]] || (($# < least || $# > ${most:+-}${most:-$#})); then
    usage
  fi
}
