#!/bin/sh
# exported_symbols.sh - compare what a library exports with the list that is kept.
#
# Usage: exported_symbols.sh LIBRARY LIST
#
# A symbol that is gone breaks programs; one that is new must be meant. After a
# meant change: nm -DC --defined-only LIBRARY, cut as below, into LIST.
set -eu
found=$(nm -DC --defined-only "$1" | cut -d' ' -f3- | sed 's/@@.*//' | LC_ALL=C sort -u)
printf '%s\n' "$found" | diff -u "$2" - || {
  echo "the exported symbols (+) are not those listed (-) in $2" >&2
  exit 1
}
objdump -p "$1" | grep -q 'SONAME *libpostwell\.so\.1$' || {
  echo "the SONAME is not libpostwell.so.1" >&2
  exit 1
}
