#!/bin/bash
# SMTP on and off; the service scripts may be run at any time.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice

step "restart while off does not start it"
for action in restart start stop; do
  expect "$SCRIPTS/PostfixDaemon.sh" "$action"
  refute portOpen 25
done
run "$SCRIPTS/PostfixDaemon.sh" status
expect equal "$status" 3
run "$SCRIPTS/DovecotDaemon.sh" restart
expect equal "$status:$err" "0:"
run "$SCRIPTS/DovecotDaemon.sh" status
expect equal "$status" 3

step "on: the port is open when the command returns, and mail arrives"
startMail
expect portOpen 25
expect "$SCRIPTS/PostfixDaemon.sh" status
word=$(token)
expect send --to "alice@$DOMAIN" --body "$word"
waitFor inMailbox alice "$word"
refute send --to "nobody-here@$DOMAIN"

step "start twice, restart and reload leave one that serves"
master=$(awk '{ print $1 }' "$T/var/spool/postfix/pid/master.pid")
expect "$SCRIPTS/PostfixDaemon.sh" start
expect "$SCRIPTS/PostfixDaemon.sh" reload
expect equal "$(awk '{ print $1 }' "$T/var/spool/postfix/pid/master.pid")" "$master"
expect "$SCRIPTS/PostfixDaemon.sh" restart
refute kill -0 "$master" 2>/dev/null
expect "$SCRIPTS/DovecotDaemon.sh" start
expect "$SCRIPTS/DovecotDaemon.sh" reload
word=$(token)
expect send --to "alice@$DOMAIN" --body "$word"
waitFor inMailbox alice "$word"

step "off: nothing is left of Postfix, Dovecot serves IMAP"
expect postwell smtp set --enabled no >/dev/null
expect equal "$(openPorts)" 143
refute pgrep -x master
refute pgrep -x qmgr
expect "$SCRIPTS/PostfixDaemon.sh" restart
refute portOpen 25
expect "$SCRIPTS/PostfixDaemon.sh" stop

step "wrong arguments"
for arguments in "" "again" "start now"; do
  # shellcheck disable=SC2086  # each word is an argument
  run "$SCRIPTS/PostfixDaemon.sh" $arguments
  expect equal "$status:$err" "2:usage: PostfixDaemon.sh start|stop|restart|reload|status"
done
for verb in everything ""; do
  run "$SCRIPTS/DaemonConfSet.sh" "$verb"
  expect equal "$status:$err" "2:usage: DaemonConfSet.sh protocol|smtp|alias|spam|mailscanner"
done
run "$SCRIPTS/DovecotDaemon.sh"
expect equal "$status:$err" "2:usage: DovecotDaemon.sh start|stop|restart|reload|status"
