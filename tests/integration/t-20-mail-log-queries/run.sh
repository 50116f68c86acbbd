#!/bin/bash
# What "postwell log" tells is what Postfix's own log tells, whichever way it is asked.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
rule=$(dirname "$(readlink -f "$0")")/../t-17-mail-log-feed/rule
addUsers alice bob
startMail
expect postwell alias add team --user alice --user bob >/dev/null
cat >"$ADDITIONS/postfix-main.cf" <<'EOC'
transport_maps = inline:{ok.example=smtp:[127.0.0.1]:2601, no.example=smtp:[127.0.0.1]:2602}
EOC
expect "$SCRIPTS/DaemonConfSet.sh" smtp
smtp-sink -u nobody 127.0.0.1:2601 10 &
smtp-sink -u nobody -f RCPT 127.0.0.1:2602 10 &

step "nothing yet: it says why"
run postwell log list
expect equal "$status:$out" "0:"
expect contains "$err" "maillogd is not running"
expect contains "$err" "mailfeed is not running"
refute test -e "$T/etc/maillog/maillog.db"
expect "$SCRIPTS/MailLogDaemon.sh" start

step "mail of each kind"
expect send --to "team@$DOMAIN" --from "o'hara%_x@elsewhere.example"
expect send --to friend@ok.example
expect send --to friend@no.example
expect send --to friend@later.example  # nobody answers there
head -c 300000 /dev/zero | base64 >"$WORLD/large"
expect send --to "bob@$DOMAIN" --body "@$WORLD/large"
told() { "$rule" "$MAILLOG" | cut -d ' ' -f 1,3- | sort; }
waitFor mailLogHas 7
expect "$SCRIPTS/MailLogDaemon.sh" stop

# asked OPTION...: the entries, as "rule" tells them.
asked() {
  postwell log list --limit 1000 --json "$@" | python3 -c 'import json, sys
for e in json.load(sys.stdin):
    print(e["status"], "<%s>" % e["from"], "<%s>" % e["to"], e["size"], e["message_id"])' | sort
}
toldLike() { told | grep -- "$1"; }

step "all of them, and by status, recipient, sender, size"
expect equal "$(asked)" "$(told)"
expect equal "$(asked --all)" "$(told)"
for status in received sent bounced resent; do
  expect equal "$(asked --status "$status")" "$(toldLike "^$status ")"
  expect equal "$(postwell log count --status "$status")" "$(toldLike "^$status " | wc -l)"
done
expect equal "$(asked --to bob)" "$(toldLike "<bob@$DOMAIN>")"
expect equal "$(asked --from "o'hara%_x")" "$(toldLike "<o'hara%_x@")"
expect equal "$(asked --larger 100K)" "$(told | awk '$4 > 102400')"
expect equal "$(asked --smaller 100K)" "$(told | awk '$4 < 102400')"
expect equal "$(asked --since -1h)" "$(told)"
expect equal "$(asked --until -1h)" ""
expect equal "$(asked --from "x' OR '1'='1")" ""

step "the traffic"
sums=$(postwell log stats --csv | python3 -c 'import csv, sys
rows = list(csv.DictReader(sys.stdin))
print(*(sum(int(float(r[k])) for r in rows) for k in ("received", "sent", "bounced")))')
expect equal "$sums" "$(toldLike '^received' | wc -l) $(toldLike '^sent' | wc -l) $(toldLike '^bounced' | wc -l)"

step "emptied, when one means it"
run postwell log clear </dev/null
refute test "$status" = 0
expect equal "$(asked)" "$(told)"
expect postwell log clear --yes >/dev/null
expect equal "$(asked)" ""
