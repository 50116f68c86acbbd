#!/bin/bash
# PostfixDaemon.sh start|stop|restart|reload|status
#
#   start    unless SMTP is off in the settings; makes a missing configuration;
#            returns when the SMTP ports accept connections
#   stop     returns when all its processes have ended
#   restart  stop, then start: with SMTP off Postfix stays stopped
#   reload   makes a running Postfix read its configuration again
#   status   exit status 0 when it runs, 3 when it does not
#
# Every verb may be given at any time; what is already so is left so. Exit
# status 0; 1 with one line on stderr and in the system log; 2 for wrong
# arguments.

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=common.sh
. "$here/common.sh"

running() { daemonPid "$QUEUE/pid/master.pid" master >/dev/null; }

# The TCP ports of master.cf. Names of services count as well.
ports() { postconf -c "$POSTFIX" -M 2>/dev/null | awk '$2 == "inet" { sub(/.*:/, "", $1); print $1 }'; }

serving() {
  local port
  for port in $(ports); do listening "$port" || return 1; done
}

start() {
  local from
  readSettings
  if ! enabled smtp_enabled; then
    stop
    return
  fi
  needs postconf Postfix
  if running; then return; fi
  [[ -e $POSTFIX/main.cf && -e $POSTFIX/master.cf ]] || "$here/DaemonConfSet.sh" smtp || exit 1
  prepareFolders
  from=$(($(stat -c %s "$LOGS/maillog") + 1))
  { startQuietly postfix -c "$POSTFIX" start && waitFor 10 serving; } ||
    fail "Postfix does not start: $(reason "$said"$'\n'"$(tail -c "+$from" "$LOGS/maillog")")"
}

stop() { stopDaemon "$QUEUE/pid/master.pid" master; }

reload() {
  running || return 0
  startQuietly postfix -c "$POSTFIX" reload || fail "Postfix does not reload: $(reason "$said")"
}

serviceVerb postfix "$@"
