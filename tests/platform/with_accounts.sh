#!/bin/sh
# Runs a program on a machine with known accounts: its own name service files and
# login.defs, put over the real ones in private mounts.
#
#   with_accounts.sh PROGRAM [ARGUMENT...]
#
# Exit status: the program's own; 125 when the accounts cannot be shown.

data=$(dirname "$0")/accounts
if [ $# -eq 0 ] || [ ! -d "$data" ]; then
  echo "usage: $0 PROGRAM [ARGUMENT...]" >&2
  exit 125
fi
export ACCOUNTS="$data"

# shellcheck disable=SC2016  # expanded by the inner shell
exec unshare --map-root-user --mount sh -c '
  for file in passwd nsswitch.conf login.defs; do
    mount --bind "$ACCOUNTS/$file" "/etc/$file" || exit 125
  done
  exec "$@"' sh "$@"
