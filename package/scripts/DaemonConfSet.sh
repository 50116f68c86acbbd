#!/bin/bash
# DaemonConfSet.sh protocol|smtp|alias|spam|mailscanner
#
# Makes a daemon's configuration from the settings, from nothing each time:
#   protocol  Dovecot: target/etc/dovecot/dovecot.conf
#   smtp      Postfix: target/etc/postfix/{main.cf,master.cf,sasl_passwd}; a
#             running Postfix reads it at once, for callers that do not restart
#   alias     Postfix's alias database, from alias.db: target/etc/postfix/aliases
#   spam      SpamAssassin: target/etc/spamassassin/{local.cf,*.pre}, and its black and
#             white lists; a running spamd reads them at once. While the filter is off, a
#             configuration that cannot be made is told, and is no failure
#   mailscanner  ClamAV, when the virus scanner is on:
#             target/etc/clamav/{clamd.conf,clamav-milter.conf}; Postfix's configuration
#             and a running spamd follow all settings of mail security
#
# A new configuration is put together in a folder of its own and checked by the
# daemon's own tools before it takes the old one's place. Exit status 0; 1 when
# a setting or the administrator's additions are not acceptable, with one line on
# stderr and in the system log and the old configuration in force; 2 for wrong
# arguments. Each verb's generator is a file in generate/.

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=common.sh
. "$here/common.sh"

verbs='protocol|smtp|alias|spam|mailscanner'
[[ $# -eq 1 ]] || usage "$verbs"
case $1 in
  protocol | smtp | alias | spam | mailscanner) ;;
  *) usage "$verbs" ;;
esac

# shellcheck source=/dev/null
. "$here/generate/$1.sh"
# The old lists are better than no configuration: when they cannot be made, that is only
# told, and the maker says why.
makeSpamLists() {
  "$T/bin/kest_spam_blackwhite" || echo "the spam filter does not follow its black and white lists" >&2
}

lock configuration
readSettings
prepareFolders
generate
unlock  # the service scripts have their own locks, and their holders may wait for ours
case $1 in
  smtp)
    # accounts stand in the lists for their addresses in the domains
    ! enabled spam_enable || makeSpamLists
    "$here/PostfixDaemon.sh" reload
    ;;
  spam)
    makeSpamLists
    "$here/SpamDaemon.sh" reload
    ;;
  mailscanner)
    # which of the filters Postfix asks stands in its own configuration
    [[ ! -e $POSTFIX/main.cf ]] || "$here/DaemonConfSet.sh" smtp || exit 1
    "$here/SpamDaemon.sh" reload
    ;;
esac
