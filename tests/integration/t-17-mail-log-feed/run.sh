#!/bin/bash
# Every delivery in the real Postfix's log reaches the mail log's collector as one
# record, whatever kind of mail it is, across a rotation of the log and kills of the feed.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
here=$(dirname "$(readlink -f "$0")")
rows=$WORLD/rows
pidFile=/run/postwell-feed/pid
addUsers alice bob carol dave
cat >"$ADDITIONS/postfix-main.cf" <<'EOC'
always_bcc = dave
forward_path = /var/services/homes/$user/.forward
transport_maps = inline:{ok.example=smtp:[127.0.0.1]:2601, no.example=smtp:[127.0.0.1]:2602, later.example=smtp:[127.0.0.1]:2603}
EOC
startMail
smtp-sink -u nobody 127.0.0.1:2601 10 &
smtp-sink -u nobody -f RCPT 127.0.0.1:2602 10 &

: >"$rows"
"$here/collector" /var/run/maillog.sock "$rows" &
standIn=$!
waitFor test -S /var/run/maillog.sock
install -d -o postfix "$(dirname "$pidFile")" "$T/var/lib/mailfeed"

# As the package runs it: as Postfix's user.
startFeed() {
  expect setpriv --reuid postfix --regid postfix --clear-groups \
    "$T/bin/mailfeed" --background --pid-file "$pidFile"
}
feedPid() { cat "$pidFile"; }

# rowLike PATTERN, rowCount PATTERN: rows that have come so far.
rowLike() { grep -qE -- "$1" "$rows"; }
rowCount() { grep -cE -- "$1" "$rows"; }
# Each kind is sent to "friend" or a user and has a word of its own as sender.
mailFrom() {
  word=$(token)
  sender=$word@elsewhere.example
  expect send --from "$sender" "$@"
}
# expectRows STATUS TO COUNT: in all, those of the last mail that have this status and
# recipient; each mail also reaches dave, as the blind copy of all.
expectRows() {
  waitFor rowLike "^received .* <$sender> <dave@$DOMAIN> "
  waitFor rowLike "^$1 .* <$sender> <$2> "
  expect equal "$(rowCount "^$1 .* <$sender> <$2> ")" "$3"
}
logs=("$MAILLOG")
# What differs is left in the world's folder.
rowsMatchTheLog() { diff <(sort "$rows") <("$here/rule" "${logs[@]}" | sort) >"$WORLD/rows.diff"; }

startFeed

step "received"
mailFrom --to "alice@$DOMAIN"
expectRows received "alice@$DOMAIN" 1

step "sent"
mailFrom --to friend@ok.example --server 127.0.0.1
expectRows sent friend@ok.example 1

step "bounced, and the report of it"
mailFrom --to friend@no.example
expectRows bounced friend@no.example 1

step "an alias to three"
expect postwell alias add team --user alice --user bob --user carol >/dev/null
mailFrom --to "team@$DOMAIN"
for user in alice bob carol; do expectRows received "$user@$DOMAIN" 1; done

step "deferred, then sent"
mailFrom --to friend@later.example
expectRows resent friend@later.example 1
smtp-sink -u nobody 127.0.0.1:2603 10 &
waitFor portOpen 2603
expect postqueue -c "$POSTFIX" -f
waitFor rowLike "^sent .* <$sender> <friend@later.example> "
expect equal "$(rowCount "<$sender> <friend@later.example> ")" 2

step "a user's .forward, to another user, outside and a command"
install -m 600 -o carol /dev/stdin /var/services/homes/carol/.forward <<EOF2
bob, friend@ok.example, "|cat >/dev/null"
EOF2
mailFrom --to "carol@$DOMAIN"
expectRows received "bob@$DOMAIN" 1
waitFor rowLike "^sent .* <$sender> <friend@ok.example> "
waitFor mailLogged "to=<carol@$DOMAIN>.*delivered to command"
refute rowLike "<$sender> <carol@$DOMAIN> "

step "a refused recipient: no row"
sender=refused@elsewhere.example
refute send --from "$sender" --to "nobody-of-this-name@$DOMAIN"
expect contains "$out" "550 5.1.1"
waitFor mailLogged "NOQUEUE: reject: .*$sender"

step "a large message"
head -c 6000000 /dev/urandom | base64 >"$WORLD/large"
mailFrom --to "bob@$DOMAIN" --body "@$WORLD/large"
expectRows received "bob@$DOMAIN" 1
expect test "$(awk -v f="<$sender>" '$3 == f { print $5; exit }' "$rows")" -gt 8000000

step "an empty sender"
sender=
expect send --from '<>' --to "alice@$DOMAIN" --h-Message-Id '<empty-sender@elsewhere.example>'
waitFor rowLike "^received .* <> <alice@$DOMAIN> [0-9]+ empty-sender@elsewhere.example"

step "500 quotes as Message-ID"
quotes=$(printf "'%.0s" {1..500})
mailFrom --to "bob@$DOMAIN" --h-Message-Id "<$quotes>"
expectRows received "bob@$DOMAIN" 1
expect rowLike "^received .* <$sender> <bob@$DOMAIN> [0-9]+ $quotes$"

