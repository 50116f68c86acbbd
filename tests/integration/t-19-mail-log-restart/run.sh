#!/bin/bash
# The mail log agrees with Postfix's own log although the feed and the collector are
# killed, and the collector is ended, while mail flows.
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

# endCollector SIGNAL, which the feed does not know of; then both run again.
endCollector() {
  local old
  old=$(<$collector)
  expect kill "-$1" "$old"
  waitFor test ! -d "/proc/$old"
  expect "$SCRIPTS/MailLogDaemon.sh" start
}

step "500 messages; the feed is killed, the collector killed and ended, all several times"
smtp-source -m 500 -s 4 -l 2000 -f sender@elsewhere.example -t "team@$DOMAIN" 127.0.0.1:25 &
source=$!
for at in 40 160 280 400; do
  waitFor flowing "$at"
  expect kill -KILL "$(<$feed)"
  waitFor flowing $((at + 30))
  endCollector TERM
  waitFor flowing $((at + 60))
  endCollector KILL
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
# A killed feed may send its last batch again, which the next run has not saved; and a
# killed collector may have stored what it has not told of.
echo "   rows more than deliveries: $(($(rows | wc -l) - 1000))"
expect equal "$(sqlRows "$T/etc/maillog/maillog.db" "PRAGMA integrity_check")" ok
rule=$(dirname "$(readlink -f "$0")")/../t-17-mail-log-feed/rule
expect equal "$(logAsked | sort -u)" "$("$rule" "$MAILLOG" | cut -d ' ' -f 1,3- | sort -u)"
expect equal "$(logAsked --status received --to alice | sort -u | wc -l)" 500
expect equal "$(postwell log count)" "$(rows | wc -l)"
