#!/bin/bash
# MailScanner.sh start|stop|restart|status
#
# The milters by which Postfix shows each mail to the virus scanner (kest_anti-virus) and to
# the spam filter (SpamDaemon.sh).
#
#   start    those that are on in the settings, and stops the other; makes a missing
#            configuration; returns when they accept connections
#   stop     both; returns when all their processes have ended
#   restart  stop, then start: what is off stays stopped
#   status   exit status 0 when all run that are on in the settings, 3 when one does not
#            or none is on
#
# Every verb may be given at any time; what is already so is left so. Exit
# status 0; 1 with one line on stderr and in the system log; 2 for wrong
# arguments.

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=common.sh
. "$here/common.sh"

# running MILTER SOCKET: by its pid file, beside its socket.
milterRuns() { daemonPid "${2%.sock}.pid" "$1" >/dev/null; }

# The library looks for the signal every five seconds.
stopMilter() { stopDaemon "${2%.sock}.pid" "$1" 10; }

# The milters: each on its switch, and by name, socket and user.
spam=(spamass-milter "$SPAM_MILTER" "$SPAM_CLIENT")
virus=(clamav-milter "$VIRUS_MILTER" "$VIRUS_USER")

running() {
  readSettings
  enabled spam_enable || enabled anti_virus_enable || return 1
  { ! enabled spam_enable || milterRuns "${spam[@]}"; } &&
    { ! enabled anti_virus_enable || milterRuns "${virus[@]}"; }
}

# launch NAME SOCKET USER COMMAND...: a milter that takes mail, or the end of the script.
# The folder keeps out everybody but Postfix; the socket must be open to all.
launch() {
  local name=$1 socket=$2 user=$3
  shift 3
  { install -d -m 755 "$RUN" && install -d -m 750 -o "$user" -g postfix "${socket%/*}"; } ||
    fail "cannot prepare ${socket%/*}"
  rm -f "$socket"
  { startQuietly "$@" && waitFor 10 test -S "$socket" && waitFor 10 milterRuns "$name" "$socket"; } ||
    fail "$name does not start: $(reason "${said:-the system log tells why}")"
}

# detached COMMAND...: for a daemon in the foreground. The milter of ClamAV may wait for itself
# for ever when it goes to the background: its signal to go on may come too early.
detached() { setsid "$@" >/dev/null 2>&1 & }

# open COMMAND...: what it makes is open to all. The other milter has a setting for its socket.
open() { (umask 000 && exec "$@"); }

# What it could not show to spamd, because that one was just being replaced, it
# shows again. Mail of authenticated senders is not judged.
startSpamMilter() {
  ! milterRuns "${spam[@]}" || return 0
  needs spamass-milter "the milter of SpamAssassin"
  launch "${spam[@]}" open setpriv --reuid "$SPAM_CLIENT" --regid "$SPAM_CLIENT" --clear-groups \
    spamass-milter -f -p "$SPAM_MILTER" -P "${SPAM_MILTER%.sock}.pid" -I -- \
    -U "$SPAMD_SOCKET" --filter-retries 3
}

startVirusMilter() {
  ! milterRuns "${virus[@]}" || return 0
  needs clamav-milter "the milter of ClamAV"
  [[ -e $VIRUS/clamav-milter.conf ]] || "$here/DaemonConfSet.sh" mailscanner || exit 1
  # the mail it was looking at when it was killed
  rm -rf "$STATE/clamav-milter"
  { install -d -m 755 "$STATE" && install -d -m 700 -o "$VIRUS_USER" "$STATE/clamav-milter"; } ||
    fail "cannot prepare $STATE/clamav-milter"
  launch "${virus[@]}" detached clamav-milter --foreground -c "$VIRUS/clamav-milter.conf"
}

start() {
  readSettings
  if enabled anti_virus_enable; then startVirusMilter; else stopMilter "${virus[@]}"; fi
  if enabled spam_enable; then startSpamMilter; else stopMilter "${spam[@]}"; fi
}

# At the same time, as each may take its five seconds.
stop() {
  stopMilter "${virus[@]}" &
  stopMilter "${spam[@]}"
  wait "$!" || exit 1
}

serviceVerb mailscanner "$@"
