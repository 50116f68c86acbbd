#!/bin/bash
# The mail log agrees with Postfix's own log although the feed is killed and the
# collector is ended while mail flows.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice bob
startMail
expect postwell alias add team --user alice --user bob >/dev/null
feed=/run/postwell/mailfeed/mailfeed.pid
collector=/run/postwell/maillogd.pid

# What Postfix's log says was delivered, a line "queue-id recipient status" each: here
# there are mailboxes only.
delivered() {
  sed -nE 's/.*\/lmtp\[[0-9]+\]: ([[:alnum:]]+): to=<([^>]*)>.*status=sent .*/\1 \2 1/p' "$MAILLOG"
}
rows() { mailLogRows "queue_id, mail_to, status"; }
removed() { grep -c ': removed$' "$MAILLOG"; }
flowing() { (($(removed) >= $1)); }

step "nothing runs, then both do"
run "$SCRIPTS/MailLogDaemon.sh" status
expect equal "$status" 3
expect "$SCRIPTS/MailLogDaemon.sh" start
expect "$SCRIPTS/MailLogDaemon.sh" status
expect equal "$(stat -c '%U:%G %a' /run/maillog.sock)" "root:postfix 660"
expect equal "$(stat -c %U "/proc/$(<$feed)")" postfix

step "500 messages; the feed is killed, the collector ended, both several times"
smtp-source -m 500 -s 4 -l 2000 -f sender@elsewhere.example -t "team@$DOMAIN" 127.0.0.1:25 &
source=$!
for at in 50 150 250 350; do
  waitFor flowing "$at"
  expect kill -KILL "$(<$feed)"
  waitFor flowing $((at + 50))
  old=$(<$collector)
  expect kill -TERM "$old"
  waitFor test ! -d "/proc/$old"
  expect "$SCRIPTS/MailLogDaemon.sh" start
done
expect wait "$source"
waitFor flowing 500

step "what was received is stored when they stop, and agrees"
caughtUp() {
  "$T/bin/mailfeed" --status --json | python3 -c 'import json, sys
status = json.load(sys.stdin)
sys.exit(status["records_waiting"] != 0 or status["last_line"] != sys.argv[1])' "$(tail -n 1 "$MAILLOG")"
}
expect "$SCRIPTS/MailLogDaemon.sh" restart
waitFor caughtUp
expect "$SCRIPTS/MailLogDaemon.sh" stop
expect equal "$(delivered | sort -u | wc -l)" 1000
expect equal "$(rows | sort -u)" "$(delivered | sort -u)"
# A killed feed may send its last batch again, which the next run has not saved.
echo "   rows more than deliveries: $(($(rows | wc -l) - 1000))"
expect equal "$(sqlRows "$T/etc/maillog/maillog.db" "PRAGMA integrity_check")" ok
