#!/bin/bash
# SpamClean.sh
#
# Deletes from each user's mail folder "Junk", which mail programs are told is the one for
# spam, what has been there for longer than the days of spam_clean_interval; with 0, or
# while the spam filter is off, nothing. The system's cron runs it once a day
# (/etc/cron.daily/postwell). Exit status 0; 1 with one line on stderr and in the system
# log; 2 for wrong arguments.

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=common.sh
. "$here/common.sh"
[[ $# -eq 0 ]] || usage "(takes no arguments)"

readSettings
enabled spam_enable || exit 0
expectNumber spam_clean_interval 0 9999 "a number of days, or 0 for never,"
((settings[spam_clean_interval])) || exit 0
"$here/DovecotDaemon.sh" status || exit 0  # which knows each user's mail

# Only who has the folder is asked about: to Dovecot a missing one is a failure.
problem=
while IFS=: read -r user _ _ _ _ home _; do
  [[ -d $home/Maildir/.Junk ]] || continue
  message=$(doveadm -c "$DOVECOT/dovecot.conf" expunge -u "$user" mailbox Junk \
    savedbefore "${settings[spam_clean_interval]}d" </dev/null 2>&1) || problem=$message
done < <(getent passwd)
[[ -z $problem ]] || fail "cannot clean a folder for spam: $(reason "$problem")"