step "addresses that look like the rest of a log line"
expect python3 - <<'EOP'
import smtplib
smtplib.SMTP("127.0.0.1").sendmail(
    '"a>, size=1, nrcpt=1 (queue active)"@elsewhere.example',
    ['"x>, relay=none, dsn=2.0.0, status=bounced (y"@ok.example'], "Subject: x\r\n\r\nx")
EOP
waitFor rowLike '^sent .* <"a>, size=1, nrcpt=1 \(queue active\)"@elsewhere.example> <"x>, relay=none, dsn=2.0.0, status=bounced \(y"@ok.example> [0-9]{3} '

step "all rows are those that the log tells of, and the status agrees"
waitFor rowsMatchTheLog
statusAgrees() {
  equal "$("$T/bin/mailfeed" --status --json | python3 -c 'import json, sys
s = json.load(sys.stdin)
print(s["records_sent"], s["lines_not_understood"], s["running"])')" "$(wc -l <"$rows") 0 True"
}
waitFor statusAgrees  # it is written after the records have been taken

# sendMany COUNT: in the background; its process is in $source.
sendMany() {
  smtp-source -m "$1" -s 4 -f many@elsewhere.example -t "alice@$DOMAIN" 127.0.0.1:25 &
  source=$!
}
manyCame() { (($(rowCount "<many@elsewhere.example> <alice@") >= $1)); }
# A queue manager that is reloaded in the middle leaves some mail for its next round.
allDelivered() { postqueue -c "$POSTFIX" -f && ! postqueue -c "$POSTFIX" -p | grep -q many@elsewhere.example; }

step "the log is rotated in the middle of 200 messages"
sendMany 200
waitFor manyCame 1
logs=("$MAILLOG.1" "$MAILLOG")
expect mv "${logs[1]}" "${logs[0]}"
expect install -m 640 -o postfix /dev/null "$MAILLOG"
expect postfix -c "$POSTFIX" reload >/dev/null 2>&1
expect wait "$source"
waitFor allDelivered
# Of the lines of that moment Postfix itself may lose some.
waitFor rowsMatchTheLog
expect grep -q "<alice@$DOMAIN>.*status=sent" "$MAILLOG"

step "the feed is killed again and again in the middle of 300 more"
came=$(rowCount "<many@elsewhere.example> <alice@")
sendMany 300
for more in 10 70 130 190 250; do
  waitFor manyCame "$((came + more))"
  pid=$(feedPid)
  kill -KILL "$pid"
  waitFor gone "$pid"
  startFeed
done
expect wait "$source"
# What was sent after the last save comes twice.
allCame() { diff <(sort -u "$rows") <("$here/rule" "${logs[@]}" | sort -u) >"$WORLD/rows.diff"; }
waitFor allDelivered
waitFor allCame
expect equal "$(sort -u "$rows" | grep -c '<many@elsewhere.example> <alice@')" "$((came + 300))"

step "stopped, it has sent all; started again, it repeats nothing"
pid=$(feedPid)
kill -TERM "$pid"
waitFor gone "$pid"
lines=$(wc -l <"$rows")
mailFrom --to "alice@$DOMAIN"
waitFor mailLogged "from=<$sender>.*queue active"
startFeed
expectRows received "alice@$DOMAIN" 1
waitFor allCame
expect equal "$(wc -l <"$rows")" "$((lines + 2))"

step "the real collector stores and counts what these logs tell"
kill -TERM "$(feedPid)" "$standIn"
waitFor gone "$standIn"
expect "$T/bin/maillogd" --background
cat "${logs[@]}" | expect "$T/bin/mailfeed" --stdin
pid=$(</run/postwell/maillogd.pid)
expect kill -TERM "$pid"
waitFor gone "$pid"
told=$("$here/rule" "${logs[@]}" | sort)
stored=$(mailLogRows "CASE status WHEN 0 THEN 'sent' WHEN 1 THEN 'received' WHEN 2 THEN 'bounced'
  ELSE 'resent' END, queue_id, '<' || mail_from || '>', '<' || mail_to || '>', size, message_id" | sort)
expect equal "$stored" "$told"
counted() { sqlRows "$P/etc/log_statistic.db" "SELECT sum(inbound_quantity), sum(outbound_quantity), sum(bounce_quantity) FROM log_statistic_$1"; }
numbers="$(grep -c ^received <<<"$told") $(grep -c ^sent <<<"$told") $(grep -c ^bounced <<<"$told")"
for interval in second hour day; do expect equal "$(counted "$interval")" "$numbers"; done
expect equal "$(logAsked --all)" "$(cut -d ' ' -f 1,3- <<<"$told" | sort)"
expect equal "$(postwell log count)" "$(wc -l <<<"$told")"
echo "   rows, and deliveries in Postfix's log:"
cut -d' ' -f1 <<<"$stored" | uniq -c | sed 's/^/   /'
