#!/bin/bash
# check-install.sh
#
# Compares what is installed with the package's manifest and prints a line for
# each deviation: missing, another type, owner, group or mode. Exit status 0 when
# there is none, 1 when there is, 2 for wrong arguments.

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=common.sh
. "$here/common.sh"
[[ $# -eq 0 ]] || usage "(takes no arguments)"

# What "stat" calls the type of an entry.
fileType() {
  case $1 in
    dir) echo directory ;;
    link) echo 'symbolic link' ;;
    *) echo 'regular file' ;;
  esac
}

# differ PATH WHAT IS EXPECTED
differ() {
  [[ $3 != "$4" ]] || return 0
  echo "$1: $2 is $3, expected $4"
  return 1
}

# One entry; the columns are the manifest's.
check() {
  local path=$1 options=(-L -c '%F/%U/%G/%a') type owner group mode good=0
  if [[ $2 == link ]]; then options=("${options[@]:1}"); fi
  IFS=/ read -r type owner group mode < <(stat "${options[@]}" "$path" 2>/dev/null)
  if [[ -z $type ]]; then
    echo "$path: missing"
    return 1
  fi
  differ "$path" type "${type/regular empty/regular}" "$(fileType "$2")" || good=1
  differ "$path" owner "$owner" "$3" || good=1
  differ "$path" group "$group" "$4" || good=1
  if [[ $2 == link ]]; then differ "$path" target "$(readlink "$path")" "$6" || good=1; fi
  if [[ $5 != - ]]; then differ "$path" mode "0$mode" "$5" || good=1; fi
  return "$good"
}

status=0
while read -r -a entry; do
  [[ ${#entry[@]} -gt 0 && ${entry[0]} != \#* ]] || continue
  check "${entry[@]}" || status=1
done <"$T/manifest" || fail "cannot read $T/manifest"
exit "$status"
