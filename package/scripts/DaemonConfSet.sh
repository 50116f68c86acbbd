#!/bin/bash
# DaemonConfSet.sh protocol|smtp|alias
#
# Makes a daemon's configuration from the settings, from nothing each time:
#   protocol  Dovecot: target/etc/dovecot/dovecot.conf
#   smtp      Postfix: target/etc/postfix/{main.cf,master.cf,sasl_passwd}; a
#             running Postfix reads it at once, for callers that do not restart
#   alias     Postfix's alias database, from alias.db: target/etc/postfix/aliases
#
# A new configuration is put together in a folder of its own and checked by the
# daemon's own tools before it takes the old one's place. Exit status 0; 1 when
# a setting or the administrator's additions are not acceptable, with one line on
# stderr and in the system log and the old configuration in force; 2 for wrong
# arguments. Each verb's generator is a file in generate/.

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=common.sh
. "$here/common.sh"

verbs='protocol|smtp|alias'
[[ $# -eq 1 ]] || usage "$verbs"
case $1 in
  protocol | smtp | alias) ;;
  *) usage "$verbs" ;;
esac

# shellcheck source=/dev/null
. "$here/generate/$1.sh"
lock configuration
readSettings
prepareFolders
generate
unlock  # the service script has its own lock, and its holder may wait for ours
if [[ $1 == smtp ]]; then "$here/PostfixDaemon.sh" reload; fi
