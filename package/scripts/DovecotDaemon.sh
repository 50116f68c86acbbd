#!/bin/bash
# DovecotDaemon.sh start|stop|restart|reload|status
#
#   start    when a protocol or SMTP is on in the settings: Postfix delivers and
#            authenticates through Dovecot; makes a missing configuration;
#            returns when all its ports and sockets accept connections
#   stop     returns when all its processes have ended
#   restart  stop, then start
#   reload   makes a running Dovecot read its configuration again
#   status   exit status 0 when it runs, 3 when it does not
#
# Every verb may be given at any time; what is already so is left so. Exit
# status 0; 1 with one line on stderr and in the system log; 2 for wrong
# arguments.

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=common.sh
. "$here/common.sh"

running() { daemonPid "$RUN/dovecot/master.pid" dovecot >/dev/null; }

needed() {
  local key
  for key in pop3 pop3s imap imaps smtp; do
    if enabled "${key}_enabled"; then return 0; fi
  done
  return 1
}

ports() { doveconf -h -c "$DOVECOT/dovecot.conf" service/{imap,pop3}-login/inet_listener/{imap,imaps,pop3,pop3s}/port 2>/dev/null; }

serving() {
  local port
  [[ -S $QUEUE/private/auth && -S $QUEUE/private/dovecot-lmtp ]] || return 1
  for port in $(ports); do ((port == 0)) || listening "$port" || return 1; done
}

start() {
  readSettings
  if ! needed; then
    stop
    return
  fi
  needs doveconf Dovecot
  if running; then return; fi
  [[ -e $DOVECOT/dovecot.conf ]] || "$here/DaemonConfSet.sh" protocol || exit 1
  prepareFolders
  { startQuietly dovecot -c "$DOVECOT/dovecot.conf" && waitFor 10 serving; } ||
    fail "Dovecot does not start: $(reason "$said")"
}

stop() { stopDaemon "$RUN/dovecot/master.pid" dovecot; }

reload() {
  running || return 0
  startQuietly doveadm -c "$DOVECOT/dovecot.conf" reload ||
    fail "Dovecot does not reload: $(reason "$said")"
}

serviceVerb dovecot "$@"
